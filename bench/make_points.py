"""make_points.py PATH N SEED: N random points of the unit square with the
benchmarks' test surface z = sin(6x) cos(4y) + 0.3x, as an x,y,z CSV."""
import sys

import numpy as np

path, n, seed = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
rng = np.random.default_rng(seed)
x, y = rng.random(n), rng.random(n)
z = np.sin(6 * x) * np.cos(4 * y) + 0.3 * x
np.savetxt(path, np.column_stack([x, y, z]), delimiter=",", header="x,y,z", comments="", fmt="%.9f")
