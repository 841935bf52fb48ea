"""Bad input raises ValueError or KeyError with a message naming what is wrong; nothing crashes."""

import numpy as np
import pytest

import kagrid

X, Y, Z = np.array([0.0, 10, 0, 10, 5]), np.array([0.0, 0, 10, 10, 5]), np.array([1.0, 2, 3, 4, 5])

CASES = [
    ("strings", lambda: kagrid.grid("idw", X, Y, np.array(list("abcde"))), ValueError, "z: not numbers"),
    ("lengths", lambda: kagrid.grid("idw", X, Y[:4], Z), ValueError, "x, y and z hold 5, 4 and 5 values"),
    ("2-D", lambda: kagrid.grid("idw", np.ones((5, 2)), Y, Z), ValueError, "x: expected one dimension"),
    ("empty", lambda: kagrid.grid("idw", [], [], []), ValueError, "no samples"),
    ("all NaN", lambda: kagrid.grid("idw", X * np.nan, Y, Z), ValueError, "every row had a missing value"),
    ("infinite", lambda: kagrid.grid("idw", X, Y + np.inf, Z), ValueError, "y: not finite at index 0"),
    ("no values", lambda: kagrid.grid("idw", X, Y), ValueError, "give x, y and z"),
    ("unknown key", lambda: kagrid.grid("idw", X, Y, Z, pwoer=2), KeyError, "pwoer"),
    ("unknown method", lambda: kagrid.grid("krigin", X, Y, Z), KeyError, "unknown method 'krigin'"),
    ("bad value", lambda: kagrid.grid("idw", X, Y, Z, sectorCount=100000), ValueError, "sectorCount"),
    ("not finite setting", lambda: kagrid.grid("idw", X, Y, Z, radius1=float("nan")), ValueError, "radius1"),
    ("bad setting type", lambda: kagrid.grid("idw", X, Y, Z, power=object()), ValueError, "power: cannot use"),
    ("bounds", lambda: kagrid.grid("idw", X, Y, Z, bounds=(0, 0, 1)), ValueError, "bounds: expected 4 numbers"),
    ("size", lambda: kagrid.grid("idw", X, Y, Z, size=(2.5, 3)), ValueError, "size: expected two whole numbers"),
    ("threads", lambda: kagrid.grid("idw", X, Y, Z, threads=-1), ValueError, "threads: a whole number"),
    ("stddev", lambda: kagrid.grid("idw", X, Y, Z, stddev=True), ValueError, "inverse-distance forms no standard"),
    ("params", lambda: kagrid.grid("idw", X, Y, Z, params=3), ValueError, "params: expected a dict"),
    ("params file", lambda: kagrid.grid("idw", X, Y, Z, params="/nonexistent/p.json"), ValueError, "p.json"),
    ("like file", lambda: kagrid.grid("idw", X, Y, Z, like="/nonexistent/g.tif"), ValueError, "g.tif"),
    ("column", lambda: kagrid.grid("idw", __import__("pandas").DataFrame({"x": X, "y": Y}), column="zinc"),
     KeyError, "no column 'zinc'"),
    ("model", lambda: kagrid.fit_variogram(X, Y, Z, model="Nugget+Foo"), ValueError, "model: unknown model 'Foo'"),
    ("too few lags", lambda: kagrid.fit_variogram(X, Y, Z, model="Nugget+Spherical+Exponential+Gaussian"), ValueError,
     "model: "),
    ("like", lambda: kagrid.grid("idw", X, Y, Z, like=3), ValueError, "like: expected a raster file"),
    ("cell", lambda: kagrid.grid("idw", X, Y, Z, cell=0), ValueError, "cell 0.0: the cell size must be positive"),
    ("cell and size", lambda: kagrid.grid("idw", X, Y, Z, cell=1, size=(3, 3)), ValueError, "cell"),
    ("flat points", lambda: kagrid.grid("idw", X, Y * 0, Z), ValueError, "bounds= and cell="),
    ("too large", lambda: kagrid.grid("idw", X, Y, Z, size=(2**31 - 1, 2**31 - 1)), MemoryError, "size="),
    ("cutoff", lambda: kagrid.variogram(X, Y, Z, cutoff=-1), ValueError, "cutoff: must be positive"),
    ("cross-validate", lambda: kagrid.cross_validate("triangulation", X, Y, Z), ValueError,
     "cannot be cross-validated"),
    ("predict", lambda: kagrid.predict("triangulation", X, Y, Z, [1.0], [1.0]), ValueError,
     "cannot estimate at single positions"),
    ("positions", lambda: kagrid.predict("idw", X, Y, Z, [1.0, np.nan], [1.0, 2.0]), ValueError, "NaN"),
    ("estimator key", lambda: kagrid.InverseDistance(pwoer=2), TypeError, "pwoer"),
    ("estimator setting", lambda: kagrid.InverseDistance(power="x").fit(np.c_[X, Y], Z), ValueError, "power"),
]


@pytest.mark.parametrize("call,kind,message", [c[1:] for c in CASES], ids=[c[0] for c in CASES])
@pytest.mark.filterwarnings("ignore::UserWarning")  # rows skipped for a NaN
def test_bad_input_message(call, kind, message):
    with pytest.raises(kind) as e:
        call()
    text = e.value.args[0] if e.value.args else str(e.value)
    assert message in text, text


@pytest.mark.parametrize("call", [
    lambda: kagrid.grid("idw", X, Y, Z, size=(20000, 20000)),
    lambda: kagrid.variogram(X, Y, Z, cutoff=1e9, width=1e-3),
    lambda: kagrid.tune("kriging", *np.random.default_rng(1).random((3, 3000)), maxFromAll=3000, maxFromEach=3000,
                        minInAll=1, radius1=2, radius2=2),
], ids=["grid", "variogram", "tune"])
def test_requests_beyond_memory_are_refused_before_any_work(call, monkeypatch):
    monkeypatch.setenv("KAGRID_MACHINE_MEMORY", "1M")
    with pytest.raises(MemoryError, match="more than this machine's"):
        call()
