"""cross_validate, variogram, fit_variogram and tune give what kagrid's commands give."""

import json

import numpy as np
import pytest

import kagrid
from conftest import SAMPLE, read_json, run_cli

S = {"searchMode": "nearest", "sectorCount": 1, "maxFromAll": 20, "maxFromEach": 20, "minInAll": 1}


def _sets(settings):
    out = []
    for k, v in settings.items():
        out += ["--set", f"{k}={json.dumps(v) if isinstance(v, dict) else v}"]
    return out


@pytest.mark.parametrize("method,settings", [("inverse-distance", {"power": 2}), ("kriging", S),
                                             ("radial-basis", {})])
def test_cross_validate_equals_kagrid(method, settings, sample, kagrid_bin, tmp_path):
    run_cli(kagrid_bin, "cross-validate", method, SAMPLE, "-q", "--threads", 2, *_sets(settings),
            "--report", tmp_path / "r.json", "--residuals", tmp_path / "r.csv")
    residuals, summary = kagrid.cross_validate(method, sample.x, sample.y, sample.z, threads=2, **settings)
    assert summary == read_json(tmp_path / "r.json")
    import pandas as pd
    cli = pd.read_csv(tmp_path / "r.csv", float_precision="round_trip")
    assert list(residuals.columns) == list(cli.columns)
    np.testing.assert_array_equal(residuals.to_numpy(), cli.to_numpy())


def test_variogram_and_fit_equal_kagrid(sample, kagrid_bin, tmp_path):
    run_cli(kagrid_bin, "variogram", SAMPLE, "--fit", "Nugget+Spherical", "--width", 150,
            "--direction", 30, "--tolerance", 40, "--json", tmp_path / "v.json")
    cli = read_json(tmp_path / "v.json")
    lags = kagrid.variogram(sample.x, sample.y, sample.z, width=150, direction=30, tolerance=40)
    assert lags.to_dict("records") == cli["lags"]
    assert lags.attrs["width"] == 150
    # The sample's lags rise as a parabola: a spherical range runs off, and both ways say so.
    with pytest.warns(RuntimeWarning, match="lies far beyond the farthest lag"):
        model = kagrid.fit_variogram(sample.x, sample.y, sample.z, model="Nugget+Spherical", width=150,
                                     direction=30, tolerance=40)
    assert model == cli["model"]
    with pytest.warns(RuntimeWarning, match="Spherical range"):
        assert kagrid.fit_variogram(lags, model="nugget+spherical") == model


def test_tune_equals_kagrid(sample, kagrid_bin, tmp_path):
    r = run_cli(kagrid_bin, "tune", "inverse-distance", SAMPLE, "-q", "--threads", 2, "--set", "radius1=900",
                "--write-params", tmp_path / "t.json")
    result = kagrid.tune("idw", sample.x, sample.y, sample.z, threads=2, radius1=900)
    assert result.settings == read_json(tmp_path / "t.json")
    assert result.settings["radius1"] == 900
    assert result.table["best"].sum() == 1
    best = result.table[result.table["best"]].iloc[0]
    assert f"{best.rmse:.8g}" in r.stdout
    assert len(result.table) == sum(1 for line in r.stdout.splitlines() if line[:4].strip().rstrip("*").isdigit())
    # The chosen settings grid as params=.
    ds = kagrid.grid("idw", sample.x, sample.y, sample.z, params=result.settings, size=(10, 10))
    assert np.isfinite(ds.z.values).any()
