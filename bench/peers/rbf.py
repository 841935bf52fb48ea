# rbf.py POINTS OUT SECONDS: SciPy's RBFInterpolator (inverse multiquadric, 32 neighbours)
# of POINTS to 200 x 200 nodes of the unit square; the call's time into SECONDS.
import sys, time, warnings, numpy as np
from scipy.interpolate import RBFInterpolator
pts = np.loadtxt(sys.argv[1], delimiter=",", skiprows=1)
g = np.linspace(0.0025, 0.9975, 200)
gx, gy = np.meshgrid(g, g)
q = np.column_stack([gx.ravel(), gy.ravel()])
warnings.simplefilter("ignore")  # the flat kernel makes ill-conditioned local systems
t0 = time.perf_counter()
f = RBFInterpolator(pts[:, :2], pts[:, 2], neighbors=32, kernel="inverse_multiquadric",
                    epsilon=1.0, degree=-1)
out = f(q)
t = time.perf_counter() - t0
open(sys.argv[3], "w").write(f"{t}\n")
np.savetxt(sys.argv[2], out)
