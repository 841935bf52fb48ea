"""examples/python/meuse_like.py runs and writes its rasters."""

import subprocess
import sys

from conftest import ROOT, read_raster


def test_meuse_like_example(tmp_path):
    r = subprocess.run([sys.executable, str(ROOT / "examples" / "python" / "meuse_like.py"), str(tmp_path)],
                       capture_output=True, text=True, timeout=600)
    assert r.returncode == 0, r.stderr
    assert "best: Nugget+" in r.stdout
    z, gt, nodata, wkt = read_raster(tmp_path / "logz_krig.tif")
    sd, sd_gt, _, _ = read_raster(tmp_path / "logz_sd.tif")
    assert z.shape == (161, 201) and gt == sd_gt and "Amersfoort" in wkt
    assert (sd[sd != nodata] >= 0).all()
