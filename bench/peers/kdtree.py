# kdtree.py POINTS OUT NODES K RADIUS: the K nearest within RADIUS of each of NODES x NODES
# pixel centres of the unit square (SciPy cKDTree, 2 workers); K = 1 takes the nearest
# sample's z, otherwise inverse distance squared. Saves the grid as .npy.
import sys, numpy as np
from scipy.spatial import cKDTree
pts = np.loadtxt(sys.argv[1], delimiter=",", skiprows=1)
nodes, k, radius = int(sys.argv[3]), int(sys.argv[4]), float(sys.argv[5])
tree = cKDTree(pts[:, :2])
g = (np.arange(nodes) + 0.5) / nodes
gx, gy = np.meshgrid(g, g)
q = np.column_stack([gx.ravel(), gy.ravel()])
d, i = tree.query(q, k=k, distance_upper_bound=radius, workers=2)
ok = np.isfinite(d)
if k == 1:
    out = np.where(ok, pts[np.minimum(i, len(pts) - 1), 2], np.nan)
else:
    w = np.where(ok, 1.0 / np.maximum(d, 1e-12) ** 2, 0.0)
    zz = np.where(ok, pts[np.minimum(i, len(pts) - 1), 2], 0.0)
    out = (w * zz).sum(1) / np.where(w.sum(1) > 0, w.sum(1), np.nan)
np.save(sys.argv[2], out.reshape(nodes, nodes))
