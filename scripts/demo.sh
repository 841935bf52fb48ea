#!/usr/bin/env bash
# Grids the bundled sample points with inverse distance into a GeoTIFF and a
# PNG preview under out/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"
"$root/scripts/build.sh" "$root/build"
mkdir -p "$root/out"
"$root/build/kagrid" inverse-distance "$root/data/sample_points.csv" "$root/out/sample_Inverse.tif" \
  --preview "$root/out/sample_Inverse.png"
gdalinfo -stats "$root/out/sample_Inverse.tif" | grep -E "Size is|Origin|Pixel Size|NoData|STATISTICS_(MIN|MAX|MEAN)"
echo "Preview: $root/out/sample_Inverse.png"
