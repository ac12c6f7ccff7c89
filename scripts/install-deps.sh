#!/usr/bin/env bash
# Installs what KELMATRIX needs on Debian bookworm, non-interactively and idempotently:
# Intel MKL (from the non-free component, enabled here when absent), the compiler and build
# tools, GoogleTest, Google Benchmark, Doxygen and clang-format; for the distributed solver Open
# MPI with MKL's BLACS layer for it; LLVM's OpenMP runtime (libomp.so.5), which the load-time
# environment test loads beside MKL's; and for the Python package Debian's Python 3 with venv,
# headers, pybind11, NumPy, SciPy, matplotlib, pytest and mpi4py. Run as root, or with sudo.
set -euo pipefail

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

packages=(libmkl-dev cmake g++ make pkg-config googletest libgtest-dev libbenchmark-dev doxygen
          openmpi-bin libopenmpi-dev libmkl-blacs-openmpi-lp64
          clang-format libomp5-14
          python3-venv python3-dev pybind11-dev python3-pybind11 python3-numpy python3-scipy
          python3-matplotlib python3-pytest python3-mpi4py)
for extra in "$@"; do packages+=("$extra"); done

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

# MKL lives in Debian's non-free component; add it to whichever source format is in use.
if ! grep -rqsE '^[^#]*\bnon-free\b' /etc/apt/sources.list /etc/apt/sources.list.d/ 2>/dev/null; then
    if [ -f /etc/apt/sources.list.d/debian.sources ]; then
        $SUDO sed -i -E '/^Components:/ { / non-free( |$)/! s/$/ non-free/ }' \
            /etc/apt/sources.list.d/debian.sources
    else
        $SUDO sed -i -E '/^deb .*debian/ { / non-free( |$)/! s/$/ non-free/ }' /etc/apt/sources.list
    fi
fi

# Answer MKL's question about becoming the system BLAS/LAPACK: leave the system as it is.
echo 'libmkl-rt libmkl-rt/use-as-default-blas-lapack boolean false' | $SUDO debconf-set-selections
echo 'libmkl-rt libmkl-rt/exploit-mkl-glibc-workaround boolean false' | $SUDO debconf-set-selections 2>/dev/null || true

$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
