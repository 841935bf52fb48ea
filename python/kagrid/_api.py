"""kagrid's commands as functions: grid, predict, cross_validate, variogram,
fit_variogram and tune."""

import collections
import contextlib
import json
import numbers
import warnings

import numpy as np

from . import _core
from . import _inputs

CrossValidation = collections.namedtuple("CrossValidation", ["residuals", "summary"])
CrossValidation.__doc__ = """Leave-one-out results: `residuals`, a DataFrame (x, y, observed,
estimated, residual = observed - estimated; estimated NaN where none), and `summary`, a dict
(count, estimated, me, mae, rmse, r) as `kagrid cross-validate --report` writes it."""
Tuning = collections.namedtuple("Tuning", ["settings", "table"])
Tuning.__doc__ = """`settings`: the chosen settings (the keys you set and the keys the sweep
chose) as `kagrid tune --write-params` writes them; pass them on as params=. `table`: every
candidate tried, as a DataFrame (stage, rmse, mae, me, blank_percent, label, settings, best)."""


def _threads(threads):
    if isinstance(threads, bool) or not isinstance(threads, numbers.Integral) or not 0 <= threads <= 1024:
        raise ValueError(f"threads: a whole number from 0 (every core) to 1024, got {threads!r}")
    return int(threads)


@contextlib.contextmanager
def _progress(progress, what):
    """The callback for the core: a user's callable, a tqdm bar for True, or
    None. A call that completes reports 100 last, whatever the core sent."""
    if progress is None or progress is False:
        yield None
        return
    if progress is not True and not callable(progress):
        raise ValueError(f"progress: expected True, False or a callable, got {progress!r}")
    bar, report = None, progress
    if progress is True:
        try:
            from tqdm.auto import tqdm
        except ImportError:
            yield None
            return
        bar = tqdm(total=100, desc=what, unit="%")

        def report(percent):
            bar.update(max(0, percent - bar.n))

    last = [-1]

    def callback(percent):
        last[0] = percent
        return report(percent)

    try:
        yield callback
        if last[0] < 100:
            report(100)
    finally:
        if bar is not None:
            bar.close()


def _record(method, x, y, z, column, coordinates, bounds, cell, size, like, params, settings, plugin_defaults=False):
    key = _inputs.method_key(method)
    xs, ys, zs, crs = _inputs.samples(x, y, z, column, coordinates)
    geom, like_crs = _inputs.geometry(bounds, cell, size, like)
    pairs, params_file = _inputs.settings(params, settings)
    record = _core.Record.make(key, xs, ys, zs, settings=pairs, params_file=params_file,
                               plugin_defaults=bool(plugin_defaults), **geom)
    return key, record, (xs, ys, zs), crs or like_crs, (pairs, params_file)


def _lattice(g):
    """Node coordinates and the GeoTransform of the grid as kagrid writes it."""
    cols, rows = g["columns"], g["rows"]
    xmin, ymin, xmax, ymax = g["xMin"], g["yMin"], g["xMax"], g["yMax"]
    dx = (xmax - xmin) / (cols - 1) if cols >= 2 else 0.0
    dy = (ymax - ymin) / (rows - 1) if rows >= 2 else 0.0
    # One column (or row) has no spacing of its own: borrow the other one.
    if dx == 0.0 and dy == 0.0:
        dx = dy = 1.0
    elif dx == 0.0:
        dx = dy
    elif dy == 0.0:
        dy = dx
    # Nodes as the engine places them (c * dx + xMin); the last ones exactly on
    # the bounds, so that rioxarray derives the very transform kagrid writes.
    xs = np.arange(cols, dtype=np.float64) * dx + xmin
    ys = np.arange(rows - 1, -1, -1, dtype=np.float64) * dy + ymin
    xs[-1], ys[0] = (xmax if cols >= 2 else xmin), (ymax if rows >= 2 else ymin)
    return xs, ys, (xmin - dx / 2, dx, 0.0, ymax + dy / 2, 0.0, -dy)


