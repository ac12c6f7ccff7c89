#!/usr/bin/env bash
# Installs what is missing, builds KELMATRIX and its tests, and runs the whole suite.
#   scripts/test.sh           Release build (build/release)
#   scripts/test.sh asan      AddressSanitizer + UndefinedBehaviorSanitizer build (build/asan)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"
bash scripts/install-deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"
# MKL threads stay at 2 (the machine's cores) so PARDISO and the solvers run threaded in tests.
OMP_NUM_THREADS="${OMP_NUM_THREADS:-2}" ctest --preset "$preset" -j 2
