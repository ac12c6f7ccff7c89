"""ClusterSolver: the distributed sparse solver (LSMclusterSolver) with an mpi4py communicator."""

from . import _mpi
from ._sparse import Diagnostics, index_array, mtype_code  # noqa: F401  (Diagnostics: docs)


class ClusterSolver(_mpi._ClusterSolver):
    """Distributed sparse direct solver over MKL's cluster sparse solver: each rank passes its
    block of rows first_row..last_row (1-based, inclusive; blocks in rank order covering 1..n)
    as 1-based compressed rows with global column indices (for the symmetric types the block's
    part of the upper triangle). Every call is collective and raises on every rank when it
    fails: CsrError naming the rank, row and rule when the input check finds a problem,
    SparseSolverError otherwise. solve(b) takes and returns this rank's rows. The indices are
    borrowed (kept alive); the values are the solver's own copy, changed by refactor(values).
    Close it (or leave the with-block) before MPI is finalized."""

    def __init__(self, comm, n, first_row, last_row, indptr, indices, data, mtype="spd", *,
                 nrhs=1, max_refinement_steps=0):
        super().__init__(comm, n, first_row, last_row, index_array(indptr, "indptr"),
                         index_array(indices, "indices"), data, nrhs, max_refinement_steps,
                         mtype_code(mtype))

    def refactor(self, values):
        """Numerical refactorization with this rank's new values (same pattern)."""
        self._refactor(values)

    def diagnostics(self):
        """A dict: the agreed error and phase, this rank's memory, and the input problem."""
        return self._diagnostics()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False