def _dataset(g, key, record, crs):
    import xarray as xr
    import rioxarray  # noqa: F401  (the .rio accessor)
    from affine import Affine

    xs, ys, gt = _lattice(g)
    blank = g["blankValue"]
    variables = {"z": g["z"]}
    if g["stdDev"] is not None:
        variables["stddev"] = g["stdDev"]
    data = {}
    for name, values in variables.items():
        # Blank nodes become NaN in place (the array is the core's own buffer);
        # so do overflowed ones, which kagrid writes as blank.
        values[(values == blank) | ~np.isfinite(values)] = np.nan
        data[name] = xr.DataArray(values, dims=("y", "x"), attrs={"blank_value": blank})
    ds = xr.Dataset(data, coords={"x": xs, "y": ys},
                    attrs={"kagrid_method": key, "kagrid_parameters": record.to_json()})
    ds = ds.rio.write_transform(Affine.from_gdal(*gt))
    if crs is not None:
        ds = ds.rio.write_crs(crs)
    for name in data:
        # rio.to_raster writes the blank value as nodata, as kagrid does.
        ds[name] = ds[name].rio.write_nodata(blank, encoded=True)
        ds[name].attrs["blank_value"] = blank
    return ds


def grid(method, x, y=None, z=None, *, column=None, coordinates=None, bounds=None, cell=None, size=None,
         like=None, crs=None, params=None, threads=0, stddev=False, progress=False, plugin_defaults=False, **settings):
    """Grid scattered samples as `kagrid METHOD` does, bit for bit.

    method: a registry key ("kriging", "inverse-distance", ...), the class name
        (InverseDistance) or snake_case; "idw" and "rbf" are short for the two.
    x, y, z: array-likes of equal length, or x a DataFrame with `column=` the
        values (x and y from columns x/y, easting/northing or lon/lat, or
        `coordinates=(xcol, ycol)`), or a GeoDataFrame of points (`column=`,
        or z from the geometry; its CRS is the grid's). float64 C-contiguous
        arrays are read in place; anything else is converted once. Rows with
        a NaN are left out with a warning, as kagrid skips missing values.
    bounds, cell, size, like: the grid as kagrid's --bounds (xmin, ymin, xmax,
        ymax), --cell (d or (dx, dy)), --size (columns, rows) and --like (a
        raster file, or a DataArray/Dataset whose lattice to take).
    params: a dict of settings or a kagrid parameter file, applied before the
        keyword settings, which are kagrid's keys (power=2, radius1=500,
        variogram={...}, searchMode="rings", ...).
    plugin_defaults: fill the record as the plug-in's dialog does (the ring
        walk, every sample as the caps; kagrid --plugin-defaults) instead of
        the nearest-first search with at most 100 samples a node.
    crs: the grid's coordinate system (EPSG:28992, WKT, ...); default the
        GeoDataFrame's or like='s.
    threads: 0 for one per core; the grid is the same whatever the count.
    stddev: also the kriging standard deviation (kriging, linear-kriging).
    progress: True for a tqdm bar (when tqdm is installed), or a callable
        taking the percent done and returning False to stop. Ctrl-C stops the
        run between rows (KeyboardInterrupt).

    Returns an xarray.Dataset with `z` (and `stddev`), dims (y, x), y
    descending (north up), blank nodes NaN with the blank value in the
    variables' `blank_value` attribute and as their encoded nodata, the CRS
    and transform in `spatial_ref` for rioxarray (ds.rio.to_raster(...))."""
    threads = _threads(threads)
    key, record, (xs, ys, zs), data_crs, _ = _record(method, x, y, z, column, coordinates, bounds, cell, size,
                                                     like, params, settings, plugin_defaults)
    if stddev and not _inputs.method_info(key)["stdDev"]:
        raise ValueError(f"stddev: {key} forms no standard deviation (kriging and linear-kriging do)")
    with _progress(progress, f"kagrid {key}") as callback:
        g = _core.grid(record, xs, ys, zs, threads=threads, stddev=bool(stddev), progress=callback)
    for w in g["warnings"]:
        warnings.warn(w, RuntimeWarning, stacklevel=2)
    return _dataset(g, key, record, crs if crs is not None else data_crs)


