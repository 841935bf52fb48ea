#!/usr/bin/env bash
# Builds and runs the whole test suite, then runs it again under
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"

"$root/scripts/build.sh" "$root/build"
(cd "$root/build" && ctest --output-on-failure -j 2)

"$root/scripts/build.sh" "$root/build-asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKA_SANITIZE=ON
(cd "$root/build-asan" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
   LSAN_OPTIONS=suppressions="$root/scripts/lsan.supp":print_suppressions=0 \
   UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j 2)
