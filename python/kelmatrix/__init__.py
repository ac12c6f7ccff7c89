"""KELMATRIX from Python: the library's dense, band, cyclic, Kronecker and sparse solvers on
NumPy arrays, at the C++ library's speed.

Arrays in, arrays out. Every computing call copies its inputs once into the library's aligned
storage, releases the GIL while it computes, and returns its result as a NumPy array over the
library's own block, without a copy. By default no call changes the caller's arrays, whatever
their order or strides; ``overwrite_<arg>=True`` writes the result into that argument instead,
which must then be a Fortran-contiguous, writeable float64 array (else ValueError). Errors are
exceptions carrying the library's code and words; nothing is printed.

Families:
  LAPACK wrappers    solve, solve_banded, solve_spd, solveh_banded, cholesky, cho_solve,
                     cholesky_banded, cho_solve_banded, cho_inverse, solve_triangular_banded,
                     lstsq, lstsq_min_norm, eigh, matmul
  native band        band_cholesky (returns the rank), band_cholesky_solve
  bordered / cyclic  BorderedMatrix, cyclic_cholesky, cyclic_cholesky_solve, solve_bordered
  Kronecker          solve_kronecker, kron_lower_substitute, kron_upper_substitute,
                     kron_cholesky_solve
  sparse             SparseSolver, check_csr, prepare_csr; ClusterSolver (MPI) when built

Band arrays use SciPy's solveh_banded / cholesky_banded layout, shape (bw + 1, n).
"""

import ctypes as _ctypes
import os as _os

from . import _core
from ._build_config import HAVE_MPI
from ._build_config import MKL_GLOBAL as _MKL_GLOBAL

# _core has loaded MKL; its core and threading layers are now made global (see _build_config),
# before any call makes MKL load its kernel libraries.
for _layer in _MKL_GLOBAL:
    _ctypes.CDLL(_layer, mode=_ctypes.RTLD_GLOBAL | _os.RTLD_NOLOAD)
from ._core import (  # noqa: E402
    BorderedMatrix, band_cholesky, band_cholesky_solve, band_matmul, band_residual_ratio, cho_inverse, cho_solve, cho_solve_banded,
    cholesky, cholesky_banded, cyclic_cholesky, cyclic_cholesky_solve, eigh, establish_numthreads,
    kron_cholesky_solve, kron_lower_substitute, kron_upper_substitute, lstsq, lstsq_min_norm,
    matmul, native_threads, residual_ratio, set_native_threads, solve, solve_banded,
    solve_bordered, solve_kronecker, solve_spd, solve_triangular_banded, solveh_banded)
from ._errors import (  # noqa: E402
    BorderedSizeError, CallOrderError, CsrError, FactorizationError, KelmatrixError,
    SparseSolverError)
from ._sparse import (  # noqa: E402
    CsrCheck, Diagnostics, Settings, SparseSolver, check_csr, prepare_coo, prepare_csr)

if HAVE_MPI:
    from ._cluster import ClusterSolver

__all__ = [name for name in dir() if not name.startswith("_") and name != "HAVE_MPI"]
__version__ = "0.1.0"