def predict(method, x, y, z, at_x, at_y, *, column=None, coordinates=None, params=None, threads=0,
            return_std=False, progress=False, plugin_defaults=False, **settings):
    """Estimates at arbitrary positions (at_x, at_y), each as a grid node there
    would get it; blank positions are NaN. With return_std, also the kriging
    standard deviation (NaN where none). Samples and settings as for grid()."""
    threads = _threads(threads)
    key, record, (xs, ys, zs), _, _ = _record(method, x, y, z, column, coordinates, None, None, None, None,
                                              params, settings, plugin_defaults)
    return _predict(key, record, xs, ys, zs, at_x, at_y, threads, return_std, progress)


def _predict(key, record, xs, ys, zs, at_x, at_y, threads, return_std, progress):
    info = _inputs.method_info(key)
    if not info["pointwise"]:
        raise ValueError(f"{key} draws its grid as a whole and cannot estimate at single positions")
    if return_std and not info["stdDev"]:
        raise ValueError(f"return_std: {key} forms no standard deviation (kriging and linear-kriging do)")
    px, py = _inputs.column(at_x, "x"), _inputs.column(at_y, "y")
    if len(px) != len(py):
        raise ValueError(f"the positions' x and y hold {len(px)} and {len(py)} values")
    if not (np.isfinite(px).all() and np.isfinite(py).all()):
        raise ValueError("the positions hold NaN or infinite coordinates")
    with _progress(progress, f"kagrid {key}") as callback:
        z, sd = _core.predict(record, xs, ys, zs, px, py, threads=threads, stddev=bool(return_std), progress=callback)
    blank = record.blank_value
    z[z == blank] = np.nan
    if return_std:
        return z, (sd if sd is not None else np.full_like(z, np.nan))
    return z


def cross_validate(method, x, y=None, z=None, *, column=None, coordinates=None, params=None, threads=0,
                   progress=False, plugin_defaults=False, **settings):
    """Leave-one-out estimates of every sample from the others, as `kagrid
    cross-validate` computes them. Returns CrossValidation(residuals, summary)."""
    import pandas as pd

    threads = _threads(threads)
    key, record, (xs, ys, zs), _, _ = _record(method, x, y, z, column, coordinates, None, None, None, None,
                                              params, settings, plugin_defaults)
    with _progress(progress, f"kagrid cross-validate {key}") as callback:
        c = _core.cross_validate(record, xs, ys, zs, threads=threads, progress=callback)
    residuals = pd.DataFrame({"x": c["x"], "y": c["y"], "observed": c["observed"], "estimated": c["estimated"],
                              "residual": c["observed"] - c["estimated"]})
    summary = {"count": c["count"], "estimated": c["estimated_count"], "me": c["me"], "mae": c["mae"],
               "rmse": c["rmse"], "r": c["r"]}
    return CrossValidation(residuals, summary)


def _variogram_options(cutoff, width, direction, tolerance):
    o = {"cutoff": 0.0, "width": 0.0, "direction": None, "tolerance": 22.5}
    if cutoff is not None:
        o["cutoff"] = _inputs.finite_number(cutoff, "cutoff")
        if o["cutoff"] <= 0:
            raise ValueError(f"cutoff: must be positive, got {cutoff!r}")
    if width is not None:
        o["width"] = _inputs.finite_number(width, "width")
        if o["width"] <= 0:
            raise ValueError(f"width: must be positive, got {width!r}")
    if tolerance is not None and direction is None:
        raise ValueError("tolerance: needs a direction")
    if direction is not None:
        o["direction"] = _inputs.finite_number(direction, "direction")
        if tolerance is not None:
            o["tolerance"] = _inputs.finite_number(tolerance, "tolerance")
    return o


