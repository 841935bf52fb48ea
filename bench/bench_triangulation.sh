#!/usr/bin/env bash
# Triangulation with linear interpolation against SciPy's griddata(method='linear')
# (Qhull Delaunay + barycentric interpolation) on the same random points of the
# unit square and the same node positions:
#   100 000 points -> 1000 x 1000 nodes, 1 000 000 points -> 2000 x 2000 nodes.
# Also local polynomial (order 2) on the 100 000 points, when registered.
# Prints wall time, CPU time and peak memory of each, the ratios, and how the
# kagrid time splits into reading the input and the rest (job + writing).
#
# Node positions: cell centres, x = (i + 0.5) / n for i = 0 .. n - 1, in both.
# Set KAGRID=/path/to/kagrid to skip the build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
PY=/usr/bin/python3  # Debian's python3-scipy, not a pyenv one
"$root/scripts/deps.sh" python3-scipy python3-gdal time bc
if [ -z "${KAGRID:-}" ]; then
  "$root/scripts/build.sh" "$root/build" > /dev/null
  KAGRID="$root/build/kagrid"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

$PY "$root/bench/make_points.py" "$work/p100k.csv" 100000 20261122
$PY "$root/bench/make_points.py" "$work/p1m.csv" 1000000 20261122

# Largest difference between kagrid's grid and SciPy's where both have a value,
# and the nodes with a value in one of them only.
cat > "$work/compare.py" <<'PY'
import sys, numpy as np
from osgeo import gdal
a = gdal.Open(sys.argv[1]).ReadAsArray()[::-1]  # north up on disk: flip to row 0 at yMin
s = np.load(sys.argv[2])
ka, sa = a < 1e38, np.isfinite(s)  # kagrid's blank is 1.70141e38, SciPy's NaN
both = ka & sa
print(f"max |kagrid - scipy| {np.abs(a[both] - s[both]).max():.2e} over {both.sum()} nodes, "
      f"{(ka ^ sa).sum()} nodes with a value in one only")
PY

# run NAME COMMAND...: "wall user sys peak_kib" into $work/NAME.t
run() {
  local name=$1; shift
  /usr/bin/time -f "%e %U %S %M" -o "$work/$name.t" "$@" > /dev/null 2> "$work/$name.err" ||
    { cat "$work/$name.err"; exit 1; }
}
field() { awk -v k="$2" '{ if (k == "cpu") print $2 + $3; else if (k == "wall") print $1; else print $4 / 1024 }' "$work/$1.t"; }
line() {  # line LABEL NAME
  printf "  %-44s %7.2f s wall %7.2f s cpu %8.1f MiB\n" "$1" "$(field "$2" wall)" "$(field "$2" cpu)" "$(field "$2" mem)"
}
ratio() {  # ratio LABEL SLOW FAST
  printf "  %-44s %6.1fx wall %6.1fx cpu\n" "$1" \
    "$(echo "$(field "$2" wall) / $(field "$3" wall)" | bc -l)" "$(echo "$(field "$2" cpu) / $(field "$3" cpu)" | bc -l)"
}

echo "kagrid triangulation (2 threads; and 1) vs SciPy griddata(method='linear') (single-threaded, it has"
echo "no thread setting), same points and nodes"
for size in "p100k 1000" "p1m 2000"; do
  set -- $size
  name=$1 n=$2
  lo=$(echo "0.5 / $n" | bc -l) hi=$(echo "1 - 0.5 / $n" | bc -l)
  grid=(--set xMin=$lo --set xMax=$hi --set yMin=$lo --set yMax=$hi --set columnCount=$n --set rowCount=$n)
  run "${name}_kagrid1" "$KAGRID" triangulation "$work/$name.csv" "$work/${name}_tri1.tif" "${grid[@]}" \
    --set createDelaunayObject=false -q --threads 1
  run "${name}_kagrid" "$KAGRID" triangulation "$work/$name.csv" "$work/${name}_tri.tif" "${grid[@]}" \
    --set createDelaunayObject=false -q --threads 2
  cmp -s "$work/${name}_tri1.tif" "$work/${name}_tri.tif" || { echo "1 and 2 threads differ"; exit 1; }
  run "${name}_read" "$KAGRID" triangulation "$work/$name.csv" "$work/${name}_tri.tif" "${grid[@]}" --print-params
  run "${name}_scipy" $PY "$root/bench/peers/griddata.py" "$work/$name.csv" "$n" "$work/${name}_scipy.npy" "$work/${name}_scipy.split"
  read -r sread sgrid < "$work/${name}_scipy.split"
  echo
  echo "$(($(wc -l < "$work/$name.csv") - 1)) points -> $n x $n nodes"
  line "kagrid triangulation, 1 thread" "${name}_kagrid1"
  line "kagrid triangulation, 2 threads (end to end)" "${name}_kagrid"
  ratio "speed-up from 1 to 2 threads" "${name}_kagrid1" "${name}_kagrid"
  printf "  %-44s %7.2f s wall %7.2f s cpu\n" "  of which reading the CSV (--print-params)" \
    "$(field "${name}_read" wall)" "$(field "${name}_read" cpu)"
  printf "  %-44s %7.2f s wall %7.2f s cpu\n" "  of which the job and writing the GeoTIFF" \
    "$(echo "$(field "${name}_kagrid" wall) - $(field "${name}_read" wall)" | bc -l)" \
    "$(echo "$(field "${name}_kagrid" cpu) - $(field "${name}_read" cpu)" | bc -l)"
  line "scipy griddata linear (end to end)" "${name}_scipy"
  printf "  %-44s %7.2f s read, %.2f s griddata\n" "  of which" "$sread" "$sgrid"
  ratio "ratio scipy / kagrid" "${name}_scipy" "${name}_kagrid"
  printf "  %-44s %6.1fx\n" "ratio scipy griddata / kagrid job+write" \
    "$(echo "$sgrid / ($(field "${name}_kagrid" wall) - $(field "${name}_read" wall))" | bc -l)"
  printf "  "; $PY "$work/compare.py" "$work/${name}_tri.tif" "$work/${name}_scipy.npy"
done

# The triangle mesh as a GeoPackage, on request (createDelaunayObject, the default).
grid=(--set xMin=0.0005 --set xMax=0.9995 --set yMin=0.0005 --set yMax=0.9995 --set columnCount=1000 --set rowCount=1000)
run p100k_mesh "$KAGRID" triangulation "$work/p100k.csv" "$work/p100k_tri.tif" "${grid[@]}" \
  --mesh "$work/p100k_mesh.gpkg" -q
echo
line "kagrid triangulation + mesh .gpkg, 100 000 pts" p100k_mesh

if "$KAGRID" methods 2>/dev/null | grep -q '^local-polynomial'; then
  run p100k_lp "$KAGRID" local-polynomial "$work/p100k.csv" "$work/p100k_lp.tif" "${grid[@]}" \
    --set totalOrder=2 --set xOrder=2 --set yOrder=2 --set searchMode=rings --set sectorCount=1 --set blankSectors=1 \
    --set minInAll=12 --set maxFromAll=24 --set maxFromEach=24 --set radius1=0.03 --set radius2=0.03 \
    --set tolerance=1e-9 -q
  line "kagrid local-polynomial order 2, 100 000 pts" p100k_lp
  ratio "ratio local-polynomial / triangulation" p100k_lp p100k_kagrid
  ratio "ratio local-polynomial / scipy linear" p100k_lp p100k_scipy
else
  echo "local-polynomial is not registered: skipped"
fi
