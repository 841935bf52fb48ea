#!/usr/bin/env bash
# Inverse distance, nearest neighbour and moving average on 100 000 random
# points of the unit square to a 1000 x 1000 grid, side by side with gdal_grid
# and a SciPy KD-tree inverse distance on the same points and node positions;
# nearest neighbour also from 1 000 000 points to 2000 x 2000 against a KD-tree
# nearest. kagrid runs with 1 and with 2 threads; every peer that has threads
# gets 2 (GDAL_NUM_THREADS, cKDTree workers). Prints wall time and peak memory
# of each, the ratios (peer / kagrid with 2 threads) and kagrid's speed-up
# from 1 to 2 threads; the moving average also single-threaded against a
# single-threaded gdal_grid, once more with uncompressed output as gdal_grid
# writes it. Timings on a shared machine are noisy.
#
# Node positions: kagrid's grid spans 0.0005 .. 0.9995 with 1000 nodes (spacing
# 0.001); gdal_grid's -txe 0 1 -outsize 1000 puts its pixel centres there too.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh" python3-scipy time bc
cmake -S "$root" -B "$root/build" -G Ninja > /dev/null
cmake --build "$root/build" --target kagrid > /dev/null
kagrid="$root/build/kagrid"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
PY=/usr/bin/python3

$PY "$root/bench/make_points.py" "$work/points.csv" 100000 20261122
$PY "$root/bench/make_points.py" "$work/points1m.csv" 1000000 20261122

grid=(--set xMin=0.0005 --set xMax=0.9995 --set yMin=0.0005 --set yMax=0.9995
      --set columnCount=1000 --set rowCount=1000 --set tolerance=1e-9 -q)
gdal=(-txe 0 1 -tye 0 1 -outsize 1000 1000 -ot Float64 -of GTiff -q -zfield z -l points)
cat > "$work/points.vrt" <<VRT
<OGRVRTDataSource><OGRVRTLayer name="points"><SrcDataSource>$work/points.csv</SrcDataSource>
<SrcLayer>points</SrcLayer><GeometryType>wkbPoint</GeometryType>
<GeometryField encoding="PointFromColumns" x="x" y="y"/>
<Field name="z" type="Real"/></OGRVRTLayer></OGRVRTDataSource>
VRT

# run NAME COMMAND...: prints "seconds peak_kib cpu_seconds" into $work/NAME.t
run() {
  local name=$1; shift
  /usr/bin/time -f "%e %M %U %S" -o "$work/$name.t" "$@" > /dev/null 2> "$work/$name.err" ||
    { cat "$work/$name.err"; exit 1; }
}
mib() { echo "$1/1024" | bc -l; }
report() {  # report LABEL OURS PEER: kagrid with 2 threads against the peer
  read -r t1 m1 u1 s1 < "$work/$2.t"; read -r t2 m2 u2 s2 < "$work/$3.t"
  printf "%-30s %7.2f s %7.1f MiB | %-19s %7.2f s %7.1f MiB | speed %5.1fx (cpu %5.1fx) memory %4.2fx\n" \
    "$1" "$t1" "$(mib "$m1")" "$3" "$t2" "$(mib "$m2")" "$(echo "$t2/$t1" | bc -l)" \
    "$(echo "($u2 + $s2) / ($u1 + $s1)" | bc -l)" "$(echo "$m1/$m2" | bc -l)"
}
speedup() {  # speedup LABEL ONE TWO: kagrid from 1 to 2 threads, and the processor time of each
  read -r t1 m1 u1 s1 < "$work/$2.t"; read -r t2 m2 u2 s2 < "$work/$3.t"
  printf "%-22s 1 thread %6.2f s %6.1f MiB, 2 threads %6.2f s %6.1f MiB: %4.2fx (cpu %.2f s, %.2f s)\n" \
    "$1" "$t1" "$(mib "$m1")" "$t2" "$(mib "$m2")" "$(echo "$t1/$t2" | bc -l)" \
    "$(echo "$u1 + $s1" | bc -l)" "$(echo "$u2 + $s2" | bc -l)"
}

