#!/usr/bin/env bash
# Configures and builds into DIR (default build/); extra arguments go to cmake's
# configure step, those after "--" to its build step (e.g. -- --target kagrid).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
shift || true
configure=() build=()
while (($#)); do
  if [ "$1" = "--" ]; then shift; build=("$@"); break; fi
  configure+=("$1"); shift
done
cmake -S "$root" -B "$dir" -G Ninja "${configure[@]}" > "$dir.configure.log" 2>&1 || { cat "$dir.configure.log"; exit 1; }
cmake --build "$dir" -j "$(nproc)" "${build[@]}"
