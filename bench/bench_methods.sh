#!/usr/bin/env bash
# kagrid's own methods against their peers, in one run:
#  1. natural-neighbor (2 threads) against SciPy's griddata(method='linear'), the
#     triangulation job's peer, on 1 000 000 random points -> 2000 x 2000 nodes
#     (kagrid's triangulation beside them); wall and CPU time and the ratios;
#  2. held-out accuracy of natural-neighbor beside triangulation: 5 folds
#     (every 5th sample) of meuse log zinc and of the bundled sample; the
#     triangulation's values from SciPy's LinearNDInterpolator (the same planes on
#     the same Delaunay triangles), over the samples both can estimate;
#  3. curvature-spline against `gmt surface` on 44 000 block means -> 501 x 401
#     nodes, T = 0, 0.25 and 0.75 (interior and edges): time, the ratio, and the
#     RMS difference of the grids as a share of the data range, with each
#     program's default convergence and -Qr (the lattice exactly as given);
#  4. --block mean against gmt blockmean on the same points: time and equality.
# Set KAGRID=/path/to/kagrid to skip the build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
PY=/usr/bin/python3  # Debian's python3-scipy, not a pyenv one
"$root/scripts/deps.sh" python3-scipy python3-gdal time bc gmt r-cran-sp
if [ -z "${KAGRID:-}" ]; then
  "$root/scripts/build.sh" "$root/build" -- --target kagrid > /dev/null
  KAGRID="$root/build/kagrid"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# run NAME COMMAND...: "wall user sys peak_kib" into $work/NAME.t
run() {
  local name=$1; shift
  /usr/bin/time -f "%e %U %S %M" -o "$work/$name.t" "$@" > /dev/null 2> "$work/$name.err" ||
    { cat "$work/$name.err"; exit 1; }
}
field() { awk -v k="$2" '{ if (k == "cpu") print $2 + $3; else if (k == "wall") print $1; else print $4 / 1024 }' "$work/$1.t"; }
line() {  # line LABEL NAME
  printf "  %-46s %7.2f s wall %7.2f s cpu %8.1f MiB\n" "$1" "$(field "$2" wall)" "$(field "$2" cpu)" "$(field "$2" mem)"
}
ratio() {  # ratio LABEL SLOW FAST
  printf "  %-46s %6.2fx wall %6.2fx cpu\n" "$1" \
    "$(echo "$(field "$2" wall) / $(field "$3" wall)" | bc -l)" "$(echo "$(field "$2" cpu) / $(field "$3" cpu)" | bc -l)"
}

echo "1. natural-neighbor vs SciPy griddata(method='linear'), 1 000 000 points -> 2000 x 2000 nodes"
$PY "$root/bench/make_points.py" "$work/p1m.csv" 1000000 20261122
cat > "$work/griddata.py" <<'PY'
import sys, numpy as np
from scipy.interpolate import griddata
pts = np.loadtxt(sys.argv[1], delimiter=",", skiprows=1)
n = int(sys.argv[2])
g = (np.arange(n) + 0.5) / n
gx, gy = np.meshgrid(g, g)
np.save(sys.argv[3], griddata(pts[:, :2], pts[:, 2], (gx, gy), method="linear"))
PY
n=2000
lo=$(echo "0.5 / $n" | bc -l) hi=$(echo "1 - 0.5 / $n" | bc -l)
grid=(--set xMin=$lo --set xMax=$hi --set yMin=$lo --set yMax=$hi --set columnCount=$n --set rowCount=$n)
run scipy $PY "$work/griddata.py" "$work/p1m.csv" $n "$work/scipy.npy"
run nn "$KAGRID" natural-neighbor "$work/p1m.csv" "$work/nn.tif" "${grid[@]}" -q --threads 2
run tri "$KAGRID" triangulation "$work/p1m.csv" "$work/tri.tif" "${grid[@]}" --set createDelaunayObject=false -q --threads 2
line "SciPy griddata linear" scipy
line "kagrid natural-neighbor (2 threads)" nn
line "kagrid triangulation (2 threads)" tri
ratio "natural-neighbor faster than SciPy by" scipy nn

