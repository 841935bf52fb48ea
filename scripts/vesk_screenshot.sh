#!/usr/bin/env bash
# Remakes docs/vesk.png, the README's picture of the window with a styled,
# contoured surface: the application's own test takes it on the offscreen
# platform.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"
"$root/scripts/build.sh" "$root/build" >/dev/null
QT_QPA_PLATFORM=offscreen "$root/build/tests/vesk_test" \
  --gtest_filter='Vesk.SurfacesAndPointsAreDrawnInTheirStyleWithALegendAndContours' >/dev/null
mkdir -p "$root/docs"
cp "$root/build/screenshots/vesk_styled_contours.png" "$root/docs/vesk.png"
echo "$root/docs/vesk.png"
