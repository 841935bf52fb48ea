"""kagrid: gridding scattered samples in-process, from NumPy, pandas,
GeoPandas and xarray, with the engine of the kagrid command.

    import kagrid
    ds = kagrid.grid("kriging", x, y, z, bounds=(xmin, ymin, xmax, ymax), cell=40,
                     variogram=kagrid.fit_variogram(x, y, z, model="Nugget+Spherical"))
    ds["z"].plot(); ds.rio.to_raster("z.tif")

Functions: grid, predict, cross_validate, variogram, fit_variogram, tune,
methods. One estimator class per method (Kriging, InverseDistance, ...) in
scikit-learn's conventions. Errors are ValueError (KeyError for an unknown
key or method) with kagrid's own messages; Cancelled when a progress
callback returned False.
"""

from . import _core
from ._api import CrossValidation, Tuning, cross_validate, fit_variogram, grid, predict, tune, variogram
from ._estimators import KagridEstimator, estimator_classes as _estimator_classes
from ._inputs import methods

__version__ = _core.version()
Cancelled = _core.Cancelled

_classes = _estimator_classes()
globals().update(_classes)
ESTIMATORS = tuple(_classes)  # the class names, in the registry's order
del _classes

__all__ = ["grid", "predict", "cross_validate", "variogram", "fit_variogram", "tune", "methods",
           "CrossValidation", "Tuning", "Cancelled", "KagridEstimator", *ESTIMATORS]
