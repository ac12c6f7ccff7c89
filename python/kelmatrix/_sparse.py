"""SparseSolver: the library's PARDISO solver from scipy.sparse or raw compressed rows."""

from dataclasses import dataclass

import numpy as np
import scipy.sparse as sp

from . import _core
from ._errors import CsrError

MTYPES = {"structurally_symmetric": 1, "spd": 2, "symmetric_indefinite": -2, "unsymmetric": 11}
ORDERINGS = {"minimum_degree": 0, "nested_dissection": 2, "parallel_nested_dissection": 3}
STORED = {"full": 0, "upper": 1, "lower": 2}
_INT32 = np.iinfo(np.int32)


def mtype_code(mtype):
    if isinstance(mtype, str):
        if mtype not in MTYPES:
            raise ValueError(f"mtype: expected one of {sorted(MTYPES)} or 1, 2, -2, 11, got {mtype!r}")
        return MTYPES[mtype]
    if mtype not in MTYPES.values():
        raise ValueError(f"mtype: expected one of {sorted(MTYPES)} or 1, 2, -2, 11, got {mtype!r}")
    return int(mtype)


def index_array(x, name):
    """x as a contiguous int32 array: other integer types are converted when every value fits
    in 32 bits (OverflowError otherwise); the array itself is returned when it already fits."""
    x = np.asarray(x)
    if x.dtype.kind not in "iu":
        raise ValueError(f"{name}: expected integer indices, got dtype {x.dtype}")
    if x.ndim != 1:
        raise ValueError(f"{name}: expected a 1-D array, got {x.ndim}-D")
    if x.dtype != np.int32:
        if x.size and (x.max() > _INT32.max or x.min() < _INT32.min):
            bad = x.max() if x.max() > _INT32.max else x.min()
            raise OverflowError(f"{name}: index {bad} does not fit in 32 bits; the solver "
                                "(MKL's LP64 interface) takes 32-bit indices")
        return x.astype(np.int32)
    return np.ascontiguousarray(x)


@dataclass(frozen=True)
class CsrCheck:
    """The first broken rule of compressed rows (code 0, ``ok``: none). ``row`` and
    ``position`` are 1-based (0: the whole matrix); ``rule`` is the library's text."""
    code: int
    row: int
    position: int
    rule: str

    @property
    def ok(self):
        return self.code == 0

    def raise_if_bad(self):
        if self.code:
            raise CsrError(self.code, self.row, self.position, self.rule)


@dataclass(frozen=True)
class Settings:
    """Opt-in PARDISO controls (the defaults change nothing): scaling_and_matching for
    matrices with zero or tiny diagonal entries (KKT, saddle points; types 11 and -2),
    pivot_perturbation p (pivots below 10^-p times the norm are perturbed; 1..20), the
    fill-reducing ordering, and factor_statistics (count the factor's nonzeros)."""
    scaling_and_matching: bool = False
    pivot_perturbation: int = 13
    ordering: str = "nested_dissection"
    factor_statistics: bool = False


@dataclass(frozen=True)
class Diagnostics:
    """What PARDISO reported after the last call that reached it (see LSMsolver_diagnostics):
    a true result with perturbed pivots may be inaccurate, so check the residual."""
    error: int
    message: str
    last_phase: int
    perturbed_pivots: int
    refinement_steps: int
    positive_eigenvalues: int
    negative_eigenvalues: int
    peak_analysis_memory_kb: int
    peak_factor_memory_kb: int
    factor_nonzeros: int
    refusal: int
    refusal_message: str
    non_finite_solutions: int


def check_csr(indptr, indices, data, mtype="spd"):
    """Checks 1-based compressed rows (n = len(indptr) - 1) against what the solver needs for
    mtype; returns a CsrCheck naming the first broken rule (never raises for a broken rule)."""
    ia, ja = index_array(indptr, "indptr"), index_array(indices, "indices")
    return CsrCheck(*_core._check_csr(len(ia) - 1, ia, ja, data, mtype_code(mtype)))


def prepare_csr(indptr, indices, data, mtype="spd", *, base=0, stored="full"):
    """Compressed rows as the solver takes them, built by the library: 1-based, columns sorted,
    repeated entries summed, for mtype 'spd' / 'symmetric_indefinite' the upper triangle with
    every diagonal stored (0.0 where absent), for the others the whole matrix. Returns
    (indptr, indices, data, check); raises CsrError for a structural problem of the input."""
    if stored not in STORED:
        raise ValueError(f"stored: expected 'full', 'upper' or 'lower', got {stored!r}")
    ia, ja = index_array(indptr, "indptr"), index_array(indices, "indices")
    chk, pia, pja, pa = _core._prepare_csr(len(ia) - 1, ia, ja, data, base, STORED[stored],
                                           mtype_code(mtype))
    return pia, pja, pa, CsrCheck(*chk)


def prepare_coo(row, col, data, n, mtype="spd", *, base=0, stored="full"):
    """prepare_csr from triplets (row[k], col[k], data[k]) in any order, repeats summed:
    the library's LSMsolver_prepare_csr for triplets. n is the order."""
    if stored not in STORED:
        raise ValueError(f"stored: expected 'full', 'upper' or 'lower', got {stored!r}")
    chk, pia, pja, pa = _core._prepare_coo(int(n), index_array(row, "row"),
                                           index_array(col, "col"), data, base, STORED[stored],
                                           mtype_code(mtype))
    return pia, pja, pa, CsrCheck(*chk)


