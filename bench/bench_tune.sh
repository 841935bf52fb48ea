#!/usr/bin/env bash
# kagrid tune on 10 000 scattered samples of a known surface: for each tunable
# method the time of the whole sweep on two cores, and the error against the
# surface at every node of a gridding with the record's defaults and with
# --tune. The peers on the same samples and nodes: SciPy's RBFInterpolator
# (thin plate spline, 64 neighbours) and griddata (cubic), gdal_grid's
# invdistnn (power 2, 16 nearest) and linear. R gstat's kriging, too slow for
# 10 000 samples, on the first 2 000: its leave-one-out RMSE (krige.cv, the 32
# nearest, nugget + spherical fitted by gstat) against the best of `kagrid tune
# kriging` on them, and one single-threaded `kagrid cross-validate` of gstat's
# setting (the model fitted by kagrid) against krige.cv's time.
#
# KA_BUILD_DIR picks the build directory (default: build/ of the source tree).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${KA_BUILD_DIR:-$root/build}
"$root/scripts/deps.sh" r-cran-gstat r-cran-sp python3-numpy python3-scipy gdal-bin time
"$root/scripts/build.sh" "$build" > /dev/null
kagrid="$build/kagrid"
work=$(mktemp -d)
PY=/usr/bin/python3
trap 'rm -rf "$work"' EXIT

$PY "$root/bench/tune_surface.py" points > "$work/p.csv"
head -n 2001 "$work/p.csv" > "$work/p2k.csv"
grid="--set xMin=0 --set xMax=5000 --set yMin=0 --set yMax=4000 --set columnCount=201 --set rowCount=161"

timed() {  # timed NAME command...: seconds into $work/NAME.t, processor seconds into NAME.cpu
  local name=$1; shift
  /usr/bin/time -f "%e %U %S" -o "$work/$name.t" "$@" > "$work/$name.out" 2> "$work/$name.err" ||
    { cat "$work/$name.err"; exit 1; }
  read -r wall user sys < "$work/$name.t"
  echo "$wall" > "$work/$name.t"
  $PY -c "print(f'{$user + $sys:.2f}')" > "$work/$name.cpu"
}

echo "10 000 samples, 201 x 161 nodes; grid RMSE against the surface (blank nodes)"
printf "%-18s %10s %10s %8s %12s %8s %8s  %s\n" method defaults "" tuned "" "tune s" "cpu s" "chosen"
for m in inverse-distance modified-shepard kriging radial-basis local-polynomial; do
  "$kagrid" "$m" "$work/p.csv" "$work/d.asc" $grid -q
  timed "tune_$m" "$kagrid" tune "$m" "$work/p.csv" $grid --threads 2 -q --write-params "$work/$m.json"
  "$kagrid" "$m" "$work/p.csv" "$work/t.asc" $grid --params "$work/$m.json" -q
  chosen=$(sed -n 's/^best: \(.*\) (rmse.*/\1/p' "$work/tune_$m.out")
  printf "%-18s %s %s %8s %8s  %s\n" "$m" "$($PY "$root/bench/tune_surface.py" err "$work/d.asc")" \
    "$($PY "$root/bench/tune_surface.py" err "$work/t.asc")" "$(cat "$work/tune_$m.t")" "$(cat "$work/tune_$m.cpu")" "$chosen"
done
timed tune1 "$kagrid" tune kriging "$work/p.csv" $grid --threads 1 -q
echo "kriging's sweep on one thread: $(cat "$work/tune1.t") s ($(cat "$work/tune1.cpu") s processor time)"

cat > "$work/p.vrt" <<VRT
<OGRVRTDataSource><OGRVRTLayer name="p"><SrcDataSource>$work/p.csv</SrcDataSource>
<GeometryType>wkbPoint</GeometryType><GeometryField encoding="PointFromColumns" x="x" y="y" z="z"/>
</OGRVRTLayer></OGRVRTDataSource>
VRT
echo
echo "peers on the same samples and nodes"
for a in invdistnn:power=2:max_points=16:radius=5000 linear; do
  gdal_grid -q -zfield z -a "$a:nodata=-9999" -txe -12.5 5012.5 -tye 4012.5 -12.5 -outsize 201 161 -of GTiff -l p \
    "$work/p.vrt" "$work/g.tif"
  gdal_translate -q -of AAIGrid "$work/g.tif" "$work/g.asc"
  printf "%-32s %s\n" "gdal_grid ${a%%:radius*}" "$($PY "$root/bench/tune_surface.py" err "$work/g.asc")"
done
printf "%-32s %s\n" "SciPy RBFInterpolator tps, 64" "$($PY "$root/bench/tune_surface.py" rbf "$work/p.csv")"
printf "%-32s %s\n" "SciPy griddata cubic" "$($PY "$root/bench/tune_surface.py" cubic "$work/p.csv")"

cat > "$work/cv.R" <<'R'
suppressPackageStartupMessages({ library(sp); library(gstat) })
w <- commandArgs(TRUE)[1]
d <- read.csv(file.path(w, "p2k.csv"))
coordinates(d) <- ~x + y
ev <- variogram(z ~ 1, d)
m <- fit.variogram(ev, vgm(0.6 * var(d$z), "Sph", 1500, 0.01 * var(d$z)))
t <- system.time(cv <- krige.cv(z ~ 1, d, model = m, nmax = 32, debug.level = 0))[["elapsed"]]
cat(sprintf("%.2f %.6g\n", t, sqrt(mean(cv$residual^2))))
R
read -r tg rg < <(Rscript "$work/cv.R" "$work")
"$kagrid" tune kriging "$work/p2k.csv" $grid --threads 2 -q > "$work/tune2k.out"
rt=$(sed -n 's/^best: .*(rmse \([^,]*\),.*/\1/p' "$work/tune2k.out")
"$kagrid" variogram "$work/p2k.csv" --fit Nugget+Spherical --json "$work/v.json" > /dev/null
model=$($PY -c "import json,sys; print(json.dumps(json.load(open(sys.argv[1]))['model']))" "$work/v.json")
timed cv "$kagrid" cross-validate kriging "$work/p2k.csv" $grid --threads 1 -q --set nuggetOnDiagonal=false \
  --set searchMode=nearest --set sectorCount=1 --set minInAll=32 --set maxFromAll=32 --set maxFromEach=32 \
  --set "variogram=$model"
tk=$(cat "$work/cv.t")
rk=$(sed -n 's/^rmse *//p' "$work/cv.out")
echo
echo "leave-one-out kriging on 2 000 of the samples: RMSE of gstat krige.cv $rg, of kagrid tune's best $rt"
echo "one leave-one-out kriging run on them, 32 nearest, one thread:"
echo "  kagrid cross-validate ${tk} s (rmse $rk); gstat krige.cv ${tg} s (rmse $rg); ratio $($PY -c "print(f'{$tg/$tk:.1f}')")x"
