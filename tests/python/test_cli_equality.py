"""The package's grids are the kagrid command's, bit for bit, for every method."""

import json
import warnings

import numpy as np
import pytest

import kagrid
from conftest import SAMPLE, read_raster, run_cli, with_blank

METHODS = [m["key"] for m in kagrid.methods()]
SPH = {"components": [{"model": "Nugget", "sill": 20}, {"model": "Spherical", "sill": 2500, "range": 1500}]}

# (method, keyword settings, the same as kagrid options); geometry both ways.
CASES = [(m, {}, []) for m in METHODS] + [
    ("inverse-distance", {"power": 3, "smoothing": 0.5, "size": (57, 43)},
     ["--set", "power=3", "--set", "smoothing=0.5", "--size", "57,43"]),
    ("kriging", {"variogram": SPH, "bounds": (100, 200, 4100, 3900), "cell": 75, "searchMode": "nearest",
                 "maxFromAll": 16, "nuggetOnDiagonal": False},
     ["--set", f"variogram={json.dumps(SPH)}", "--bounds", "100,200,4100,3900", "--cell", "75",
      "--set", "searchMode=nearest", "--set", "maxFromAll=16", "--set", "nuggetOnDiagonal=false"]),
    ("data-metrics", {"metric": "median", "radius1": 400, "radius2": 400, "minInAll": 1},
     ["--set", "metric=median", "--set", "radius1=400", "--set", "radius2=400", "--set", "minInAll=1"]),
]


def _ids(case):
    return case[0] + ("" if not case[1] else "-" + "-".join(k for k in case[1]))


@pytest.mark.parametrize("case", CASES, ids=[_ids(c) for c in CASES])
def test_grid_equals_kagrid(case, sample, kagrid_bin, tmp_path):
    method, kwargs, options = case
    out = tmp_path / "cli.tif"
    info = next(m for m in kagrid.methods() if m["key"] == method)
    sd_options = ["--stddev", tmp_path / "sd.tif"] if info["stdDev"] else []
    r = run_cli(kagrid_bin, method, SAMPLE, out, "-q", "--threads", 2, *options, *sd_options, check=False)
    if not out.exists():
        # A method that makes no surface (a shell) fails in Python too, with a message.
        assert r.returncode != 0
        with pytest.raises((ValueError, RuntimeError)):
            kagrid.grid(method, sample.x, sample.y, sample.z, threads=2, **kwargs)
        return
    assert r.returncode == 0, r.stderr
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # the run review's warnings (all blank, far outside the range)
        ds = kagrid.grid(method, sample.x, sample.y, sample.z, threads=2, stddev=info["stdDev"], **kwargs)
    values, gt, nodata, _ = read_raster(out)
    assert ds.z.attrs["blank_value"] == nodata
    assert ds.z.shape == values.shape
    np.testing.assert_array_equal(with_blank(ds.z, nodata), values)
    assert ds.rio.transform().to_gdal() == gt
    # The node coordinates are the pixel centres of the file (the corner plus
    # half a cell reads back within a rounding of the first node).
    assert ds.x.values[0] == pytest.approx(gt[0] + gt[1] / 2, rel=1e-15)
    assert ds.y.values[0] == pytest.approx(gt[3] + gt[5] / 2, rel=1e-15)
    if info["stdDev"]:
        sd, sd_gt, sd_nodata, _ = read_raster(tmp_path / "sd.tif")
        np.testing.assert_array_equal(with_blank(ds.stddev, sd_nodata), sd)


def test_like_raster_and_dataarray(sample, kagrid_bin, tmp_path):
    """like= a raster path and like= the DataArray read from it give kagrid's --like lattice."""
    import rioxarray
    base = tmp_path / "base.tif"
    run_cli(kagrid_bin, "nearest-neighbor", SAMPLE, base, "-q", "--size", "31,17", "--bounds", "0,0,5000,4000")
    out = tmp_path / "like.tif"
    run_cli(kagrid_bin, "inverse-distance", SAMPLE, out, "-q", "--like", base)
    values, gt, nodata, _ = read_raster(out)
    by_path = kagrid.grid("inverse-distance", sample.x, sample.y, sample.z, like=base)
    by_array = kagrid.grid("inverse-distance", sample.x, sample.y, sample.z, like=rioxarray.open_rasterio(base))
    for ds in (by_path, by_array):
        np.testing.assert_array_equal(with_blank(ds.z, nodata), values)
        assert ds.rio.transform().to_gdal() == gt


def test_params_file_and_dict_equal_settings(sample, tmp_path):
    path = tmp_path / "p.json"
    path.write_text('{"power": 3, "smoothing": 0.25}')
    a = kagrid.grid("idw", sample.x, sample.y, sample.z, params=path)
    b = kagrid.grid("idw", sample.x, sample.y, sample.z, params={"power": 3, "smoothing": 0.25})
    c = kagrid.grid("InverseDistance", sample.x, sample.y, sample.z, power=3, smoothing=0.25)
    d = kagrid.grid("inverse_distance", sample.x, sample.y, sample.z, params={"power": 1}, power=3, smoothing=0.25)
    for other in (b, c, d):
        np.testing.assert_array_equal(a.z.values, other.z.values)
    assert a.attrs["kagrid_method"] == "inverse-distance"


@pytest.mark.parametrize("plugin", [False, True])
def test_defaults_follow_kagrid_and_plugin_defaults(plugin, sample, kagrid_bin, tmp_path):
    """The package starts from kagrid's nearest-first defaults; plugin_defaults=True is
    --plugin-defaults, the record an accepted plug-in dialog gives."""
    out = tmp_path / "cli.tif"
    run_cli(kagrid_bin, "inverse-distance", SAMPLE, out, "-q", *(["--plugin-defaults"] if plugin else []))
    ds = kagrid.grid("inverse-distance", sample.x, sample.y, sample.z, plugin_defaults=plugin)
    values, _, nodata, _ = read_raster(out)
    np.testing.assert_array_equal(with_blank(ds.z, nodata), values)
    est = kagrid.InverseDistance(plugin_defaults=plugin).fit(np.c_[sample.x, sample.y], sample.z)
    record = json.loads(est.record_.to_json())["parameters"]
    assert record["searchMode"] == ("rings" if plugin else "nearest")
    assert record["maxFromAll"] == (64 if plugin else 100)