def _from_sparse(a, mtype, stored):
    if not sp.issparse(a):
        raise ValueError("a: expected a scipy.sparse matrix or array (csr, csc or coo)")
    if a.ndim != 2 or a.shape[0] != a.shape[1] or a.shape[0] < 1:
        raise ValueError(f"a: expected a non-empty square matrix, got shape {a.shape}")
    if np.iscomplexobj(a.data) or a.dtype.kind not in "biuf":
        raise ValueError(f"a: expected real values, got dtype {a.dtype}")
    if a.format == "coo":  # triplets go to the library as they are
        return prepare_coo(a.row, a.col, a.data, a.shape[0], mtype, stored=stored)
    csr = a.tocsr()
    return prepare_csr(csr.indptr, csr.indices, csr.data, mtype, base=0, stored=stored)


class SparseSolver(_core._SparseSolver):
    """Sparse direct solver over PARDISO: factor once, solve many times, refactor new values
    on the same pattern, close.

    ``SparseSolver(a, mtype="spd")`` takes a scipy.sparse matrix or array (csr, csc or coo):
    it is converted once by the library into 1-based compressed rows (for 'spd' and
    'symmetric_indefinite' the upper triangle of a full matrix, every diagonal stored); those
    arrays are the solver's ``indptr``, ``indices`` and ``data``, and ``refactor`` takes new
    values in that order, or a matrix of the same pattern. ``SparseSolver.from_csr`` takes
    raw arrays and borrows them when they are already in the solver's form.

    mtype: 'spd' (2), 'symmetric_indefinite' (-2), 'structurally_symmetric' (1) or
    'unsymmetric' (11). nrhs: right-hand sides per PARDISO solve call. The values are always
    the solver's own copy: change them only through refactor().

    Use it as a context manager, or call close(), to release PARDISO's memory at a known
    point; a closed solver raises ValueError. Failures raise SparseSolverError (PARDISO's
    code, phase and words), CsrError (code, row, position, rule) or CallOrderError.
    """

    def __init__(self, a, mtype="spd", *, nrhs=1, max_refinement_steps=0, stored="full",
                 settings=None):
        code = mtype_code(mtype)
        ia, ja, data, chk = _from_sparse(a, code, stored)
        chk.raise_if_bad()
        self._stored = stored
        super().__init__(len(ia) - 1, ia, ja, data, nrhs, max_refinement_steps, code)
        if settings is not None:
            self.set_settings(**settings.__dict__)

    @classmethod
    def from_csr(cls, indptr, indices, data, mtype="spd", *, base=0, stored="full", nrhs=1,
                 max_refinement_steps=0):
        """A solver from compressed rows (n = len(indptr) - 1). With base=1, int32 (or
        convertible) indices and the part mtype needs (stored='upper' for the symmetric types,
        'full' for the others), indptr and indices are borrowed: the solver keeps them alive
        and reads them again when solving; do not change them. Otherwise the library builds
        its own arrays, as for a scipy.sparse input."""
        code = mtype_code(mtype)
        if stored not in STORED:
            raise ValueError(f"stored: expected 'full', 'upper' or 'lower', got {stored!r}")
        needed = "upper" if code in (2, -2) else "full"
        self = cls.__new__(cls)
        self._stored = stored
        if base == 1 and stored == needed:
            ia, ja = index_array(indptr, "indptr"), index_array(indices, "indices")
        else:
            ia, ja, data, chk = prepare_csr(indptr, indices, data, code, base=base, stored=stored)
            chk.raise_if_bad()
        _core._SparseSolver.__init__(self, len(ia) - 1, ia, ja, data, nrhs, max_refinement_steps,
                                     code)
        return self

    def refactor(self, values):
        """Numerical refactorization on the same pattern (PARDISO phase 22, reusing the
        analysis of factor()). values: a 1-D array in the order of ``self.indices`` (the
        solver's compressed rows), or a scipy.sparse matrix of the same pattern, converted as
        the constructor converts. The values are checked first (CsrError, nothing changed);
        after a PARDISO failure solve() raises until a refactor succeeds."""
        if sp.issparse(values):
            if self.state == "closed":
                raise ValueError("self: the solver is closed")
            ia, ja, data, _ = _from_sparse(values, self.mtype, self._stored)
            if not (np.array_equal(ia, self.indptr) and np.array_equal(ja, self.indices)):
                raise ValueError("values: the matrix's pattern differs from the factored one")
            values = data
        self._refactor(values)

    def set_settings(self, scaling_and_matching=False, pivot_perturbation=13,
                     ordering="nested_dissection", factor_statistics=False):
        """Applies opt-in settings (see Settings) for the next factor(); unnamed fields take
        their defaults. Only before factor() (or after clear())."""
        if ordering not in ORDERINGS:
            raise ValueError(f"ordering: expected one of {sorted(ORDERINGS)}, got {ordering!r}")
        self._set_settings(bool(scaling_and_matching), int(pivot_perturbation),
                           ORDERINGS[ordering], bool(factor_statistics))

    @property
    def settings(self):
        """The Settings in force."""
        s, p, o, f = self._settings()
        names = {v: k for k, v in ORDERINGS.items()}
        return Settings(s, p, names[o], f)

    def diagnostics(self):
        """PARDISO's report after the last call: a Diagnostics."""
        return Diagnostics(**self._diagnostics())

    def check(self):
        """LSMsolver_check_csr on the solver's arrays: a CsrCheck."""
        return CsrCheck(*self._check())

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __repr__(self):
        return f"<SparseSolver n={self.n} nnz={self.nnz} mtype={self.mtype} state={self.state}>"
