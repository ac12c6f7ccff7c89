#!/usr/bin/env bash
# Makes build/venv, a virtual environment of Debian's interpreter (/usr/bin/python3) that sees
# Debian's NumPy, SciPy, matplotlib, pytest and mpi4py (--system-site-packages), and registers
# the package built in build/<preset>/python there through a .pth file: after
#   . build/venv/bin/activate        (or: build/venv/bin/python)
# `import kelmatrix` loads the build tree's package, and rebuilding needs no new install. Works
# offline: nothing is downloaded. Bookworm's own interpreter is externally managed (PEP 668), so
# the package is never installed into it.
#   scripts/python-venv.sh [preset]     (default: release)
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"
if [ ! -x build/venv/bin/python ]; then
    /usr/bin/python3 -m venv --system-site-packages build/venv
fi
site=$(build/venv/bin/python -c 'import sysconfig; print(sysconfig.get_paths()["purelib"])')
echo "$(pwd)/build/$preset/python" > "$site/kelmatrix-build.pth"
build/venv/bin/python -c 'import kelmatrix' # fails here, not later, if the package is not built
