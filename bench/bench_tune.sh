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

cat > "$work/surface.py" <<'PY'
import sys, math, random
import numpy as np
def f(x, y):
    return (200 + 0.01 * x + 140 * np.exp(-((x - 1400) ** 2 + (y - 2900) ** 2) / 600 ** 2)
            + 90 * np.exp(-((x - 3900) ** 2 + (y - 1100) ** 2) / 900 ** 2)
            + 40 * np.sin(x / 700) * np.cos(y / 900))
if sys.argv[1] == "points":
    random.seed(14)
    print("x,y,z")
    for _ in range(10000):
        x, y = random.uniform(0, 5000), random.uniform(0, 4000)
        print(f"{x:.3f},{y:.3f},{f(x, y):.6f}")
else:
    # Nodes 25 apart from (0, 0) to (5000, 4000), rows from the smallest y.
    X, Y = np.meshgrid(np.linspace(0, 5000, 201), np.linspace(0, 4000, 161))
    if sys.argv[1] == "err":  # of an AAIGrid over those nodes
        with open(sys.argv[2]) as fh:
            nodata = float(dict(next(fh).split() for _ in range(6))["NODATA_value"])
        a = np.loadtxt(sys.argv[2], skiprows=6)[::-1]
        a[np.isclose(a, nodata)] = np.nan
    else:  # a SciPy peer's
        from scipy.interpolate import RBFInterpolator, griddata
        p = np.loadtxt(sys.argv[2], delimiter=",", skiprows=1)
        q = np.column_stack([X.ravel(), Y.ravel()])
        if sys.argv[1] == "rbf":
            a = RBFInterpolator(p[:, :2], p[:, 2], neighbors=64, kernel="thin_plate_spline")(q)
        else:
            a = griddata(p[:, :2], p[:, 2], q, method="cubic")
        a = a.reshape(X.shape)
    blank = np.isnan(a)
    e = (a - f(X, Y))[~blank]
    print(f"{math.sqrt((e ** 2).mean()):10.4g} {blank.sum():6d}")
PY
$PY "$work/surface.py" points > "$work/p.csv"
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
  printf "%-18s %s %s %8s %8s  %s\n" "$m" "$($PY "$work/surface.py" err "$work/d.asc")" \
    "$($PY "$work/surface.py" err "$work/t.asc")" "$(cat "$work/tune_$m.t")" "$(cat "$work/tune_$m.cpu")" "$chosen"
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
  printf "%-32s %s\n" "gdal_grid ${a%%:radius*}" "$($PY "$work/surface.py" err "$work/g.asc")"
done
printf "%-32s %s\n" "SciPy RBFInterpolator tps, 64" "$($PY "$work/surface.py" rbf "$work/p.csv")"
printf "%-32s %s\n" "SciPy griddata cubic" "$($PY "$work/surface.py" cubic "$work/p.csv")"

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
