"""Samples and settings as the core takes them."""

import json
import math
import numbers
import os
import re
import warnings

import numpy as np

from . import _core

# Short names people type for the common methods, besides the registry keys.
_ALIASES = {"idw": "inverse-distance", "rbf": "radial-basis"}
# Column names taken for x and y when a DataFrame's columns are not named, as
# the kagrid command guesses them from a header.
_XY_NAMES = (("x", "y"), ("easting", "northing"), ("lon", "lat"), ("longitude", "latitude"))


def methods():
    """Every method of the registry: key, title and capabilities."""
    return _core.methods()


def method_key(name):
    """The registry key for a method given by key, class name, snake_case or alias."""
    if not isinstance(name, str):
        raise TypeError(f"method: expected a name, got {type(name).__name__}")
    keys = [m["key"] for m in _core.methods()]
    text = name.strip()
    candidates = [text, text.lower(), text.lower().replace("_", "-"),
                  re.sub(r"(?<!^)(?=[A-Z])", "-", text).lower()]
    for c in candidates:
        if c in keys:
            return c
        if c in _ALIASES:
            return _ALIASES[c]
    raise KeyError(f"unknown method '{name}' (one of {', '.join(keys)})")


def method_info(key):
    for m in _core.methods():
        if m["key"] == key:
            return m
    raise KeyError(f"unknown method '{key}'")


def column(values, name):
    """One column as a 1-D float64 C-contiguous array; no copy when it already is one."""
    if values is None:
        raise ValueError(f"{name}: no values given")
    a = values.to_numpy() if hasattr(values, "to_numpy") else np.asarray(values)
    if a.dtype == object:
        try:
            a = a.astype(np.float64)
        except (TypeError, ValueError):
            raise ValueError(f"{name}: not numbers") from None
    if a.dtype.kind not in "biuf":
        raise ValueError(f"{name}: not numbers (dtype {a.dtype})")
    if a.ndim != 1:
        raise ValueError(f"{name}: expected one dimension, got shape {a.shape}")
    return np.ascontiguousarray(a, dtype=np.float64)


def _frame_xy(frame, coordinates):
    if coordinates is not None:
        cx, cy = coordinates
        for c in (cx, cy):
            if c not in frame.columns:
                raise KeyError(f"coordinates: no column '{c}' (columns: {', '.join(map(str, frame.columns))})")
        return frame[cx], frame[cy]
    lower = {str(c).lower(): c for c in frame.columns}
    for nx, ny in _XY_NAMES:
        if nx in lower and ny in lower:
            return frame[lower[nx]], frame[lower[ny]]
    raise KeyError("no x and y columns (x/y, easting/northing, lon/lat); name them with coordinates=(x, y)")


def samples(x, y=None, z=None, column_name=None, coordinates=None):
    """(x, y, z, crs) from arrays, a DataFrame or a GeoDataFrame.

    Arrays that are float64 and C-contiguous are read in place; anything else
    is converted once. Rows whose x, y or z is NaN are left out with a warning,
    as the kagrid command skips rows with missing values."""
    crs = None
    if hasattr(x, "geometry") and hasattr(x, "crs") and hasattr(x, "columns"):  # a GeoDataFrame
        frame = x
        geometry = frame.geometry
        kinds = set(geometry.geom_type.dropna().unique())
        if kinds - {"Point"}:
            raise ValueError(f"geometry: only points can be gridded (found {', '.join(sorted(kinds - {'Point'}))})")
        if column_name is None and z is None:
            if len(frame) and bool(geometry.has_z.all()):
                z = geometry.z
            else:
                raise ValueError("column: name the column holding the values (column=...)")
        elif column_name is not None:
            if column_name not in frame.columns:
                raise KeyError(f"column: no column '{column_name}' (columns: {', '.join(map(str, frame.columns))})")
            z = frame[column_name]
        x, y = geometry.x, geometry.y
        if frame.crs is not None:
            crs = frame.crs.to_wkt()
    elif hasattr(x, "columns"):  # a DataFrame
        frame = x
        if column_name is None:
            raise ValueError("column: name the column holding the values (column=...)")
        if column_name not in frame.columns:
            raise KeyError(f"column: no column '{column_name}' (columns: {', '.join(map(str, frame.columns))})")
        x, y = _frame_xy(frame, coordinates)
        z = frame[column_name]
    elif y is None or z is None:
        raise ValueError("give x, y and z, or a DataFrame with column=")
    xs, ys, zs = column(x, "x"), column(y, "y"), column(z, "z")
    if not (len(xs) == len(ys) == len(zs)):
        raise ValueError(f"x, y and z hold {len(xs)}, {len(ys)} and {len(zs)} values")
    missing = np.isnan(xs) | np.isnan(ys) | np.isnan(zs)
    skipped = int(missing.sum())
    if skipped:
        keep = ~missing
        xs, ys, zs = xs[keep], ys[keep], zs[keep]
        warnings.warn(f"kagrid: skipped {skipped} rows with missing values", stacklevel=4)
    for name, a in (("x", xs), ("y", ys), ("z", zs)):
        bad = ~np.isfinite(a)
        if bad.any():
            raise ValueError(f"{name}: not finite at index {int(np.argmax(bad))} ({a[bad][0]})")
    if len(xs) == 0:
        raise ValueError("no samples" + (" (every row had a missing value)" if skipped else ""))
    return xs, ys, zs, crs


