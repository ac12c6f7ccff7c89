"""The exceptions kelmatrix raises: each carries the library's own code and words."""

import numpy as np


class KelmatrixError(Exception):
    """Base of the errors the library reports (bad arguments raise ValueError)."""


class FactorizationError(KelmatrixError, np.linalg.LinAlgError):
    """A LAPACK-backed call failed: ``routine`` names it, ``code`` is its info
    (k > 0: for example the leading minor of order k is not positive definite)."""

    def __init__(self, message, routine, code):
        super().__init__(message)
        self.message, self.routine, self.code = message, routine, code


class SparseSolverError(KelmatrixError):
    """PARDISO reported an error: ``code`` is its error number, ``phase`` the phase of the
    call (12 analysis + factorization, 22 refactorization, 33 solve) and ``message`` the
    library's description of the code."""

    def __init__(self, message, code, phase):
        super().__init__(f"{message} (PARDISO error {code}, phase {phase})")
        self.message, self.code, self.phase = message, code, phase


class CsrError(KelmatrixError, ValueError):
    """Compressed rows break a rule the solver needs: ``code`` (an LSMsolver_csr_problem value),
    the 1-based ``row`` and ``position`` (into indices/data; 0 where the rule concerns the whole
    matrix) and the ``rule`` in words. From the distributed solver, ``rank`` names the process."""

    def __init__(self, code, row, position, rule, rank=None):
        where = f" at row {row}" if row else ""
        where += f", position {position}" if position else ""
        where += f" on rank {rank}" if rank is not None else ""
        super().__init__(f"{rule}{where} (code {code})")
        self.code, self.row, self.position, self.rule, self.rank = code, row, position, rule, rank


class BorderedSizeError(KelmatrixError, ValueError):
    """A bordered matrix of the asked sizes cannot be held: ``status`` is the library's
    KelMatrixBordered_status and ``message`` its words."""

    def __init__(self, message, status):
        super().__init__(f"{message} (status {status})")
        self.message, self.status = message, status


class CallOrderError(KelmatrixError, RuntimeError):
    """A solver call came in the wrong order (solve before factor, factor twice, ...): the
    library refused it, changing nothing. ``refusal`` is its LSMsolver_refusal code (0 where the
    package refused first) and the message its words."""

    def __init__(self, message, refusal=0):
        super().__init__(message)
        self.refusal = refusal
