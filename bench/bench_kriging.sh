#!/usr/bin/env bash
# Local ordinary kriging and local radial basis interpolation of 10 000 random
# points of the unit square to a 200 x 200 grid, side by side with R gstat
# (krige, nmax = 32) and SciPy's RBFInterpolator (neighbors = 32) on the same
# points and node positions.
#
# kagrid kriging: one Linear component (gamma = h), one sector, 16 to 32
# neighbours; gstat: the same unbounded linear model, the 32 nearest points.
# kagrid radial-basis: inverse multiquadric 1 / sqrt(1 + d^2), no polynomial
# term, 16 to 32 neighbours; SciPy: kernel inverse_multiquadric, epsilon 1,
# degree -1, the 32 nearest points.
#
# kagrid is timed as a whole process (reading, gridding, writing); the peers
# only around their gridding call (their start-up, reading and writing are
# left out), so the ratios are on the peers' side; for kriging the ratio is
# also given against kagrid's run less a one-node run of the same command.
# Node positions: 200 nodes from 0.0025 to 0.9975 (spacing 0.005) on both axes.
#
# KA_BUILD_DIR picks the build directory (default: build/ of the source tree).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KA_BUILD_DIR:-$root/build}
"$root/scripts/deps.sh" r-cran-gstat python3-scipy time bc
"$root/scripts/build.sh" "$build" > /dev/null
kagrid="$build/kagrid"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
PY=/usr/bin/python3
export OMP_NUM_THREADS=1 OPENBLAS_NUM_THREADS=1 MKL_NUM_THREADS=1

$PY "$root/bench/make_points.py" "$work/points.csv" 10000 20261123

common=(--set xMin=0.0025 --set xMax=0.9975 --set yMin=0.0025 --set yMax=0.9975
        --set columnCount=200 --set rowCount=200 --set tolerance=1e-9
        --set searchMode=rings --set sectorCount=1 --set blankSectors=1 --set minInAll=16 --set maxFromAll=32
        --set maxFromEach=32 --set radius1=0.1 --set radius2=0.1 -of AAIGrid -q)

# run NAME COMMAND...: wall seconds of the whole command into $work/NAME.t
run() {
  local name=$1; shift
  /usr/bin/time -f "%e %M" -o "$work/$name.t" "$@" > "$work/$name.out" 2> "$work/$name.err" ||
    { cat "$work/$name.err"; exit 1; }
}

for th in 1 2; do
  run kagrid_krig$th "$kagrid" kriging "$work/points.csv" "$work/k_krig$th.asc" "${common[@]}" --threads $th \
    --set krigType=Ordinary \
    --set 'variogram={"components": [{"model": "Linear", "sill": 1, "range": 1}]}'
  run kagrid_rbf$th "$kagrid" radial-basis "$work/points.csv" "$work/k_rbf$th.asc" "${common[@]}" --threads $th \
    --set basisFunction=0 --set r2Parameter=1
done
# What a run costs besides gridding (start-up, reading the points, writing):
# the same kriging run to a single node.
run kagrid_fixed "$kagrid" kriging "$work/points.csv" "$work/k_fixed.asc" "${common[@]}" --threads 1 \
  --set krigType=Ordinary --set columnCount=1 --set rowCount=1 \
  --set 'variogram={"components": [{"model": "Linear", "sill": 1, "range": 1}]}'
for m in krig rbf; do
  cmp -s "$work/k_${m}1.asc" "$work/k_${m}2.asc" || { echo "kagrid $m: 1 and 2 threads differ"; exit 1; }
  cp "$work/k_${m}2.asc" "$work/k_$m.asc"
  cp "$work/kagrid_${m}2.t" "$work/kagrid_$m.t"
done

run gstat Rscript "$root/bench/peers/gstat_krige.R" "$work/points.csv" "$work/g_krig.txt" "$work/gstat.inner"

run scipy_rbf $PY "$root/bench/peers/rbf.py" "$work/points.csv" "$work/s_rbf.txt" "$work/scipy.inner"

# Agreement: median and 99th percentile of |ours - peer| over the nodes both estimate.
cat > "$work/compare.py" <<'PY'
import sys, numpy as np
def asc(path):
    with open(path) as f:
        head = [next(f) for _ in range(6)]
    nodata = float(head[5].split()[1])
    a = np.loadtxt(path, skiprows=6)[::-1].ravel()  # written from the top row
    a[np.isclose(a, nodata)] = np.nan
    return a
ours, peer = asc(sys.argv[1]), np.loadtxt(sys.argv[2])
d = np.abs(ours - peer)
d = d[np.isfinite(d)]
print(f"median |diff| {np.median(d):.2e}, 99th percentile {np.percentile(d, 99):.2e}, "
      f"z range {np.nanmin(peer):.2f} .. {np.nanmax(peer):.2f}")
PY

t() { cut -d' ' -f1 "$work/$1.t"; }
mem() { echo "$(cut -d' ' -f2 "$work/$1.t") / 1024" | bc -l; }
inner() { tr -d ' \n' < "$work/$1.inner"; }
echo "10 000 points -> 200 x 200 nodes; kagrid with 2 threads, the peers single-threaded (they have no"
echo "thread setting); ratio = peer time / kagrid time"
printf "%-40s %8.2f s %7.1f MiB; 1 thread %.2f s %.1f MiB: %.2fx from 1 to 2\n" "kagrid kriging (whole run)" \
  "$(t kagrid_krig2)" "$(mem kagrid_krig2)" "$(t kagrid_krig1)" "$(mem kagrid_krig1)" \
  "$(echo "$(t kagrid_krig1) / $(t kagrid_krig2)" | bc -l)"
printf "%-40s %8.2f s   (whole run %.2f s, %.1f MiB)\n" "R gstat krige nmax=32 (call only)" "$(inner gstat)" \
  "$(t gstat)" "$(mem gstat)"
printf "%-40s %8.1fx\n" "ratio gstat / kagrid" "$(echo "$(inner gstat) / $(t kagrid_krig)" | bc -l)"
printf "%-40s %8.1fx (kagrid less its %.2f s of start-up and I/O, a one-node run)\n" "ratio, gridding alone" \
  "$(echo "$(inner gstat) / ($(t kagrid_krig) - $(t kagrid_fixed))" | bc -l)" "$(t kagrid_fixed)"
printf "%-40s " "kriging agreement:"; $PY "$work/compare.py" "$work/k_krig.asc" "$work/g_krig.txt"
printf "%-40s %8.2f s %7.1f MiB; 1 thread %.2f s %.1f MiB: %.2fx from 1 to 2\n" "kagrid radial-basis (whole run)" \
  "$(t kagrid_rbf2)" "$(mem kagrid_rbf2)" "$(t kagrid_rbf1)" "$(mem kagrid_rbf1)" \
  "$(echo "$(t kagrid_rbf1) / $(t kagrid_rbf2)" | bc -l)"
printf "%-40s %8.2f s   (whole run %.2f s)\n" "SciPy RBFInterpolator k=32 (call only)" "$(inner scipy)" "$(t scipy_rbf)"
printf "%-40s %8.1fx\n" "ratio SciPy / kagrid" "$(echo "$(inner scipy) / $(t kagrid_rbf)" | bc -l)"
printf "%-40s " "radial basis agreement:"; $PY "$work/compare.py" "$work/k_rbf.asc" "$work/s_rbf.txt"
