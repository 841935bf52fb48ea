#!/usr/bin/env bash
# Builds and runs the whole test suite, then runs it again under
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# The references of the comparisons: GMT (block reduction, splines), R and
# gstat (variogram lags, kriging with drift).
"$root/scripts/deps.sh" gmt r-base-core r-cran-gstat r-cran-sp
"$root/scripts/check_includes.sh" "$root"

"$root/scripts/build.sh" "$root/build"
(cd "$root/build" && ctest --output-on-failure -j 2)

# The Python package, built into build/ and installed into .venv, and its tests.
"$root/scripts/python.sh"
(cd "$root" && .venv/bin/python -m pytest -p no:cacheprovider tests/python)

"$root/scripts/build.sh" "$root/build-asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKA_SANITIZE=ON
(cd "$root/build-asan" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
   LSAN_OPTIONS=suppressions="$root/scripts/lsan.supp":print_suppressions=0 \
   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j 2)

# GCC's sanitizer does not check float-to-integer overflow: replay the fuzz
# corpora (seeds and reproducers) once more under clang's. Only the three
# replay programs are built (about three minutes on two cores without ccache).
"$root/scripts/build.sh" "$root/build-ubsan-clang" -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKA_UBSAN_FLOAT_CAST=ON -DKA_BUILD_PLUGIN=OFF -- --target fuzz_points fuzz_params fuzz_job
(cd "$root/build-ubsan-clang" && UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
   ctest --output-on-failure -R fuzz_replay)
