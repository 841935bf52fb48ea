#!/usr/bin/env bash
# kagrid's default search (nearest first, at most 100 samples a node) against
# the plug-in's dialog fill (--plugin-defaults: the ring walk, every sample as
# the caps), each searching method with everything else at its defaults:
#  1. held-out accuracy: 5 folds (every 5th sample held out, estimated from the
#     rest with `kagrid predict`) of meuse log zinc and of the bundled sample;
#     RMSE and MAE over the samples both estimate;
#  2. the bundled sample gridded by inverse distance both ways, with previews
#     (written to docs/ with --docs, as the README shows them).
# Set KAGRID=/path/to/kagrid to skip the build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
PY=/usr/bin/python3
"$root/scripts/deps.sh" python3-numpy r-cran-sp
if [ -z "${KAGRID:-}" ]; then
  "$root/scripts/build.sh" "$root/build" -- --target kagrid > /dev/null
  KAGRID="$root/build/kagrid"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "1. held-out accuracy (5 folds, every 5th sample held out): RMSE (MAE) over the samples both estimate"
Rscript -e 'data(meuse, package = "sp"); write.csv(data.frame(x = meuse$x, y = meuse$y, z = log(meuse$zinc)), "'"$work"'/meuse.csv", row.names = FALSE)' > /dev/null
cp "$root/data/sample_points.csv" "$work/sample.csv"
cat > "$work/holdout.py" <<'PY'
import subprocess, sys, numpy as np
kagrid, work = sys.argv[1], sys.argv[2]
methods = ["inverse-distance", "kriging", "linear-kriging", "nearest-neighbor", "moving-average",
           "modified-shepard", "radial-basis", "local-polynomial"]
ways = {"default": [], "--plugin-defaults": ["--plugin-defaults"]}
print(f"  {'data':8s} {'method':18s} " + " ".join(f"{w:>26s}" for w in ways))
for name in ["meuse", "sample"]:
    d = np.loadtxt(f"{work}/{name}.csv", delimiter=",", skiprows=1)
    for m in methods:
        est = {w: np.full(len(d), np.nan) for w in ways}
        for k in range(5):
            held = np.arange(len(d)) % 5 == k
            np.savetxt(f"{work}/train.csv", d[~held], delimiter=",", header="x,y,z", comments="", fmt="%.17g")
            np.savetxt(f"{work}/test.csv", d[held, :2], delimiter=",", header="x,y", comments="", fmt="%.17g")
            for w, extra in ways.items():
                subprocess.run([kagrid, "predict", m, f"{work}/train.csv", f"{work}/test.csv", f"{work}/out.csv",
                                "--outside", "-q"] + extra, check=True)
                est[w][held] = np.genfromtxt(f"{work}/out.csv", delimiter=",", skip_header=1)[:, 2]
        both = np.logical_and.reduce([np.isfinite(e) & (np.abs(e) < 1e30) for e in est.values()])
        cells = []
        for w, e in est.items():
            r = d[both, 2] - e[both]
            cells.append(f"{np.sqrt(np.mean(r * r)):.4g} ({np.mean(np.abs(r)):.4g})")
        print(f"  {name:8s} {m:18s} " + " ".join(f"{c:>26s}" for c in cells) + f"   over {both.sum()} of {len(d)}")
PY
$PY "$work/holdout.py" "$KAGRID" "$work"

echo
echo "2. the bundled sample by inverse distance, both ways"
out=$work
[ "${1:-}" = "--docs" ] && out="$root/docs"
"$KAGRID" inverse-distance "$root/data/sample_points.csv" "$work/default.tif" -q \
  --preview "$out/sample_nearest_first.png"
"$KAGRID" inverse-distance "$root/data/sample_points.csv" "$work/plugin.tif" -q --plugin-defaults \
  --preview "$out/sample_plugin_defaults.png"
$PY - "$work/default.tif" "$work/plugin.tif" <<'PY'
import sys
from osgeo import gdal
a, b = (gdal.Open(p).ReadAsArray() for p in sys.argv[1:3])
print(f"  nodes that differ: {(a != b).sum()} of {a.size}; largest difference {abs(a - b).max():.4g}")
PY
echo "  previews: $out/sample_nearest_first.png, $out/sample_plugin_defaults.png"
