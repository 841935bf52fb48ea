#!/usr/bin/env bash
# The library as a user meets it: installed with `cmake --install` into a
# temporary prefix, the example built against the installed package twice
# (pkg-config, and a CMake project's find_package), each build's GeoTIFF
# compared byte for byte with kagrid's for the same method and settings.
# usage: install_test.sh BUILD_DIR SOURCE_DIR KAGRID
set -euo pipefail
build=$1 src=$2 kagrid=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" > "$tmp/install.log"
pc=$(find "$tmp/prefix" -name kagrid.pc)
config=$(find "$tmp/prefix" -name kagridConfig.cmake)
[ -n "$pc" ] && [ -n "$config" ] || { echo "kagrid.pc or kagridConfig.cmake not installed"; cat "$tmp/install.log"; exit 1; }
example=$src/examples/library/grid_points.cpp

# pkg-config, as the example's own comment says.
export PKG_CONFIG_PATH=$(dirname "$pc")
flags=${KA_EXAMPLE_CXXFLAGS:-}
# shellcheck disable=SC2086
g++ -std=c++20 -O2 $flags "$example" -o "$tmp/grid_points_pc" $(pkg-config --cflags --libs kagrid)

# A tiny CMake project.
mkdir "$tmp/user"
cat > "$tmp/user/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES CXX)
find_package(kagrid 0.1 REQUIRED)
add_executable(grid_points_cmake "$example")
target_link_libraries(grid_points_cmake PRIVATE kagrid::kagrid)
CMAKE
cmake -S "$tmp/user" -B "$tmp/user/build" -DCMAKE_PREFIX_PATH="$tmp/prefix" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS="$flags" \
  > "$tmp/user.log" 2>&1 || { cat "$tmp/user.log"; exit 1; }
cmake --build "$tmp/user/build" > "$tmp/user-build.log" 2>&1 || { cat "$tmp/user-build.log"; exit 1; }

input=$src/data/sample_points.csv
runs=(
  "kriging radius1=400 radius2=400 columnCount=60 rowCount=50"
  "inverse-distance power=3"
  "nearest-neighbor columnCount=80 rowCount=70"
  "triangulation"
  "radial-basis radius1=300 radius2=300 columnCount=40 rowCount=40"
)
libdir=$(dirname "$(find "$tmp/prefix" -name 'libkagrid.so' | head -1)")
for run in "${runs[@]}"; do
  read -r method settings <<<"$run"
  sets=()
  for s in $settings; do sets+=(--set "$s"); done
  "$kagrid" "$method" "$input" "$tmp/kagrid.tif" "${sets[@]}" -q
  # shellcheck disable=SC2086
  LD_LIBRARY_PATH=$libdir "$tmp/grid_points_pc" "$method" "$input" "$tmp/pc.tif" $settings 2> "$tmp/pc.log"
  # shellcheck disable=SC2086
  "$tmp/user/build/grid_points_cmake" "$method" "$input" "$tmp/cmake.tif" $settings 2> "$tmp/cmake.log"
  cmp "$tmp/kagrid.tif" "$tmp/pc.tif"
  cmp "$tmp/kagrid.tif" "$tmp/cmake.tif"
  echo "$method: identical ($(stat -c %s "$tmp/kagrid.tif") bytes)"
done
