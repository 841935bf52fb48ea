"""Shared fixtures: the bundled sample, the kagrid command and GDAL reads."""

import json
import os
import pathlib
import subprocess

import numpy as np
import pandas as pd
import pytest
from osgeo import gdal

gdal.UseExceptions()

ROOT = pathlib.Path(__file__).resolve().parents[2]
SAMPLE = ROOT / "data" / "sample_points.csv"


@pytest.fixture(scope="session")
def kagrid_bin():
    path = pathlib.Path(os.environ.get("KAGRID", ROOT / "build" / "kagrid"))
    if not path.exists():
        pytest.skip(f"no kagrid command at {path} (build it, or set KAGRID)")
    return path


@pytest.fixture(scope="session")
def sample():
    # round_trip: every value parsed exactly as the kagrid command parses it.
    return pd.read_csv(SAMPLE, float_precision="round_trip")


def run_cli(kagrid_bin, *args, check=True):
    r = subprocess.run([str(kagrid_bin), *map(str, args)], capture_output=True, text=True)
    if check and r.returncode != 0:
        raise AssertionError(f"kagrid {' '.join(map(str, args))} failed ({r.returncode}): {r.stderr}")
    return r


def read_raster(path):
    """(values north up, geotransform, nodata, WKT) of a one-band raster."""
    ds = gdal.Open(str(path))
    band = ds.GetRasterBand(1)
    return band.ReadAsArray().astype(np.float64), ds.GetGeoTransform(), band.GetNoDataValue(), ds.GetProjection()


def with_blank(values, blank):
    """A grid with its NaN nodes written as the blank value, as kagrid's file holds it."""
    v = np.array(values, dtype=np.float64)
    v[np.isnan(v)] = blank
    return v


def read_json(path):
    with open(path, encoding="utf-8") as f:
        return json.load(f)