echo
echo "2. held-out accuracy (5 folds, every 5th sample held out): RMSE over the samples both estimate"
Rscript -e 'data(meuse, package = "sp"); write.csv(data.frame(x = meuse$x, y = meuse$y, z = log(meuse$zinc)), "'"$work"'/meuse.csv", row.names = FALSE)' > /dev/null
cp "$root/data/sample_points.csv" "$work/sample.csv"
cat > "$work/holdout.py" <<'PY'
import subprocess, sys, numpy as np
from scipy.interpolate import LinearNDInterpolator
kagrid, work, name = sys.argv[1], sys.argv[2], sys.argv[3]
d = np.loadtxt(f"{work}/{name}.csv", delimiter=",", skiprows=1)
err = {"natural-neighbor": [], "triangulation": []}
for k in range(5):
    test, train = d[np.arange(len(d)) % 5 == k], d[np.arange(len(d)) % 5 != k]
    np.savetxt(f"{work}/train.csv", train, delimiter=",", header="x,y,z", comments="", fmt="%.17g")
    np.savetxt(f"{work}/test.csv", test[:, :2], delimiter=",", header="x,y", comments="", fmt="%.17g")
    subprocess.run([kagrid, "predict", "natural-neighbor", f"{work}/train.csv", f"{work}/test.csv",
                    f"{work}/nn_out.csv", "--outside", "-q"], check=True)
    nn = np.genfromtxt(f"{work}/nn_out.csv", delimiter=",", skip_header=1)[:, 2]
    tri = LinearNDInterpolator(train[:, :2], train[:, 2])(test[:, 0], test[:, 1])
    both = np.isfinite(nn) & np.isfinite(tri)
    err["natural-neighbor"] += list(test[both, 2] - nn[both])
    err["triangulation"] += list(test[both, 2] - tri[both])
for m, e in err.items():
    e = np.array(e)
    print(f"  {name:8s} {m:18s} RMSE {np.sqrt(np.mean(e * e)):.4g}  MAE {np.mean(np.abs(e)):.4g}  over {len(e)} of {len(d)} samples")
PY
$PY "$work/holdout.py" "$KAGRID" "$work" meuse
$PY "$work/holdout.py" "$KAGRID" "$work" sample

echo
echo "3. curvature-spline vs gmt surface, 44 000 block means -> 501 x 401 nodes (default convergence)"
cat > "$work/make.py" <<'PY'
import numpy as np
rng = np.random.default_rng(5)
x, y = rng.random(50000) * 1000, rng.random(50000) * 800
z = np.sin(x / 150) * np.cos(y / 120) * 50 + 0.03 * x + 0.02 * y + rng.normal(0, 0.5, x.size)
np.savetxt("/dev/stdout", np.column_stack([x, y, z]), fmt="%.17g")
PY
$PY "$work/make.py" > "$work/raw.txt"
gmt blockmean "$work/raw.txt" -R0/1000/0/800 -I2 --FORMAT_FLOAT_OUT=%.17g > "$work/bm.txt"
(echo x,y,z; tr '\t' ',' < "$work/bm.txt") > "$work/bm.csv"
range=$(awk 'NR == 1 {lo = $3; hi = $3} {if ($3 < lo) lo = $3; if ($3 > hi) hi = $3} END {print hi - lo}' "$work/bm.txt")
cat > "$work/rms.py" <<'PY'
import sys, numpy as np
from osgeo import gdal
a = gdal.Open(sys.argv[1]).ReadAsArray().astype(float)
b = gdal.Open(sys.argv[2]).ReadAsArray().astype(float)
print(f"{100 * np.sqrt(np.mean((a - b) ** 2)) / float(sys.argv[3]):.4f}")
PY
for t in 0 0.25 0.75; do
  run "gmt_$t" gmt surface "$work/bm.txt" -R0/1000/0/800 -I2 -T$t -Qr -G"$work/gmt_$t.nc"
  run "ka_$t" "$KAGRID" curvature-spline "$work/bm.csv" "$work/ka_$t.tif" --bounds 0,0,1000,800 --cell 2 \
    --set tension=$t --set boundaryTension=$t -q
  line "gmt surface -T$t" "gmt_$t"
  line "kagrid curvature-spline tension=$t" "ka_$t"
  ratio "curvature-spline faster by" "gmt_$t" "ka_$t"
  echo "  RMS difference $($PY "$work/rms.py" "$work/gmt_$t.nc" "$work/ka_$t.tif" "$range")% of the data range"
done

echo
echo "4. --block mean vs gmt blockmean, 50 000 points, blocks of 2 over 501 x 401 nodes"
run bm_gmt gmt blockmean "$work/raw.txt" -R0/1000/0/800 -I2 --FORMAT_FLOAT_OUT=%.17g
(echo x,y,z; tr ' ' ',' < "$work/raw.txt") > "$work/raw.csv"
run bm_ka "$KAGRID" nearest-neighbor "$work/raw.csv" "$work/bm_nn.tif" --bounds 0,0,1000,800 --cell 2 --block mean 2 \
  --set searchMode=nearest --set sectorCount=1 --set maxFromAll=1 --set maxFromEach=1 --set minInAll=1
line "gmt blockmean" bm_gmt
line "kagrid --block mean 2 (and nearest-neighbor gridding)" bm_ka
grep -o "kept [0-9]* of [0-9]* samples" "$work/bm_ka.err" | sed "s/^/  kagrid /"
echo "  gmt blockmean wrote $(wc -l < "$work/bm.txt") block means"
