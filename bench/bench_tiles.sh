#!/usr/bin/env bash
# Tiled gridding against the single run on the same two cores: 10 million
# random points of the unit square to 10000 x 10000 nodes by inverse distance
# (one sector, 8 to 16 samples within 0.0014). The single run uses two
# threads; the tiled run is `kagrid plan` (one process), every tile on a local
# Dask cluster of two single-threaded worker processes, each tile's process
# limited to 1 GB, and `kagrid merge` to a VRT. Prints wall times and their
# ratio, peak memory of the single run, of the plan and of the largest tile,
# the points read per tile against the survey, and whether the mosaic equals
# the single run. Sizes: N=, NODES=, TILE= in the environment. Timings on a
# shared machine are noisy.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh" time python3-numpy python3-gdal
cmake -S "$root" -B "$root/build" -G Ninja > /dev/null
cmake --build "$root/build" --target kagrid > /dev/null
kagrid="$root/build/kagrid"
runner="$root/build/kagrid-dask"
n=${N:-10000000} nodes=${NODES:-10000} tile=${TILE:-2500}
work=$(mktemp -d "${BENCH_TMP:-/tmp}/bench_tiles.XXXXXX")
trap 'rm -rf "$work"' EXIT
PY=/usr/bin/python3

$PY "$root/bench/make_points.py" "$work/points.csv" "$n" 20261124
# Nodes 1e-4 apart from 5e-5 + 3.7e-10: off the points' 1e-9 steps, since a
# sample due west of a node and a hair below it stops a one-sector walk (kept).
start=$($PY -c "print(repr(0.5 / $nodes + 3.7e-10))")
radius=$($PY -c "print(repr(2 * (16 / (3.14159 * $n)) ** 0.5))")  # twice the radius that holds 16 samples
args=(--bounds "$start,$start,1,1" --cell "$($PY -c "print(repr(1 / $nodes))")"
      --set sectorCount=1 --set blankSectors=1 --set minInAll=8 --set maxFromAll=16 --set maxFromEach=16
      --set radius1="$radius" --set radius2="$radius" --set tolerance=1e-9 -q)

# timed NAME COMMAND...: wall seconds and peak KiB into $work/NAME.t
timed() {
  local name=$1; shift
  /usr/bin/time -f "%e %M" -o "$work/$name.t" "$@"
}
sync
timed single "$kagrid" inverse-distance "$work/points.csv" "$work/single.tif" --threads 2 "${args[@]}"
timed plan "$kagrid" plan inverse-distance "$work/points.csv" "$work/plan" --tile-size "$tile" "${args[@]}"
timed tiles "$runner" "$work/plan" --local 2 --tile-memory 1GB --kagrid "$kagrid" > "$work/dask.out" 2>&1 \
  || { cat "$work/dask.out"; exit 1; }
timed merge "$kagrid" merge "$work/plan" "$work/mosaic.vrt" -q

read -r ts ms < "$work/single.t"; read -r tp mp < "$work/plan.t"
read -r tt _ < "$work/tiles.t"; read -r tm _ < "$work/merge.t"
tile_peak=$(grep -o 'peak memory of a tile [0-9]* MiB' "$work/dask.out" | grep -o '[0-9]*' || echo '?')
$PY - "$work" "$ts" "$tp" "$tt" "$tm" "$ms" "$mp" "$tile_peak" <<'PY'
import json, sys
import numpy as np
from osgeo import gdal
work, ts, tp, tt, tm, ms, mp, tile_peak = sys.argv[1:]
ts, tp, tt, tm = map(float, (ts, tp, tt, tm))
plan = json.load(open(f"{work}/plan/plan.json"))
pts = [t["points"] for t in plan["tiles"]]
total = ts
tiled = tp + tt + tm
a = gdal.Open(f"{work}/single.tif").ReadAsArray()
b = gdal.Open(f"{work}/mosaic.vrt").ReadAsArray()
same = a.shape == b.shape and np.array_equal(a.view(np.uint64), b.view(np.uint64))
print(f"survey {plan['samples']} points, grid {plan['grid']['columns']} x {plan['grid']['rows']}, "
      f"{len(pts)} tiles of {plan['tileSize'][0]} x {plan['tileSize'][1]}")
print(f"single run, 2 threads:     {ts:8.1f} s  peak {int(ms) / 1024:7.0f} MiB")
print(f"plan (one process):        {tp:8.1f} s  peak {int(mp) / 1024:7.0f} MiB")
print(f"tiles, 2 Dask workers:     {tt:8.1f} s  peak of a tile {tile_peak} MiB (limit 1 GB)")
print(f"merge to VRT:              {tm:8.1f} s")
print(f"tiled / single wall time:  {tiled / ts:8.2f}   (tiles alone {tt / ts:.2f})")
print(f"points read per tile:      {min(pts)} to {max(pts)}, mean {sum(pts) / len(pts):.0f} "
      f"({sum(pts) / len(pts) / plan['samples'] * 100:.1f}% of the survey; all tiles {sum(pts) / plan['samples']:.3f}x)")
print(f"mosaic equals single run:  {'yes' if same else 'NO'}")
PY
