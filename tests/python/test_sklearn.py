"""The generated estimators follow scikit-learn's conventions."""

import numpy as np
import pytest
from sklearn.base import clone
from sklearn.model_selection import GridSearchCV, KFold, cross_val_score

import kagrid


@pytest.fixture(scope="module")
def xy(sample):
    return sample[["x", "y"]].to_numpy(), sample.z.to_numpy()


def test_one_class_per_method():
    for m in kagrid.methods():
        cls = getattr(kagrid, "".join(p.capitalize() for p in m["key"].split("-")))
        assert cls._method == m["key"]
        params = cls().get_params()
        assert "threads" in params and "params" in params
    assert "power" in kagrid.InverseDistance().get_params()
    assert "variogram" in kagrid.Kriging().get_params()


def test_clone_keeps_params():
    est = kagrid.InverseDistance(power=3, maxFromAll=12, threads=1)
    copy = clone(est)
    assert copy is not est and copy.get_params() == est.get_params()
    assert "power=3" in repr(est)


def test_cross_val_score_and_grid_search(xy):
    X, y = xy
    cv = KFold(5, shuffle=True, random_state=0)
    scores = cross_val_score(kagrid.InverseDistance(power=2), X, y, cv=cv)
    assert scores.shape == (5,) and np.isfinite(scores).all()
    search = GridSearchCV(kagrid.InverseDistance(), {"power": [1, 2, 3]}, cv=cv).fit(X, y)
    assert search.best_params_["power"] in (1, 2, 3)
    assert np.isfinite(search.best_estimator_.predict(X[:5])).all()


def test_predict_at_nodes_equals_the_grid(xy):
    X, y = xy
    vario = kagrid.fit_variogram(X[:, 0], X[:, 1], y, model="Nugget+Spherical")
    est = kagrid.Kriging(variogram=vario, nuggetOnDiagonal=False, threads=2).fit(X, y)
    ds = est.grid(size=(23, 17), stddev=True)
    gx, gy = np.meshgrid(ds.x.values, ds.y.values)
    # The record the estimator holds has the fill's lattice, not the grid's:
    # predict with one whose lattice is the grid's.
    est2 = clone(est).set_params(params={"xMin": float(ds.x[0]), "xMax": float(ds.x[-1]),
                                         "yMin": float(ds.y[-1]), "yMax": float(ds.y[0]),
                                         "columnCount": 23, "rowCount": 17}).fit(X, y)
    z, sd = est2.predict(np.c_[gx.ravel(), gy.ravel()], return_std=True)
    np.testing.assert_array_equal(z.reshape(ds.z.shape), ds.z.values)
    np.testing.assert_array_equal(sd.reshape(ds.z.shape), ds.stddev.values)


def test_fitted_estimator_pickles(xy):
    import pickle
    X, y = xy
    est = kagrid.RadialBasis(basisFunction=0, r2Parameter=1).fit(X, y)
    again = pickle.loads(pickle.dumps(est))
    np.testing.assert_array_equal(again.predict(X[:50]), est.predict(X[:50]))


def test_predict_needs_fit():
    with pytest.raises(Exception, match="not fitted"):
        kagrid.NearestNeighbor().predict(np.zeros((1, 2)))
