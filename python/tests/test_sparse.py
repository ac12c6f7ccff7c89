"""SparseSolver against SciPy's spsolve on the collection matrices, and its life cycle."""

import numpy as np
import pytest
import scipy.io
import scipy.sparse as sp
import scipy.sparse.linalg as spl

import kelmatrix as km
from conftest import EPS


def read(matrices, name):
    return sp.csr_matrix(scipy.io.mmread(matrices / f"{name}.mtx")).astype(float)


def cond1(a):
    """The 1-norm condition number estimated as the collection's table does."""
    lu = spl.splu(sp.csc_matrix(a))
    inv = spl.LinearOperator(a.shape, matvec=lu.solve, rmatvec=lambda v: lu.solve(v, "T"))
    return spl.onenormest(a) * spl.onenormest(inv)


def backward_error(a, x, b):
    return np.linalg.norm(a @ x - b, 1) / (spl.norm(a, 1) * np.linalg.norm(x, 1) +
                                           np.linalg.norm(b, 1))


# (matrix, type, opt-in settings): the defaults suffice for the definite and the well
# conditioned matrices; those with zero or tiny diagonals take scaling and matching.
CASES = [("bcsstk01", "spd", None), ("494_bus", "spd", None), ("gr_30_30", "spd", None),
         ("1138_bus", "spd", None), ("bcsstk13", "spd", None),
         ("tumorAntiAngiogenesis_2", "symmetric_indefinite", km.Settings(True, 8)),
         ("sherman5", "unsymmetric", None),
         ("west0479", "unsymmetric", km.Settings(scaling_and_matching=True)),
         ("olm1000", "unsymmetric", None)]


@pytest.mark.parametrize("name,mtype,settings", CASES, ids=[c[0] for c in CASES])
def test_collection_matches_spsolve(matrices, name, mtype, settings):
    a = read(matrices, name)
    n = a.shape[0]
    b = a @ np.linspace(1.0, 2.0, n)
    ref = spl.spsolve(sp.csc_matrix(a), b)
    with km.SparseSolver(a, mtype, max_refinement_steps=2, settings=settings) as s:
        s.factor()
        x = s.solve(b)
        d = s.diagnostics()
    assert d.error == 0 and d.last_phase == 33
    assert backward_error(a, x, b) < 1e3 * EPS
    assert np.linalg.norm(x - ref) / np.linalg.norm(ref) < 1e3 * EPS * cond1(a)
    if mtype == "symmetric_indefinite":
        assert d.positive_eigenvalues + d.negative_eigenvalues == n


def test_defaults_flag_a_poor_answer_and_the_opt_in_repairs_it(matrices):
    a = read(matrices, "west0479")
    b = a @ np.ones(a.shape[0])
    with km.SparseSolver(a, "unsymmetric") as s:
        s.factor()
        poor = backward_error(a, s.solve(b), b)
        perturbed = s.diagnostics().perturbed_pivots
    assert perturbed > 0 or poor > 1e-10
    with km.SparseSolver(a, "unsymmetric", max_refinement_steps=2,
                         settings=km.Settings(scaling_and_matching=True)) as s:
        s.factor()
        assert backward_error(a, s.solve(b), b) < 1e3 * EPS


def poisson(m):
    t = sp.diags([-1.0, 2.0, -1.0], [-1, 0, 1], shape=(m, m))
    return sp.csr_matrix(sp.kron(sp.eye(m), t) + sp.kron(t, sp.eye(m)))


@pytest.mark.parametrize("fmt", ["csr_matrix", "csc_matrix", "coo_matrix", "csr_array",
                                 "csc_array", "coo_array"])
