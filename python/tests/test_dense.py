"""The LAPACK wrappers against SciPy on the same data, with bounds from condition numbers."""

import numpy as np
import pytest
import scipy.linalg as sl

import kelmatrix as km
from conftest import EPS, forward_bound, rel_err, spd_band, upper_band


def spd(rng, n, cond=1e4):
    q, _ = np.linalg.qr(rng.standard_normal((n, n)))
    return (q * np.geomspace(1, cond, n)) @ q.T


@pytest.mark.parametrize("order", ["C", "F"])
@pytest.mark.parametrize("nrhs", [None, 3])
def test_general_solves_match_scipy(rng, order, nrhs):
    n = 40
    a = np.asarray(rng.standard_normal((n, n)), order=order)
    b = rng.standard_normal(n if nrhs is None else (n, nrhs))
    x = km.solve(a, b)
    assert x.shape == b.shape
    assert rel_err(x, sl.solve(a, b)) < forward_bound(a)
    # General band (l, u) = (2, 1) in SciPy's layout.
    band = np.triu(np.tril(a, 1), -2) + 10 * np.eye(n)
    ab = np.zeros((4, n))
    for k in range(-2, 2):
        ab[1 - k, max(k, 0):n + min(k, 0)] = np.diag(band, k)
    assert rel_err(km.solve_banded((2, 1), ab, b), sl.solve_banded((2, 1), ab, b)) < \
        forward_bound(band)


def test_spd_family_matches_scipy(rng):
    n = 30
    a = spd(rng, n)
    b = rng.standard_normal((n, 2))
    bound = forward_bound(a)
    assert rel_err(km.solve_spd(a, b), sl.solve(a, b, assume_a="pos")) < bound
    u = km.cholesky(a)
    assert np.allclose(np.tril(u, -1), 0.0)
    assert rel_err(u, sl.cholesky(a)) < 20 * n * EPS * np.sqrt(np.linalg.cond(a))
    assert rel_err(km.cho_solve(u, b), sl.cho_solve((u, False), b)) < bound
    inv = km.cho_inverse(u)
    assert np.array_equal(inv, inv.T)
    assert rel_err(inv, np.linalg.inv(a)) < bound
    # The band family in both of SciPy's forms.
    a, ab = spd_band(rng, 50, 3)
    bw = 3
    lower = np.zeros_like(ab)
    for k in range(bw + 1):
        lower[k, :50 - k] = np.diag(a, -k)
    bb = rng.standard_normal(50)
    ref = sl.solveh_banded(ab, bb)
    for form, arr in (("upper", ab), ("lower", lower)):
        is_lower = form == "lower"
        assert rel_err(km.solveh_banded(arr, bb, lower=is_lower), ref) < forward_bound(a)
        cb = km.cholesky_banded(arr, lower=is_lower)
        assert rel_err(cb, sl.cholesky_banded(arr, lower=is_lower)) < forward_bound(a)
        assert rel_err(km.cho_solve_banded(cb, bb, lower=is_lower), ref) < forward_bound(a)
    cb = km.cholesky_banded(ab)
    y = km.solve_triangular_banded(cb, bb, trans=True)          # U^T y = b
    assert rel_err(km.solve_triangular_banded(cb, y), ref) < forward_bound(a)


def test_factorization_errors_carry_lapack_info(rng):
    a = np.diag([4.0, 1.0, -1.0, 2.0])
    with pytest.raises(km.FactorizationError) as e:
        km.cholesky(a)
    assert e.value.code == 3 and e.value.routine == "dpotrf"
    assert isinstance(e.value, np.linalg.LinAlgError)
    with pytest.raises(km.FactorizationError, match="dgesv"):
        km.solve(np.ones((3, 3)), np.ones(3))
    with pytest.raises(km.FactorizationError) as e:
        km.solve_triangular_banded(np.array([[0.0, 1.0, 2.0], [1.0, 0.0, 3.0]]), np.ones(3))
    assert e.value.code == 2
    with pytest.raises(km.FactorizationError, match="dpbtrf"):
        km.cholesky_banded(np.array([[0.0, 2.0], [1.0, 1.0]]))


def test_least_squares_match_gelsy(rng):
    m, n, rank = 30, 12, 7
    a = rng.standard_normal((m, rank)) @ rng.standard_normal((rank, n))
    b = rng.standard_normal((m, 3))
    x, r, perm = km.lstsq_min_norm(a, b, rcond=1e-10)
    ref, _, rank_ref, _ = sl.lstsq(a, b, cond=1e-10, lapack_driver="gelsy")
    assert r == rank_ref == rank
    assert sorted(perm) == list(range(n))
    s = np.linalg.svd(a, compute_uv=False)
    assert rel_err(x, ref) < 50 * m * EPS * s[0] / s[rank - 1]
    # Underdetermined, one right-hand side: the minimum-norm solution.
    aw = rng.standard_normal((5, 9))
    bw = rng.standard_normal(5)
    xw, rw, _ = km.lstsq_min_norm(aw, bw)
    assert rw == 5 and rel_err(xw, np.linalg.pinv(aw) @ bw) < forward_bound(aw @ aw.T)
    # Full rank: dgels against lstsq.
    af = rng.standard_normal((m, n))
    ref = sl.lstsq(af, b[:, 0])[0]
    assert rel_err(km.lstsq(af, b[:, 0]), ref) < 50 * m * EPS * np.linalg.cond(af) ** 2
    af[:, 4] = 0.0  # an exactly zero column: dgels's R has a zero diagonal
    with pytest.raises(km.FactorizationError, match="full rank"):
        km.lstsq(af, b)


@pytest.mark.parametrize("driver", ["syev", "spev"])
def test_eigh_matches_scipy(rng, driver):
    n = 25
    a = rng.standard_normal((n, n))
    a = a + a.T
    w, v = km.eigh(a, driver=driver)
    ref = sl.eigh(a, eigvals_only=True)
    norm = np.linalg.norm(a, 2)
    assert np.max(np.abs(w - ref)) < 20 * n * EPS * norm
    assert np.linalg.norm(a @ v - v * w) < 20 * n * EPS * norm
    assert np.linalg.norm(v.T @ v - np.eye(n)) < 20 * n * EPS
    assert np.max(np.abs(km.eigh(a, eigvals_only=True, driver=driver) - ref)) < 20 * n * EPS * norm


def test_matmul_matches_numpy(rng):
    a, b = rng.standard_normal((7, 5)), rng.standard_normal((7, 4))
    c = km.matmul(a, b, trans_a=True, alpha=2.0)
    assert np.allclose(c, 2.0 * a.T @ b, rtol=0, atol=50 * EPS * np.abs(a).sum())


def test_results_are_library_blocks_without_copy(rng):
    a, ab = spd_band(rng, 20, 2)
    x = km.solve(a, np.ones(20))
    u = km.cholesky_banded(ab)
    for r in (x, u):
        assert not r.flags.owndata and r.flags.f_contiguous and r.flags.writeable
        assert type(r.base).__name__ == "PyCapsule"
    assert u.shape == ab.shape
    # The block outlives every other reference to it.
    del a, ab
    assert np.isfinite(u).all()
    assert upper_band(np.eye(3), 0).shape == (1, 3)
