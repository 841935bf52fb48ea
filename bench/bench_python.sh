#!/usr/bin/env bash
# The Python package against SciPy's RBFInterpolator(neighbors=32), griddata
# and a cKDTree inverse distance on the same points and nodes, in one run:
# call times, their ratios and peak memory; the kagrid command on the same
# workloads for reference (bench/bench_python.py says what each runs).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh" python3-scipy time
"$root/scripts/python.sh" > /dev/null
export OMP_NUM_THREADS=1 OPENBLAS_NUM_THREADS=1 MKL_NUM_THREADS=1
"$root/.venv/bin/python" "$root/bench/bench_python.py" "${BUILD_DIR:-$root/build}/kagrid"