def test_every_scipy_format_and_refactor(fmt, rng):
    a = getattr(sp, fmt)(poisson(12))
    n = a.shape[0]
    b = rng.standard_normal((n, 3))
    s = km.SparseSolver(a, settings=km.Settings(factor_statistics=True))
    assert s.settings.factor_statistics and s.state == "ready"
    s.factor()
    x = s.solve(b)
    assert s.state == "solved" and s.diagnostics().non_finite_solutions == 0
    assert s.residual_ratio(x, b) < 30
    assert np.allclose(s.matmul(x), a @ x, rtol=0, atol=1e3 * EPS * np.abs(b).max())
    assert x.shape == (n, 3) and s.diagnostics().factor_nonzeros > 0
    assert np.linalg.norm(a @ x - b) < 1e3 * EPS * np.linalg.norm(b)
    # New values on the same pattern: in the solver's order, or as a matrix.
    a2 = a.multiply(2.0) + sp.eye(n) * 0.5
    s.refactor(getattr(sp, fmt)(a2))
    assert np.linalg.norm(a2 @ s.solve(b) - b) < 1e3 * EPS * np.linalg.norm(b)
    s.refactor(3.0 * s.data)
    assert np.linalg.norm(a2 @ s.solve(b) * 3.0 - b) < 1e3 * EPS * np.linalg.norm(b)
    s.close()


def test_raw_arrays_are_borrowed_and_kept_alive(rng):
    a = sp.triu(poisson(8)).tocsr()
    ia = (a.indptr + 1).astype(np.int32)
    ja = (a.indices + 1).astype(np.int32)
    before = [len(__import__("gc").get_referrers(ia))]
    s = km.SparseSolver.from_csr(ia, ja, a.data, base=1, stored="upper")
    assert s.indptr is ia and s.indices is ja and not np.shares_memory(s.data, a.data)
    assert before[0] <= len(__import__("gc").get_referrers(ia))
    del ia, ja, a
    s.factor()
    full = poisson(8)
    b = rng.standard_normal(64)
    assert np.linalg.norm(full @ s.solve(b) - b) < 1e3 * EPS * np.linalg.norm(b)
    assert not s.data.flags.writeable
    # 0-based or full input is prepared by the library into arrays of the solver's own.
    s2 = km.SparseSolver.from_csr(full.indptr, full.indices, full.data)
    assert s2.nnz == sp.triu(full).nnz and s2.indptr[0] == 1


def test_int64_indices_convert_or_overflow():
    a = poisson(5).tocsr()
    a64 = sp.csr_matrix((a.data, a.indices.astype(np.int64), a.indptr.astype(np.int64)),
                        shape=a.shape)
    with km.SparseSolver(a64) as s:
        s.factor()
        assert np.allclose(a @ s.solve(np.ones(25)), 1.0)
    ja = a.indices.astype(np.int64)
    ja[3] = 2 ** 31
    with pytest.raises(OverflowError, match="indices: index 2147483648"):
        km.SparseSolver.from_csr(a.indptr.astype(np.int64), ja, a.data)


def test_csr_checker_names_code_row_position_and_rule():
    ia = np.array([1, 3, 4], dtype=np.int32)
    ja = np.array([2, 1, 2], dtype=np.int32)
    chk = km.check_csr(ia, ja, [1.0, 2.0, 3.0], "unsymmetric")
    assert not chk.ok and chk.row == 1 and chk.position == 2 and "ascend" in chk.rule
    chk = km.check_csr(np.array([1, 2, 3], dtype=np.int32), np.array([1, 2], dtype=np.int32),
                       [1.0, np.nan], "spd")
    assert chk.code != 0 and chk.row == 2 and "finite" in chk.rule
    assert km.check_csr(ia, np.array([1, 2, 2], dtype=np.int32), [1.0, 2, 3], 11).ok
    # Prepared arrays: sorted, duplicates summed, every diagonal stored for the symmetric types.
    # (The lower entry of a full input is ignored; the zero diagonals then fail type 2's check.)
    pia, pja, pa, chk = km.prepare_csr([0, 2, 3], [1, 1, 0], [1.0, 2.0, 5.0], "spd")
    assert list(pia) == [1, 3, 4] and list(pja) == [1, 2, 2] and list(pa) == [0.0, 3.0, 0.0]
    assert chk.code != 0 and chk.row == 1 and "diagonal" in chk.rule
    with pytest.raises(km.CsrError) as e:
        km.SparseSolver.from_csr([0, 2, 3], [1, 1, 0], [1.0, 2.0, 5.0])
    assert e.value.code == chk.code and e.value.row == 1