for th in 1 2; do
  run kagrid_idw_$th "$kagrid" inverse-distance "$work/points.csv" "$work/k_idw$th.tif" "${grid[@]}" --threads $th \
    --set power=2 --set searchMode=rings --set sectorCount=1 --set blankSectors=1 --set minInAll=16 \
    --set maxFromAll=16 --set maxFromEach=16 --set radius1=0.02 --set radius2=0.02
  run kagrid_near_$th "$kagrid" nearest-neighbor "$work/points.csv" "$work/k_near$th.tif" "${grid[@]}" --threads $th \
    --set searchMode=rings --set sectorCount=1 --set blankSectors=1 --set minInAll=1 --set radius1=0.02 --set radius2=0.02
  # The ring search stops once minInAll samples are in; 50 of the ~126 samples
  # a 0.02 circle holds keeps the work comparable with gdal_grid's full average.
  run kagrid_mean_$th "$kagrid" moving-average "$work/points.csv" "$work/k_mean$th.tif" "${grid[@]}" --threads $th \
    --set searchMode=rings --set sectorCount=1 --set blankSectors=1 --set minInAll=50 --set radius1=0.02 --set radius2=0.02
  # 1 000 000 points -> 2000 x 2000, the nearest of the samples within 0.004.
  run kagrid_near1m_$th "$kagrid" nearest-neighbor "$work/points1m.csv" "$work/k_near1m$th.tif" -q --threads $th \
    --set xMin=0.00025 --set xMax=0.99975 --set yMin=0.00025 --set yMax=0.99975 \
    --set columnCount=2000 --set rowCount=2000 --set tolerance=1e-9 \
    --set searchMode=rings --set sectorCount=1 --set blankSectors=1 --set minInAll=1 --set radius1=0.004 --set radius2=0.004
done
for m in idw near mean near1m; do
  cmp -s "$work/k_${m}1.tif" "$work/k_${m}2.tif" || { echo "kagrid $m: 1 and 2 threads differ"; exit 1; }
done

# kagrid writes DEFLATE GeoTIFF by default, gdal_grid uncompressed: the moving
# average once more on one thread with uncompressed output, like for like.
run kagrid_mean_1_raw "$kagrid" moving-average "$work/points.csv" "$work/k_mean1raw.tif" "${grid[@]}" --threads 1 \
  --set searchMode=rings --set sectorCount=1 --set blankSectors=1 --set minInAll=50 --set radius1=0.02 --set radius2=0.02 -co COMPRESS=NONE

# gdal_grid's average once more on one thread, beside kagrid's single-threaded run.
GDAL_NUM_THREADS=1 run gdal_average_1th gdal_grid -a average:radius1=0.02:radius2=0.02:min_points=1:nodata=-9999 \
  "${gdal[@]}" "$work/points.vrt" "$work/g_mean1.tif"
export GDAL_NUM_THREADS=2
run gdal_invdistnn gdal_grid -a invdistnn:power=2:smoothing=0:radius=0.02:max_points=16:min_points=0:nodata=-9999 \
  "${gdal[@]}" "$work/points.vrt" "$work/g_idw.tif"
run gdal_nearest gdal_grid -a nearest:radius1=0.02:radius2=0.02:nodata=-9999 \
  "${gdal[@]}" "$work/points.vrt" "$work/g_near.tif"
run gdal_average gdal_grid -a average:radius1=0.02:radius2=0.02:min_points=1:nodata=-9999 \
  "${gdal[@]}" "$work/points.vrt" "$work/g_mean.tif"

# kdtree.py POINTS OUT NODES K RADIUS: the K nearest within RADIUS of each of
# NODES x NODES pixel centres of the unit square; K = 1 takes the nearest
# sample's z, otherwise inverse distance squared.
run scipy_kdtree_idw $PY "$root/bench/peers/kdtree.py" "$work/points.csv" "$work/s_idw.npy" 1000 16 0.02
run scipy_kdtree_near1m $PY "$root/bench/peers/kdtree.py" "$work/points1m.csv" "$work/s_near1m.npy" 2000 1 0.004

echo "100 000 points -> 1000 x 1000 nodes; 1 000 000 -> 2000 x 2000 for near1m"
echo "kagrid with 2 threads against peers with 2 threads (ratio = peer time / kagrid time; cpu:"
echo "the same for processor time, which a machine shared with other work disturbs less):"
report "kagrid inverse-distance" kagrid_idw_2 gdal_invdistnn
report "kagrid inverse-distance" kagrid_idw_2 scipy_kdtree_idw
report "kagrid nearest-neighbor" kagrid_near_2 gdal_nearest
report "kagrid nearest-neighbor 1M" kagrid_near1m_2 scipy_kdtree_near1m
report "kagrid moving-average" kagrid_mean_2 gdal_average
echo "single-threaded kagrid against gdal_grid with 2 threads, and with 1:"
report "kagrid moving-average, 1 th." kagrid_mean_1 gdal_average
report "kagrid moving-average, 1 th." kagrid_mean_1 gdal_average_1th
report "  the same, uncompressed output" kagrid_mean_1_raw gdal_average_1th
echo "kagrid from 1 to 2 threads (the grids are identical):"
speedup "inverse-distance" kagrid_idw_1 kagrid_idw_2
speedup "nearest-neighbor" kagrid_near_1 kagrid_near_2
speedup "nearest-neighbor 1M" kagrid_near1m_1 kagrid_near1m_2
speedup "moving-average" kagrid_mean_1 kagrid_mean_2