def text(key, value):
    """A setting's value as kagrid's --set reads it."""
    if isinstance(value, (bool, np.bool_)):
        return "true" if value else "false"
    if isinstance(value, numbers.Integral):
        return str(int(value))
    if isinstance(value, numbers.Real):
        return repr(float(value))
    if isinstance(value, str):
        return value
    if isinstance(value, (dict, list, tuple)):
        return json.dumps(value)
    raise ValueError(f"{key}: cannot use a {type(value).__name__} as a setting")


def settings(params=None, values=None):
    """(key, text) pairs in the order kagrid applies them, and the parameter file.

    `params` is a dict (as --print-params prints it, or just its parameters) or
    the path of a kagrid parameter file; `values` are keyword settings, applied
    after it as --set is after --params. None means "not set"."""
    pairs, params_file = [], ""
    if isinstance(params, (str, os.PathLike)):
        params_file = os.fspath(params)
    elif isinstance(params, dict):
        inner = params.get("parameters") if isinstance(params.get("parameters"), dict) else params
        pairs += [(k, text(k, v)) for k, v in inner.items() if v is not None]
    elif params is not None:
        raise ValueError(f"params: expected a dict or a file name, got {type(params).__name__}")
    for k, v in (values or {}).items():
        if v is not None:
            pairs.append((k, text(k, v)))
    return pairs, params_file


def given_keys(pairs, params_file):
    """The keys the caller set, as `kagrid tune` holds them."""
    keys = {k for k, _ in pairs}
    if params_file:
        try:
            with open(params_file, encoding="utf-8") as f:
                data = json.load(f)
            if isinstance(data, dict):
                keys |= set(data.get("parameters", data) if isinstance(data.get("parameters"), dict) else data)
        except (OSError, ValueError):
            pass  # the record refuses the file with its own message
    return keys


def _number_list(values, name, count):
    if isinstance(values, numbers.Real):
        values = (values,)
    try:
        values = [float(v) for v in values]
    except (TypeError, ValueError):
        raise ValueError(f"{name}: expected {' or '.join(map(str, count))} numbers") from None
    if len(values) not in count:
        raise ValueError(f"{name}: expected {' or '.join(map(str, count))} numbers, got {len(values)}")
    return ",".join(repr(v) for v in values)


def like_lattice(like):
    """bounds and size of a DataArray's (or Dataset's) nodes, as --like reads a raster."""
    rio = getattr(like, "rio", None)
    transform = None
    if rio is not None:
        try:
            transform = rio.transform()
            if transform.b != 0 or transform.d != 0:
                raise ValueError("like: the grid is rotated or sheared; only north-up grids")
        except ValueError:
            raise
        except Exception:
            transform = None
    xs = np.asarray(like["x"]) if "x" in like.coords else None
    ys = np.asarray(like["y"]) if "y" in like.coords else None
    if xs is None or ys is None or xs.ndim != 1 or ys.ndim != 1 or not len(xs) or not len(ys):
        raise ValueError("like: expected a grid with x and y coordinates")
    cols, rows = len(xs), len(ys)
    if transform is not None and transform.a != 0 and transform.e != 0:
        # As kagrid reads a raster's lattice: nodes at pixel centres.
        dx, dy = abs(transform.a), abs(transform.e)
        if transform.a > 0:
            xmin = transform.c + dx / 2
            xmax = xmin + (cols - 1) * dx
        else:
            xmax = transform.c - dx / 2
            xmin = xmax - (cols - 1) * dx
        if transform.e < 0:
            ymax = transform.f - dy / 2
            ymin = ymax - (rows - 1) * dy
        else:
            ymin = transform.f + dy / 2
            ymax = ymin + (rows - 1) * dy
    else:
        xmin, xmax, ymin, ymax = float(xs.min()), float(xs.max()), float(ys.min()), float(ys.max())
    return ",".join(repr(float(v)) for v in (xmin, ymin, xmax, ymax)), f"{cols},{rows}", rio.crs if rio is not None else None


def geometry(bounds=None, cell=None, size=None, like=None):
    """kagrid's --bounds, --cell, --size and --like as text, and a CRS that like= carries."""
    g = {"bounds": "", "cell": "", "size": "", "like": ""}
    like_crs = None
    if bounds is not None:
        g["bounds"] = _number_list(bounds, "bounds", (4,))
    if cell is not None:
        g["cell"] = _number_list(cell, "cell", (1, 2))
    if size is not None:
        try:
            cols, rows = size
            if int(cols) != cols or int(rows) != rows:
                raise ValueError
            g["size"] = f"{int(cols)},{int(rows)}"
        except (TypeError, ValueError):
            raise ValueError("size: expected two whole numbers (columns, rows)") from None
    if like is not None:
        if isinstance(like, (str, os.PathLike)):
            g["like"] = os.fspath(like)
        elif not hasattr(like, "coords"):
            raise ValueError(f"like: expected a raster file or a DataArray/Dataset, got {type(like).__name__}")
        else:
            if bounds is not None or cell is not None or size is not None:
                raise ValueError("like: takes the whole lattice; give no bounds, cell or size with it")
            g["bounds"], g["size"], like_crs = like_lattice(like)
    return g, like_crs


def finite_number(value, name):
    if not isinstance(value, numbers.Real) or isinstance(value, bool) or not math.isfinite(value):
        raise ValueError(f"{name}: expected a finite number, got {value!r}")
    return float(value)
