#!/usr/bin/env bash
# Builds the Python package (kagrid's _core extension with the project's CMake)
# and installs it offline into .venv, a virtual environment over Debian's
# Python whose system site packages provide NumPy, pandas, xarray, rioxarray,
# GeoPandas and scikit-learn. Then: .venv/bin/python -c "import kagrid".
# BUILD_DIR chooses the build folder (default build/).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$root/build}
"$root/scripts/deps.sh" python3-venv python3-dev python3-numpy python3-pandas python3-xarray python3-rioxarray \
  python3-geopandas python3-sklearn python3-scipy python3-gdal python3-pytest python3-tqdm pybind11-dev

"$root/scripts/build.sh" "$build" -DKA_BUILD_PYTHON=ON -DPython_EXECUTABLE=/usr/bin/python3 \
  -- --target kagrid_python kagrid

venv=$root/.venv
[ -x "$venv/bin/python" ] || /usr/bin/python3 -m venv --system-site-packages "$venv"
# pyproj looks for PROJ's data under the environment's prefix.
[ -e "$venv/share/proj" ] || { mkdir -p "$venv/share" && ln -s /usr/share/proj "$venv/share/proj"; }
site=$("$venv/bin/python" -c 'import sysconfig; print(sysconfig.get_paths()["purelib"])')
# A copy, not a link: the environment keeps working while build/ is rebuilt.
rm -rf "$site/kagrid.tmp"
cp -r "$build/python/kagrid" "$site/kagrid.tmp"
rm -rf "$site/kagrid"
mv "$site/kagrid.tmp" "$site/kagrid"
"$venv/bin/python" -c 'import kagrid; print("kagrid", kagrid.__version__, "installed in", kagrid.__path__[0])'
