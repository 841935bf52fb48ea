"""Inputs: NumPy read in place, pandas and GeoPandas, and the raster written back."""

import numpy as np
import pytest

import kagrid
from kagrid import _core, _inputs
from conftest import SAMPLE, read_raster, run_cli


def test_float64_is_read_in_place(sample):
    x = np.ascontiguousarray(sample.x.to_numpy())
    y, z = sample.y.to_numpy(), sample.z.to_numpy()
    xs, ys, zs, _ = _inputs.samples(x, y, z)
    seen = _core._points_view(xs, ys, zs)  # what the core reads
    for core, given in zip(seen, (x, y, z)):
        assert np.shares_memory(core, given)
    # A pandas column of float64 is read in place too.
    xs, ys, zs, _ = _inputs.samples(sample, column_name="z")
    assert np.shares_memory(_core._points_view(xs, ys, zs)[2], sample["z"].to_numpy())


@pytest.mark.parametrize("convert", [lambda a: a.astype(np.float32),
                                     lambda a: np.asfortranarray(np.stack([a, a]))[0],
                                     lambda a: a.astype(np.int64),
                                     lambda a: list(a)], ids=["float32", "strided", "int64", "list"])
def test_other_inputs_converted_once(sample, convert):
    z = convert(sample.z.to_numpy())
    xs, ys, zs, _ = _inputs.samples(sample.x, sample.y, z)
    assert zs.dtype == np.float64 and zs.flags.c_contiguous
    np.testing.assert_array_equal(zs, np.asarray(z, dtype=np.float64))
    ds = kagrid.grid("nearest-neighbor", sample.x, sample.y, z, size=(9, 7))
    assert ds.z.shape == (7, 9)


def test_dataframe_and_geodataframe_agree(sample):
    import geopandas as gpd
    gdf = gpd.GeoDataFrame(sample[["z"]].rename(columns={"z": "zinc"}),
                           geometry=gpd.points_from_xy(sample.x, sample.y), crs="EPSG:28992")
    a = kagrid.grid("idw", sample.x, sample.y, sample.z, size=(20, 15))
    b = kagrid.grid("idw", sample, column="z", size=(20, 15))
    c = kagrid.grid("idw", gdf, column="zinc", size=(20, 15))
    for other in (b, c):
        np.testing.assert_array_equal(a.z.values, other.z.values)
    assert a.rio.crs is None
    assert c.rio.crs.to_epsg() == 28992
    assert c.z.dims == ("y", "x") and c.y.values[0] > c.y.values[-1]


def test_geodataframe_to_raster_matches_kagrid_file(sample, kagrid_bin, tmp_path):
    import geopandas as gpd
    from osgeo import osr
    gdf = gpd.GeoDataFrame(sample[["z"]], geometry=gpd.points_from_xy(sample.x, sample.y), crs="EPSG:28992")
    ds = kagrid.grid("kriging", gdf, column="z", bounds=(0, 0, 5000, 4000), cell=50)
    ds["z"].rio.to_raster(tmp_path / "py.tif")
    run_cli(kagrid_bin, "kriging", SAMPLE, tmp_path / "cli.tif", "-q", "--bounds", "0,0,5000,4000", "--cell", "50",
            "--crs", "EPSG:28992")
    py_values, py_gt, py_nodata, py_wkt = read_raster(tmp_path / "py.tif")
    cli_values, cli_gt, cli_nodata, cli_wkt = read_raster(tmp_path / "cli.tif")
    assert py_gt == cli_gt
    assert py_nodata == cli_nodata
    np.testing.assert_array_equal(py_values, cli_values)
    a, b = osr.SpatialReference(py_wkt), osr.SpatialReference(cli_wkt)
    assert a.IsSame(b), (py_wkt, cli_wkt)


def test_blank_nodes_are_nan_with_the_blank_value_kept(sample):
    ds = kagrid.grid("moving-average", sample.x, sample.y, sample.z, bounds=(-5000, -5000, 9000, 9000),
                     size=(30, 30), radius1=300, radius2=300, minInAll=3)
    assert np.isnan(ds.z.values).any() and np.isfinite(ds.z.values).any()
    assert ds.z.attrs["blank_value"] == ds.z.rio.encoded_nodata
    assert ds.z.rio.encoded_nodata == _core.Record.make("moving-average", *_inputs.samples(
        sample.x, sample.y, sample.z)[:3]).blank_value


def test_missing_values_are_skipped_as_kagrid_skips_them(sample):
    z = sample.z.to_numpy().copy()
    z[[3, 10]] = np.nan
    with pytest.warns(UserWarning, match="skipped 2 rows with missing values"):
        ds = kagrid.grid("nearest-neighbor", sample.x, sample.y, z, size=(10, 10))
    keep = ~np.isnan(z)
    ref = kagrid.grid("nearest-neighbor", sample.x[keep], sample.y[keep], z[keep], size=(10, 10))
    np.testing.assert_array_equal(ds.z.values, ref.z.values)
