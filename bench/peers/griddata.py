# griddata.py POINTS N OUT SPLIT: SciPy's griddata(method='linear') of POINTS to N x N cell
# centres of the unit square; reading and gridding seconds into SPLIT.
import sys, time, numpy as np
from scipy.interpolate import griddata
t0 = time.perf_counter()
pts = np.loadtxt(sys.argv[1], delimiter=",", skiprows=1)
t1 = time.perf_counter()
n = int(sys.argv[2])
g = (np.arange(n) + 0.5) / n
gx, gy = np.meshgrid(g, g)  # row r at y = g[r], as kagrid's row 0 at yMin
out = griddata(pts[:, :2], pts[:, 2], (gx, gy), method="linear")
t2 = time.perf_counter()
np.save(sys.argv[3], out)
with open(sys.argv[4], "w") as f:
    f.write(f"{t1 - t0:.3f} {t2 - t1:.3f}\n")