def variogram(x, y=None, z=None, *, column=None, coordinates=None, cutoff=None, width=None, direction=None,
              tolerance=None):
    """The experimental semivariogram as `kagrid variogram` computes it: every
    pair at distance d < cutoff in lag floor(d / width) (cutoff a third of the
    bounding box's diagonal, width cutoff / 15 unless given; direction, degrees
    clockwise from north, keeps pairs within tolerance of it). A DataFrame
    (distance, gamma, pairs) with the cutoff and width in .attrs."""
    import pandas as pd

    xs, ys, zs, _ = _inputs.samples(x, y, z, column, coordinates)
    v = _core.variogram(xs, ys, zs, **_variogram_options(cutoff, width, direction, tolerance))
    frame = pd.DataFrame({"distance": v["distance"], "gamma": v["gamma"], "pairs": v["pairs"].astype(np.int64)})
    frame.attrs.update(cutoff=v["cutoff"], width=v["width"])
    return frame


def fit_variogram(x, y=None, z=None, *, model="Nugget+Spherical", column=None, coordinates=None, cutoff=None,
                  width=None, direction=None, tolerance=None):
    """A sum of models fitted to the experimental variogram by weighted least
    squares (weights N/h^2), as `kagrid variogram --fit` does. x is the
    samples (as for variogram()) or a DataFrame variogram() returned. Returns
    the model as the `variogram` setting takes it: {"components": [...]}
    (use nuggetOnDiagonal=False for its nugget's textbook meaning)."""
    if hasattr(x, "columns") and {"distance", "gamma", "pairs"} <= set(x.columns):
        lags = x
    else:
        lags = variogram(x, y, z, column=column, coordinates=coordinates, cutoff=cutoff, width=width,
                         direction=direction, tolerance=tolerance)
    if not isinstance(model, str):
        raise ValueError(f"model: expected names joined by '+', e.g. 'Nugget+Spherical', got {model!r}")
    text, _sse, warning = _core.fit_variogram(_inputs.column(lags["distance"], "distance"),
                                              _inputs.column(lags["gamma"], "gamma"),
                                              _inputs.column(lags["pairs"], "pairs"), model)
    if warning:
        warnings.warn(warning, RuntimeWarning, stacklevel=2)
    return json.loads(text)


def tune(method, x, y=None, z=None, *, column=None, coordinates=None, params=None, threads=0, max_blank=1.0,
         progress=False, plugin_defaults=False, **settings):
    """A method's settings chosen by leave-one-out cross-validation, as `kagrid
    tune` chooses them; the settings you give are held. max_blank: the
    percentage of samples that may stay without an estimate. Returns
    Tuning(settings, table); grid with params=result.settings. The sweep
    cannot stop midway: Ctrl-C takes effect when it ends."""
    import pandas as pd

    threads = _threads(threads)
    share = _inputs.finite_number(max_blank, "max_blank")
    if not 0 <= share <= 100:
        raise ValueError(f"max_blank: a percentage from 0 to 100, got {max_blank!r}")
    key, record, (xs, ys, zs), _, (pairs, params_file) = _record(method, x, y, z, column, coordinates, None, None,
                                                                 None, None, params, settings, plugin_defaults)
    given = set(_inputs.given_keys(pairs, params_file))
    with _progress(progress, f"kagrid tune {key}") as callback:
        t = _core.tune(record, xs, ys, zs, given, threads=threads, max_blank_share=share / 100, progress=callback)
    table = pd.DataFrame(t["rows"], columns=["stage", "rmse", "mae", "me", "blank_percent", "label", "settings",
                                             "best"])
    table["settings"] = table["settings"].map(json.loads)
    table.index = pd.RangeIndex(1, len(table) + 1, name="candidate")
    return Tuning(json.loads(t["parameters"]), table)
