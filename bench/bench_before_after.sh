#!/usr/bin/env bash
# bench_before_after.sh OLD_KAGRID NEW_KAGRID [ROUNDS]: two builds of kagrid on the
# workloads of bench_search_methods, bench_kriging, bench_triangulation,
# bench_geostatistics and bench_tune, on the same data, with --threads 1 and 2,
# interleaved (each round runs every workload old then new, the next round new
# then old; 5 rounds by default), beside the peer those scripts time, once a
# round. Checks that both builds write the same bytes (and 1 and 2 threads the
# same grid), then prints the minimum and median wall time of each, new/old,
# and peer/kagrid for both builds. Minimums are the least disturbed figures on a
# shared machine. KA_WORKLOADS="idw krig ..." runs some of them only.
# Where the kernel groups processes by session (sched_autogroup_enabled), a nice
# value counts only within its own session: against builds in other sessions,
# give the run's session a weight of its own, e.g.
#   setsid bash -c 'echo -10 > /proc/self/autogroup; exec bash bench/bench_before_after.sh OLD NEW'
# The ring-walk workloads name their search; the two tune workloads start from
# kagrid's default record, nearest first since after these figures were taken,
# so across that change their outputs differ (and are listed as differing).
#
# Peers as in those scripts: gdal_grid with GDAL_NUM_THREADS=2 and the SciPy
# KD-tree script (whole process); gstat and RBFInterpolator (their call alone);
# griddata (whole process).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
[ $# -ge 2 ] && [ -x "$1" ] && [ -x "$2" ] || { echo "usage: $0 OLD_KAGRID NEW_KAGRID [ROUNDS]" >&2; exit 2; }
old=$(realpath "$1") new=$(realpath "$2") rounds=${3:-5}
"$root/scripts/deps.sh" python3-scipy python3-gdal gdal-bin r-cran-gstat r-cran-sp > /dev/null
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
PY=/usr/bin/python3
export OMP_NUM_THREADS=1 OPENBLAS_NUM_THREADS=1 MKL_NUM_THREADS=1

# The scripts' data: the same generators, sizes and seeds.
$PY "$root/bench/make_points.py" "$work/p100k.csv" 100000 20261122
$PY "$root/bench/make_points.py" "$work/p1m.csv" 1000000 20261122
$PY "$root/bench/make_points.py" "$work/p10k.csv" 10000 20261123
$PY "$root/bench/make_points.py" "$work/p20k.csv" 20000 11
$PY "$root/bench/tune_surface.py" points > "$work/surf.csv"
head -n 2001 "$work/surf.csv" > "$work/surf2k.csv"
Rscript -e 'suppressPackageStartupMessages(library(sp)); data(meuse); meuse$lzinc <- log(meuse$zinc);
  write.csv(meuse[, c("x", "y", "zinc", "lzinc")], commandArgs(TRUE)[1], row.names = FALSE)' "$work/meuse.csv"
cat > "$work/p100k.vrt" <<VRT
<OGRVRTDataSource><OGRVRTLayer name="points"><SrcDataSource>$work/p100k.csv</SrcDataSource>
<SrcLayer>p100k</SrcLayer><GeometryType>wkbPoint</GeometryType>
<GeometryField encoding="PointFromColumns" x="x" y="y"/>
<Field name="z" type="Real"/></OGRVRTLayer></OGRVRTDataSource>
VRT
# The kriging model of bench_tune's leave-one-out run: kagrid's own fit (the new build's).
"$new" variogram "$work/surf2k.csv" --fit Nugget+Spherical --json "$work/v.json" > /dev/null
model2k=$($PY -c "import json,sys; print(json.dumps(json.load(open(sys.argv[1]))['model']))" "$work/v.json")

g1000=(--set xMin=0.0005 --set xMax=0.9995 --set yMin=0.0005 --set yMax=0.9995
       --set columnCount=1000 --set rowCount=1000 --set tolerance=1e-9 -q)
g2000=(--set xMin=0.00025 --set xMax=0.99975 --set yMin=0.00025 --set yMax=0.99975
       --set columnCount=2000 --set rowCount=2000 --set tolerance=1e-9 -q)
ring1=(--set searchMode=rings --set sectorCount=1 --set blankSectors=1)
k200=(--set xMin=0.0025 --set xMax=0.9975 --set yMin=0.0025 --set yMax=0.9975
      --set columnCount=200 --set rowCount=200 --set tolerance=1e-9 "${ring1[@]}" --set minInAll=16
      --set maxFromAll=32 --set maxFromEach=32 --set radius1=0.1 --set radius2=0.1 -of AAIGrid -q)
meuse=(--set xMin=178600 --set xMax=181400 --set yMin=329700 --set yMax=333600
       --set columnCount=57 --set rowCount=79 --set tolerance=1e-9 -of AAIGrid -q)
meusek=(--set searchMode=nearest --set sectorCount=1 --set radius1=1e9 --set radius2=1e9 --set minInAll=1
        --set maxFromAll=155 --set maxFromEach=155 --set krigType=Ordinary --set nuggetOnDiagonal=false --z 4
        --set 'variogram={"components": [{"model": "Nugget", "sill": 0.05}, {"model": "Spherical", "sill": 0.59, "range": 897}]}')
surf="--set xMin=0 --set xMax=5000 --set yMin=0 --set yMax=4000 --set columnCount=201 --set rowCount=161"

# Workloads: wl_NAME KAGRID OUT THREADS (OUT without extension; the command writes OUT.*).
wl_idw() { "$1" inverse-distance "$work/p100k.csv" "$2.tif" "${g1000[@]}" --threads "$3" "${ring1[@]}" \
  --set power=2 --set minInAll=16 --set maxFromAll=16 --set maxFromEach=16 --set radius1=0.02 --set radius2=0.02; }
wl_near() { "$1" nearest-neighbor "$work/p100k.csv" "$2.tif" "${g1000[@]}" --threads "$3" "${ring1[@]}" \
  --set minInAll=1 --set radius1=0.02 --set radius2=0.02; }
wl_mean() { "$1" moving-average "$work/p100k.csv" "$2.tif" "${g1000[@]}" --threads "$3" "${ring1[@]}" \
  --set minInAll=50 --set radius1=0.02 --set radius2=0.02; }
wl_near1m() { "$1" nearest-neighbor "$work/p1m.csv" "$2.tif" "${g2000[@]}" --threads "$3" "${ring1[@]}" \
  --set minInAll=1 --set radius1=0.004 --set radius2=0.004; }
wl_krig() { "$1" kriging "$work/p10k.csv" "$2.asc" "${k200[@]}" --threads "$3" --set krigType=Ordinary \
  --set 'variogram={"components": [{"model": "Linear", "sill": 1, "range": 1}]}'; }
wl_rbf() { "$1" radial-basis "$work/p10k.csv" "$2.asc" "${k200[@]}" --threads "$3" --set basisFunction=0 --set r2Parameter=1; }
wl_tri() { "$1" triangulation "$work/p100k.csv" "$2.tif" "${g1000[@]}" --set createDelaunayObject=false --threads "$3"; }
wl_tri1m() { "$1" triangulation "$work/p1m.csv" "$2.tif" "${g2000[@]}" --set createDelaunayObject=false --threads "$3"; }
wl_lpoly() { "$1" local-polynomial "$work/p100k.csv" "$2.tif" "${g1000[@]}" --threads "$3" "${ring1[@]}" \
  --set totalOrder=2 --set xOrder=2 --set yOrder=2 --set minInAll=12 --set maxFromAll=24 --set maxFromEach=24 \
  --set radius1=0.03 --set radius2=0.03; }
wl_meuse() { "$1" kriging "$work/meuse.csv" "$2.asc" --stddev "$2.sd.asc" "${meuse[@]}" "${meusek[@]}" --threads "$3"; }
wl_meusecv() { "$1" cross-validate kriging "$work/meuse.csv" --residuals "$2.csv" --set tolerance=1e-9 "${meusek[@]}" \
  -q --threads "$3" > /dev/null; }
wl_idwnn() { "$1" inverse-distance "$work/p20k.csv" "$2.asc" --set xMin=0.0025 --set xMax=0.9975 --set yMin=0.0025 \
  --set yMax=0.9975 --set columnCount=200 --set rowCount=200 --set power=2 --set smoothing=0 --set searchMode=nearest \
  --set sectorCount=1 --set radius1=0.1 --set radius2=0.1 --set maxFromAll=12 --set maxFromEach=12 --set minInAll=1 \
  --set tolerance=1e-12 -of AAIGrid -q --threads "$3"; }
wl_tuneidw() { "$1" tune inverse-distance "$work/surf.csv" $surf --threads "$3" -q --write-params "$2.json" > "$2.out"; }
wl_tunekrig() { "$1" tune kriging "$work/surf.csv" $surf --threads "$3" -q --write-params "$2.json" > "$2.out"; }
wl_cv2k() { "$1" cross-validate kriging "$work/surf2k.csv" $surf --threads "$3" -q --set nuggetOnDiagonal=false \
  --set searchMode=nearest --set sectorCount=1 --set minInAll=32 --set maxFromAll=32 --set maxFromEach=32 \
  --set "variogram=$model2k" --residuals "$2.csv" > "$2.out"; }
workloads=(${KA_WORKLOADS:-idw near mean near1m krig rbf tri tri1m lpoly meuse meusecv idwnn tuneidw tunekrig cv2k})
declare -A label=(
  [idw]="inverse distance 100k -> 1000^2" [near]="nearest neighbour 100k -> 1000^2"
  [mean]="moving average 100k -> 1000^2" [near1m]="nearest neighbour 1M -> 2000^2"
  [krig]="ordinary kriging 10k -> 200^2" [rbf]="radial basis 10k -> 200^2"
  [tri]="triangulation 100k -> 1000^2" [tri1m]="triangulation 1M -> 2000^2"
  [lpoly]="local polynomial 2, 100k -> 1000^2" [meuse]="meuse kriging + stddev, global"
  [meusecv]="meuse cross-validate, global" [idwnn]="inverse distance nearest-first 20k"
  [tuneidw]="tune inverse-distance 10k" [tunekrig]="tune kriging 10k" [cv2k]="cross-validate kriging 2k, 32")

# Peers, as bench_search_methods, bench_kriging and bench_triangulation time them:
# peer_NAME OUT prints its seconds.
now() { echo "$EPOCHREALTIME"; }
gdal=(-txe 0 1 -tye 0 1 -outsize 1000 1000 -ot Float64 -of GTiff -q -zfield z -l points)
whole() { local t0; t0=$(now); "$@" > /dev/null 2> "$work/peer.err" || { cat "$work/peer.err"; exit 1; }
  echo "$(now) - $t0" | bc -l; }
peer_idw() { GDAL_NUM_THREADS=2 whole gdal_grid -a invdistnn:power=2:smoothing=0:radius=0.02:max_points=16:min_points=0:nodata=-9999 \
  "${gdal[@]}" "$work/p100k.vrt" "$1.tif"; }
peer_near() { GDAL_NUM_THREADS=2 whole gdal_grid -a nearest:radius1=0.02:radius2=0.02:nodata=-9999 \
  "${gdal[@]}" "$work/p100k.vrt" "$1.tif"; }
peer_mean() { GDAL_NUM_THREADS=2 whole gdal_grid -a average:radius1=0.02:radius2=0.02:min_points=1:nodata=-9999 \
  "${gdal[@]}" "$work/p100k.vrt" "$1.tif"; }
peer_near1m() { whole $PY "$root/bench/peers/kdtree.py" "$work/p1m.csv" "$1.npy" 2000 1 0.004; }
peer_krig() { whole Rscript "$root/bench/peers/gstat_krige.R" "$work/p10k.csv" "$1.txt" "$1.inner" > /dev/null; cat "$1.inner"; }
peer_rbf() { whole $PY "$root/bench/peers/rbf.py" "$work/p10k.csv" "$1.txt" "$1.inner" > /dev/null; cat "$1.inner"; }
peer_tri() { whole $PY "$root/bench/peers/griddata.py" "$work/p100k.csv" 1000 "$1.npy" "$1.split"; }
peer_tri1m() { whole $PY "$root/bench/peers/griddata.py" "$work/p1m.csv" 2000 "$1.npy" "$1.split"; }
declare -A peername=([idw]="gdal_grid invdistnn" [near]="gdal_grid nearest" [mean]="gdal_grid average"
  [near1m]="SciPy KD-tree" [krig]="gstat krige (call)" [rbf]="RBFInterpolator (call)"
  [tri]="SciPy griddata" [tri1m]="SciPy griddata")

mkdir -p "$work/t" "$work/o" "$work/ref"
# timeone WORKLOAD SIDE BIN THREADS: times one run, then checks its files against the
# first run's (the old build on one thread): both builds, both thread counts, every
# round the same bytes (for tune and cross-validate also their printed table).
timeone() {
  local t0 f
  rm -f "$work/o/"*
  t0=$(now)
  "wl_$1" "$3" "$work/o/run" "$4" 2> "$work/err" || { echo "$1 ($2, $4 threads):"; cat "$work/err"; exit 1; }
  echo "$(now) - $t0" | bc -l >> "$work/t/$1.$2.$4"
  for f in "$work/o/"*; do
    f=${f##*/}
    # tune's last line gives its own time: left out of the comparison
    [[ $f == *.out ]] && sed -i 's/ in [0-9.]* s on [0-9]* threads\?$/ in - s/' "$work/o/$f"
    if [ ! -e "$work/ref/$1.$f" ]; then
      mv "$work/o/$f" "$work/ref/$1.$f"
    elif ! cmp -s "$work/o/$f" "$work/ref/$1.$f"; then
      echo "$1: $f of the $2 build on $4 threads differs from the old build's on 1 thread" | tee -a "$work/differ"
    fi
  done
}
echo "load before: $(uptime)"
for ((r = 0; r < rounds; r++)); do
  sides=(old new); ((r % 2)) && sides=(new old)
  for w in "${workloads[@]}"; do
    for th in 1 2; do
      for s in "${sides[@]}"; do
        bin=$old; [ "$s" = new ] && bin=$new
        timeone "$w" "$s" "$bin" "$th" "$r"
      done
    done
    if declare -F "peer_$w" > /dev/null; then
      "peer_$w" "$work/peer" | tail -n 1 | tr -d ' ' >> "$work/t/$w.peer"
    fi
  done
  echo "round $((r + 1)) of $rounds done: $(uptime)"
done

if [ -s "$work/differ" ]; then
  echo "outputs differ:"; sort "$work/differ" | uniq -c
else
  echo "outputs: every run of both builds byte for byte the same, on 1 and 2 threads"
fi

stat() {  # stat FILE: "min median"
  sort -g "$1" | awk '{ a[NR] = $1 } END { m = (NR % 2) ? a[(NR + 1) / 2] : (a[NR / 2] + a[NR / 2 + 1]) / 2;
    printf "%.3f %.3f", a[1], m }'
}
echo
echo "wall seconds, min / median of $rounds; ratio new/old of the minimums; peer/kagrid of the minimums"
printf "%-36s %2s %15s %15s %9s | %-22s %7s %8s %8s\n" workload th "old min/med" "new min/med" "new/old" \
  peer "min" "p/old" "p/new"
for w in "${workloads[@]}"; do
  for th in 1 2; do
    read -r omin omed <<< "$(stat "$work/t/$w.old.$th")"
    read -r nmin nmed <<< "$(stat "$work/t/$w.new.$th")"
    peer=""
    if [ -f "$work/t/$w.peer" ]; then
      read -r pmin pmed <<< "$(stat "$work/t/$w.peer")"
      peer=$(printf "%-22s %7.2f %7.1fx %7.1fx" "${peername[$w]}" "$pmin" \
        "$(echo "$pmin / $omin" | bc -l)" "$(echo "$pmin / $nmin" | bc -l)")
    fi
    printf "%-36s %2d %7.3f/%-7.3f %7.3f/%-7.3f %8.3fx | %s\n" "${label[$w]}" "$th" "$omin" "$omed" "$nmin" "$nmed" \
      "$(echo "$nmin / $omin" | bc -l)" "$peer"
  done
done
echo "load after: $(uptime)"
