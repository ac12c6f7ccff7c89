#!/usr/bin/env bash
# Installs what is missing, builds KELMATRIX (Release) and its Python package, and runs every
# example program; the distributed one runs under mpirun on 2 ranks (--allow-run-as-root
# --oversubscribe: CI runs as root on 2 cores). Then makes build/venv (scripts/python-venv.sh)
# and runs the Python examples in it, which save their pictures in build/python-examples/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)"
cmake --build --preset release --target run_examples
bash scripts/python-venv.sh release
mkdir -p build/python-examples
for example in python/examples/*.py; do
    echo "== $example"
    MPLBACKEND=Agg build/venv/bin/python "$example" build/python-examples
done
