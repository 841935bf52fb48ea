#!/usr/bin/env bash
# Builds and runs the whole test suite, repeats it with both cores busy (a
# short soak: no test may depend on the machine's speed), runs it under
# AddressSanitizer and UndefinedBehaviorSanitizer, and fuzzes each target for
# a short fixed time on fresh input.
#   KA_SOAK_RUNS=N   suite runs under load (default 3; 0 skips)
#   KA_FUZZ_SECONDS=S   seconds per fuzz target (default 30; 0 skips)
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

# The soak: a load generator on each core, bounded in time and stopped here.
soak_runs=${KA_SOAK_RUNS:-3}
if [ "$soak_runs" -gt 0 ]; then
  load=()
  for _ in 1 2; do timeout 3600 sh -c 'while :; do :; done' & load+=($!); done
  trap 'kill "${load[@]}" 2>/dev/null || true' EXIT
  for run in $(seq 1 "$soak_runs"); do
    echo "soak: suite run $run of $soak_runs with both cores busy"
    (cd "$root/build" && ctest --output-on-failure -j 2)
  done
  kill "${load[@]}" 2>/dev/null || true
  trap - EXIT
fi

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

# Each fuzz target for a fixed time on fresh input (the kept corpus as its
# start, new inputs in a scratch folder). A crash stops the script; its input
# is kept in build-fuzz/findings: add it to tests/fuzz/corpus/TARGET as repro-NAME.
fuzz_seconds=${KA_FUZZ_SECONDS:-30}
if [ "$fuzz_seconds" -gt 0 ]; then
  "$root/scripts/build.sh" "$root/build-fuzz" -DCMAKE_CXX_COMPILER=clang++ -DKA_FUZZ=ON -DKA_BUILD_PLUGIN=OFF \
    -- --target fuzz_points fuzz_params fuzz_job
  mkdir -p "$root/build-fuzz/findings"
  for target in points params job; do
    fresh=$(mktemp -d)
    echo "fuzz: fuzz_$target for ${fuzz_seconds} s"
    (cd "$root/build-fuzz/findings" && "$root/build-fuzz/tests/fuzz/fuzz_$target" -max_total_time="$fuzz_seconds" \
       -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 "$fresh" "$root/tests/fuzz/corpus/$target" 2>&1 | tail -5) \
      || { rm -rf "$fresh"; echo "fuzz_$target found a crash: see build-fuzz/findings"; exit 1; }
    rm -rf "$fresh"
  done
fi
