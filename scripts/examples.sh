#!/usr/bin/env bash
# Installs what is missing, builds KELMATRIX (Release) and runs every example program; the
# distributed one runs under mpirun on 2 ranks (--allow-run-as-root --oversubscribe: CI runs as
# root on 2 cores).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
cmake --build --preset release --target run_examples
