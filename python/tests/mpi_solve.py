"""Run under mpiexec by test_interface.py: each rank factors its block of rows of a 2-D
Poisson matrix, solves, refactors, and checks its rows of the solution against SciPy; a NaN
on one rank raises CsrError naming that rank on every rank."""

import numpy as np
import scipy.sparse as sp
import scipy.sparse.linalg as spl
from mpi4py import MPI

import kelmatrix as km

comm = MPI.COMM_WORLD
rank, size = comm.Get_rank(), comm.Get_size()
m = 20
t = sp.diags([-1.0, 2.0, -1.0], [-1, 0, 1], shape=(m, m))
a = sp.csr_matrix(sp.kron(sp.eye(m), t) + sp.kron(t, sp.eye(m)))
n = a.shape[0]
upper = sp.triu(a).tocsr()
first, last = rank * n // size + 1, (rank + 1) * n // size   # 1-based, inclusive
block = upper[first - 1:last]
ia = (block.indptr + 1).astype(np.int32)
ja = (block.indices + 1).astype(np.int32)
b = np.arange(1.0, n + 1)
ref = spl.spsolve(sp.csc_matrix(a), b)
with km.ClusterSolver(comm, n, first, last, ia, ja, block.data, "spd") as s:
    s.factor()
    x = s.solve(b[first - 1:last])
    assert np.linalg.norm(x - ref[first - 1:last]) < 1e-10 * np.linalg.norm(ref)
    s.refactor(2.0 * block.data)
    x = s.solve(b[first - 1:last])
    assert np.linalg.norm(2.0 * x - ref[first - 1:last]) < 1e-10 * np.linalg.norm(ref)
    bad = 2.0 * block.data
    if rank == size - 1:
        bad[-1] = np.nan
    try:
        s.refactor(bad)
        raise AssertionError("a NaN passed the check")
    except km.CsrError as e:
        assert e.rank == size - 1 and "finite" in e.rule
print("ok", rank)
