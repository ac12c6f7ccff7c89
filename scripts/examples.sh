#!/usr/bin/env bash
# Installs what is missing, builds KELMATRIX (Release) and runs every example program.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
cmake --build --preset release --target run_examples
