# tune_surface.py points: 10 000 samples of bench_tune's test surface as x,y,z CSV on stdout;
# tune_surface.py err GRID.asc | rbf POINTS | cubic POINTS: RMSE against the surface and the
# blank nodes, of an AAIGrid over 201 x 161 nodes or of a SciPy peer on POINTS.
import sys, math, random
import numpy as np
def f(x, y):
    return (200 + 0.01 * x + 140 * np.exp(-((x - 1400) ** 2 + (y - 2900) ** 2) / 600 ** 2)
            + 90 * np.exp(-((x - 3900) ** 2 + (y - 1100) ** 2) / 900 ** 2)
            + 40 * np.sin(x / 700) * np.cos(y / 900))
if sys.argv[1] == "points":
    random.seed(14)
    print("x,y,z")
    for _ in range(10000):
        x, y = random.uniform(0, 5000), random.uniform(0, 4000)
        print(f"{x:.3f},{y:.3f},{f(x, y):.6f}")
else:
    # Nodes 25 apart from (0, 0) to (5000, 4000), rows from the smallest y.
    X, Y = np.meshgrid(np.linspace(0, 5000, 201), np.linspace(0, 4000, 161))
    if sys.argv[1] == "err":  # of an AAIGrid over those nodes
        with open(sys.argv[2]) as fh:
            nodata = float(dict(next(fh).split() for _ in range(6))["NODATA_value"])
        a = np.loadtxt(sys.argv[2], skiprows=6)[::-1]
        a[np.isclose(a, nodata)] = np.nan
    else:  # a SciPy peer's
        from scipy.interpolate import RBFInterpolator, griddata
        p = np.loadtxt(sys.argv[2], delimiter=",", skiprows=1)
        q = np.column_stack([X.ravel(), Y.ravel()])
        if sys.argv[1] == "rbf":
            a = RBFInterpolator(p[:, :2], p[:, 2], neighbors=64, kernel="thin_plate_spline")(q)
        else:
            a = griddata(p[:, :2], p[:, 2], q, method="cubic")
        a = a.reshape(X.shape)
    blank = np.isnan(a)
    e = (a - f(X, Y))[~blank]
    print(f"{math.sqrt((e ** 2).mean()):10.4g} {blank.sum():6d}")
