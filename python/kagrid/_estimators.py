"""Estimator classes in scikit-learn's conventions, one per method of the
registry, generated from it: kagrid.Kriging, kagrid.InverseDistance, ..."""

import inspect

import numpy as np

from . import _api
from . import _core
from . import _inputs

# Estimator parameters besides the method's keys.
_EXTRA = {"params": None, "threads": 0, "plugin_defaults": False}


def class_name(key):
    """"inverse-distance" -> "InverseDistance"."""
    return "".join(part[:1].upper() + part[1:] for part in key.split("-"))


def _coordinates(X):
    """(x, y) columns from an (n, 2) array, a DataFrame with x and y columns, or a pair (x, y)."""
    if isinstance(X, tuple) and len(X) == 2:
        return _inputs.column(X[0], "x"), _inputs.column(X[1], "y")
    if hasattr(X, "columns"):
        x, y = _inputs._frame_xy(X, None) if X.shape[1] != 2 else (X.iloc[:, 0], X.iloc[:, 1])
        return _inputs.column(x, "x"), _inputs.column(y, "y")
    a = np.asarray(X)
    if a.ndim != 2 or a.shape[1] != 2:
        raise ValueError(f"coordinates: expected shape (n, 2) (x and y), got {a.shape}")
    return _inputs.column(a[:, 0], "x"), _inputs.column(a[:, 1], "y")


class KagridEstimator:
    """Base of the generated estimators: fit stores the samples and builds the
    method's record (filled from them as kagrid fills it, then `params`, then
    the keys set on the estimator); predict estimates at arbitrary positions;
    grid grids the fitted samples. scikit-learn's protocol (get_params,
    set_params, fit, predict, score, _estimator_type) without importing it,
    so that `import kagrid` stays light."""

    _estimator_type = "regressor"
    _method = None
    _param_names = ()

    def get_params(self, deep=True):
        return {name: getattr(self, name) for name in self._param_names}

    def set_params(self, **params):
        for name, value in params.items():
            if name not in self._param_names:
                raise ValueError(f"Invalid parameter {name!r} for estimator {type(self).__name__}: "
                                 f"not a key of {self._method} (see kagrid methods {self._method})")
            setattr(self, name, value)
        return self

    def __repr__(self):
        changed = ", ".join(f"{k}={v!r}" for k, v in self.get_params().items()
                            if v is not None and not (k in _EXTRA and v == _EXTRA[k]))
        return f"{type(self).__name__}({changed})"

    def _settings(self):
        return {k: getattr(self, k) for k in self._param_names if k not in _EXTRA and getattr(self, k) is not None}

    def fit(self, X, y):
        """X: (n, 2) coordinates (or a pair (x, y), or a DataFrame with x and y); y: the values."""
        x, yy = _coordinates(X)
        self.samples_ = _inputs.samples(x, yy, y)[:3]
        self._make_record()
        self.n_features_in_ = 2
        return self

    def _make_record(self):
        pairs, params_file = _inputs.settings(self.params, self._settings())
        self.record_ = _core.Record.make(self._method, *self.samples_, settings=pairs, params_file=params_file,
                                         plugin_defaults=bool(self.plugin_defaults))

    # Pickling (joblib's processes): the record is made again from the samples.
    def __getstate__(self):
        return {k: v for k, v in self.__dict__.items() if k != "record_"}

    def __setstate__(self, state):
        self.__dict__.update(state)
        if "samples_" in state:
            self._make_record()

    def _check_fitted(self):
        if not hasattr(self, "record_"):
            try:
                from sklearn.exceptions import NotFittedError
            except ImportError:  # pragma: no cover
                NotFittedError = ValueError
            raise NotFittedError(f"this {type(self).__name__} is not fitted yet; call fit first")

    def predict(self, X, return_std=False):
        """Estimates at the positions X; NaN where blank. With return_std also
        the kriging standard deviation (kriging methods)."""
        self._check_fitted()
        px, py = _coordinates(X)
        return _api._predict(self._method, self.record_, *self.samples_, px, py, _api._threads(self.threads),
                             return_std, False)

    def score(self, X, y):
        """R² of the predictions (NaN when a position is blank)."""
        observed = _inputs.column(y, "y")
        predicted = self.predict(X)
        residual = np.sum((observed - predicted) ** 2)
        total = np.sum((observed - observed.mean()) ** 2)
        return float(1 - residual / total) if total > 0 else float("nan")

    def grid(self, **options):
        """The fitted samples gridded (kagrid.grid's bounds, cell, size, like,
        crs, stddev, progress)."""
        self._check_fitted()
        return _api.grid(self._method, *self.samples_, params=self.params, threads=self.threads,
                         plugin_defaults=self.plugin_defaults, **{**self._settings(), **options})


def _make(info, fields):
    key = info["key"]
    keys = [f["key"] for f in fields]
    names = tuple(keys) + tuple(_EXTRA)
    defaults = {k: None for k in keys}
    defaults.update(_EXTRA)

    def __init__(self, **kwargs):
        unknown = [k for k in kwargs if k not in defaults]
        if unknown:
            raise TypeError(f"{type(self).__name__}: unknown parameter {unknown[0]!r} "
                            f"(see kagrid methods {key})")
        for name in names:
            setattr(self, name, kwargs.get(name, defaults[name]))

    __init__.__signature__ = inspect.Signature(
        [inspect.Parameter("self", inspect.Parameter.POSITIONAL_OR_KEYWORD)] +
        [inspect.Parameter(n, inspect.Parameter.KEYWORD_ONLY, default=defaults[n]) for n in names])
    lines = [f"{info['title']} (kagrid {key}) as a scikit-learn estimator.", "",
             "Parameters are the method's keys (None: kagrid's default, or the value it fills "
             "from the samples), params= (a dict or parameter file applied first), threads= "
             "(0: one per core) and plugin_defaults= (True: filled as the plug-in's dialog fills it).", ""]
    lines += [f"{f['key']} ({f['type']}, default {f['default']}): {f['help']}" for f in fields]
    return type(class_name(key), (KagridEstimator,), {
        "__init__": __init__, "__doc__": "\n".join(lines), "__module__": "kagrid",
        "_method": key, "_param_names": names})


def estimator_classes():
    """{class name: class} for every method of the registry."""
    return {class_name(m["key"]): _make(m, _core.fields(m["key"])) for m in _core.methods()}
