"""bench_python.py: the Python package against SciPy in one run, each tool in a
process of its own (so that its peak memory is its own), on the same points
and node positions; the kagrid command on the same workload for reference.

    .venv/bin/python bench/bench_python.py [KAGRID]
    .venv/bin/python bench/bench_python.py --case NAME   (one measurement; prints JSON)

Workloads (points: z = sin(6x) cos(4y) + 0.3x on the unit square, fixed seeds;
nodes at the pixel centres of the unit square):
  idw     100 000 points -> 1000 x 1000: the 16 nearest within 0.02, power 2;
          kagrid.grid("inverse-distance", threads=2) vs a cKDTree inverse
          distance (query(k=16, workers=2) and the weights in NumPy)
  linear  100 000 points -> 1000 x 1000: kagrid.grid("triangulation", threads=2)
          vs scipy.interpolate.griddata(method="linear")
  rbf     10 000 points -> 200 x 200: kagrid.grid("radial-basis", threads=2),
          inverse multiquadric, 16 to 32 neighbours, vs
          RBFInterpolator(neighbors=32, kernel="inverse_multiquadric", epsilon=1, degree=-1)
Times are of the call alone (points already in memory); memory is the
process's peak resident size and its rise during the call.
"""

import json
import os
import resource
import subprocess
import sys
import tempfile
import time

import numpy as np

WORKLOADS = {"idw": (100_000, 1000, 20261122), "linear": (100_000, 1000, 20261122), "rbf": (10_000, 200, 20261123)}


def points(n, seed):
    rng = np.random.default_rng(seed)
    x, y = rng.random(n), rng.random(n)
    return x, y, np.sin(6 * x) * np.cos(4 * y) + 0.3 * x


def kagrid_settings(workload, nodes):
    half = 0.5 / nodes
    common = dict(bounds=(half, half, 1 - half, 1 - half), size=(nodes, nodes), tolerance=1e-9, threads=2)
    if workload == "idw":
        return "inverse-distance", dict(common, power=2, sectorCount=1, blankSectors=1, minInAll=16, maxFromAll=16,
                                        maxFromEach=16, radius1=0.02, radius2=0.02)
    if workload == "linear":
        return "triangulation", common
    return "radial-basis", dict(common, sectorCount=1, blankSectors=1, minInAll=16, maxFromAll=32, maxFromEach=32,
                                radius1=0.1, radius2=0.1, basisFunction=0, r2Parameter=1)


def measure(case):
    tool, workload = case.split(":")
    n, nodes, seed = WORKLOADS[workload]
    x, y, z = points(n, seed)
    g = (np.arange(nodes) + 0.5) / nodes
    if tool == "kagrid":
        import kagrid
        import rioxarray  # noqa: F401  (imported before timing, as SciPy is)
        method, settings = kagrid_settings(workload, nodes)
        call = lambda: kagrid.grid(method, x, y, z, **settings)["z"].values  # noqa: E731
    else:
        from scipy.interpolate import RBFInterpolator, griddata
        from scipy.spatial import cKDTree
        gx, gy = np.meshgrid(g, g)
        if workload == "idw":
            def call():
                tree = cKDTree(np.column_stack([x, y]))
                d, i = tree.query(np.column_stack([gx.ravel(), gy.ravel()]), k=16, distance_upper_bound=0.02,
                                  workers=2)
                ok = np.isfinite(d)
                w = np.where(ok, 1.0 / np.maximum(d, 1e-12) ** 2, 0.0)
                zz = np.where(ok, z[np.minimum(i, n - 1)], 0.0)
                return (w * zz).sum(1) / np.where(w.sum(1) > 0, w.sum(1), np.nan)
        elif workload == "linear":
            call = lambda: griddata(np.column_stack([x, y]), z, (gx, gy), method="linear")  # noqa: E731
        else:
            import warnings
            warnings.simplefilter("ignore")  # the flat kernel makes ill-conditioned local systems

            def call():
                f = RBFInterpolator(np.column_stack([x, y]), z, neighbors=32, kernel="inverse_multiquadric",
                                    epsilon=1.0, degree=-1)
                return f(np.column_stack([gx.ravel(), gy.ravel()]))
    base = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    t0 = time.perf_counter()
    out = call()
    seconds = time.perf_counter() - t0
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    return {"seconds": seconds, "peak_mib": peak / 1024, "rise_mib": (peak - base) / 1024,
            "finite": int(np.isfinite(out).sum())}


def run(case):
    r = subprocess.run([sys.executable, __file__, "--case", case], capture_output=True, text=True)
    if r.returncode:
        sys.exit(f"{case} failed:\n{r.stderr}")
    return json.loads(r.stdout)


def cli(kagrid_bin, workload):
    """The kagrid command on the same workload: whole process, wall time and peak memory."""
    n, nodes, seed = WORKLOADS[workload]
    x, y, z = points(n, seed)
    method, settings = kagrid_settings(workload, nodes)
    with tempfile.TemporaryDirectory() as work:
        csv = os.path.join(work, "p.csv")
        # Every digit, so the command grids the very same points.
        np.savetxt(csv, np.column_stack([x, y, z]), delimiter=",", header="x,y,z", comments="", fmt="%.17g")
        half = 0.5 / nodes
        args = [kagrid_bin, method, csv, os.path.join(work, "g.tif"), "-q", "--threads", "2",
                "--bounds", f"{half!r},{half!r},{1 - half!r},{1 - half!r}", "--size", f"{nodes},{nodes}"]
        for k, v in settings.items():
            if k not in ("bounds", "size", "threads"):
                args += ["--set", f"{k}={v}"]
        timing = os.path.join(work, "t")
        subprocess.run(["/usr/bin/time", "-f", "%e %M", "-o", timing, *args], check=True)
        seconds, kib = open(timing).read().split()[-2:]
        return {"seconds": float(seconds), "peak_mib": float(kib) / 1024}


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--case":
        print(json.dumps(measure(sys.argv[2])))
        return
    kagrid_bin = sys.argv[1] if len(sys.argv) > 1 else None
    peers = {"idw": "cKDTree inverse distance", "linear": "griddata(linear)", "rbf": "RBFInterpolator(k=32)"}
    print(f"{'workload':10s} {'kagrid.grid (2 threads)':>28s} {'SciPy peer':>34s} {'ratio':>7s} {'kagrid CLI':>22s}")
    for workload, peer_name in peers.items():
        k, p = run(f"kagrid:{workload}"), run(f"scipy:{workload}")
        line = (f"{workload:10s} {k['seconds']:7.2f} s {k['peak_mib']:6.0f} MiB (+{k['rise_mib']:4.0f})"
                f"  {peer_name:>22s} {p['seconds']:6.2f} s {p['peak_mib']:5.0f} MiB (+{p['rise_mib']:4.0f})"
                f" {p['seconds'] / k['seconds']:6.1f}x")
        if kagrid_bin:
            c = cli(kagrid_bin, workload)
            line += f"  {c['seconds']:5.2f} s {c['peak_mib']:4.0f} MiB (ratio {p['seconds'] / c['seconds']:4.1f}x)"
        print(line, flush=True)
    print("ratio: the peer's call time / kagrid.grid's; +: the rise of peak memory during the call")


if __name__ == "__main__":
    main()
