#!/usr/bin/env bash
# Benchmarks of the Python package (python/bench/bench_python.py): binding overhead against the
# same library calls from C++, end-to-end comparisons with SciPy, two Python threads against
# sequential work. Reported, not gated. One library thread unless OMP_NUM_THREADS says otherwise.
#   scripts/bench-python.sh [--quick]       results also in build/bench/python.json
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target kelmatrix_python kelmatrix_python_bench
OMP_NUM_THREADS="${OMP_NUM_THREADS:-1}" PYTHONPATH="build/release/python" MPLBACKEND=Agg \
    /usr/bin/python3 python/bench/bench_python.py "$@"
