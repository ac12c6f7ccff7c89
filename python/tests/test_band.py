"""The native band, cyclic and Kronecker routines against SciPy and dense references."""

import numpy as np
import pytest
import scipy.linalg as sl
from scipy.interpolate import BSpline, CubicSpline, RectBivariateSpline, make_lsq_spline

import kelmatrix as km
from conftest import EPS, forward_bound, lower_band, rel_err, spd_band, upper_band


@pytest.mark.parametrize("bw", [0, 1, 4])
@pytest.mark.parametrize("order", ["C", "F"])
def test_native_band_cholesky_matches_scipy(rng, bw, order):
    n = 60
    a, ab = spd_band(rng, n, bw)
    ab = np.asarray(ab, order=order)
    b = rng.standard_normal((n, 2))
    u, rank = km.band_cholesky(ab, 1e-12 * a.diagonal().max())
    assert rank == n and u.shape == ab.shape
    bound = forward_bound(a)
    assert rel_err(u, sl.cholesky_banded(ab)) < bound
    assert rel_err(km.band_cholesky_solve(u, b), sl.solveh_banded(ab, b)) < bound
    ul, rank_l = km.band_cholesky(lower_band(a, bw), 1e-12, lower=True)
    assert rank_l == n and rel_err(ul, sl.cholesky_banded(lower_band(a, bw), lower=True)) < bound
    assert rel_err(km.band_cholesky_solve(ul, b, lower=True), sl.solveh_banded(ab, b)) < bound


def test_native_band_cholesky_reports_rank_of_semidefinite_matrix():
    # The path-graph Laplacian (singular, rank n - 1) stacked twice with a decoupling zero.
    n = 12
    lap = 2 * np.eye(n) - np.eye(n, k=1) - np.eye(n, k=-1)
    lap[0, 0] = lap[-1, -1] = 1.0
    ab = upper_band(lap, 1)
    u, rank = km.band_cholesky(ab, 1e-10)
    assert rank == n - 1
    assert np.count_nonzero(u[1] == -1.0) == 1
    # A consistent right-hand side is solved exactly, the dropped unknown set to 0.
    x_true = np.arange(n, dtype=float)
    x = km.band_cholesky_solve(u, lap @ x_true)
    assert np.linalg.norm(lap @ x - lap @ x_true) < 100 * n * EPS * np.linalg.norm(lap @ x_true)
    assert x[np.flatnonzero(u[1] == -1.0)[0]] == 0.0


def periodic_spline_system(n):
    """The cyclic tridiagonal system of a uniform periodic cubic spline's second derivatives,
    as a bordered matrix (band block n - 1, border 1: the wrap-around unknown last)."""
    bm = km.BorderedMatrix(n, 1, 1)
    bm.band[1, :] = 4.0 / 6.0
    bm.band[0, 1:] = 1.0 / 6.0
    bm.border[0, 0] = bm.border[-1, 0] = 1.0 / 6.0
    bm.corner[0, 0] = 4.0 / 6.0
    return bm


def test_periodic_spline_matches_cubicspline(rng):
    n = 400
    t = np.linspace(0, 2 * np.pi, n + 1)
    h = t[1] - t[0]
    y = np.column_stack([np.cos(t) + 0.1 * rng.standard_normal(n + 1),
                         np.sin(2 * t) + 0.1 * rng.standard_normal(n + 1)])
    y[-1] = y[0]
    bm = periodic_spline_system(n)
    dense = bm.to_dense()
    assert np.allclose(dense, dense.T) and dense[0, -1] == 1.0 / 6.0
    assert bm.factor(1e-14) == 1 and bm.factored
    yp = y[:-1]
    rhs = (np.roll(yp, -1, axis=0) - 2 * yp + np.roll(yp, 1, axis=0)) / h ** 2
    m = bm.solve(rhs)
    ref = CubicSpline(t, y, bc_type="periodic")(t[:-1], 2)
    assert rel_err(m, ref) < forward_bound(dense) * np.linalg.norm(rhs) / np.linalg.norm(ref)
    # The dense cyclic routines and the LAPACK bordered driver agree with it.
    u, r = km.cyclic_cholesky(dense, 1, 1, 1e-14)
    assert r == 1
    assert rel_err(km.cyclic_cholesky_solve(u, rhs, 1, 1), ref) < 1e-10
    assert rel_err(km.solve_bordered(dense, rhs, n - 1, 2), ref) < 1e-10


def test_bordered_views_are_the_storage():
    bm = km.BorderedMatrix.from_dense(np.arange(36.0).reshape(6, 6) + np.eye(6) * 100, 1, 2)
    assert (bm.n, bm.bw, bm.m) == (6, 1, 2)
    assert bm.band.shape == (2, 4) and bm.border.shape == (4, 2) and bm.corner.shape == (2, 2)
    d = bm.to_dense()
    assert d[0, 1] == 1.0 and d[1, 0] == 1.0 and d[0, 2] == 0.0  # outside the band: 0
    assert d[2, 5] == 17.0 and d[5, 2] == 17.0 and d[4, 5] == 29.0
    bm.border[3, 1] = -7.0
    assert bm.to_dense()[3, 5] == -7.0
    band = bm.band
    del bm  # the view keeps the matrix alive
    assert band[1, 0] == 100.0
    with pytest.raises(km.BorderedSizeError) as e:
        km.BorderedMatrix(3, 1, 4)
    assert e.value.status == 2 and "border" in e.value.message
    with pytest.raises(km.BorderedSizeError) as e:
        km.BorderedMatrix(-1, 1, 0)
    assert e.value.status == 1


def test_saddle_point_bordered_driver():
    # A band block with a zero corner: the Schur complement is negative definite.
    n, nb = 8, 6
    a = np.zeros((n, n))
    a[:nb, :nb] = 4 * np.eye(nb) + np.eye(nb, k=1) + np.eye(nb, k=-1)
    a[:nb, nb:] = np.arange(1.0, 2 * nb + 1).reshape(nb, 2)
    a[nb:, :nb] = a[:nb, nb:].T
    b = np.arange(n, dtype=float)
    assert rel_err(km.solve_bordered(a, b, nb, 2), np.linalg.solve(a, b)) < forward_bound(a)


def test_kronecker_solves_match_dense_kron(rng):
    p, q = 9, 7
    a, ab = spd_band(rng, p, 2)
    b, bb = spd_band(rng, q, 1)
    k = np.kron(a, b)
    bound = forward_bound(k)
    x = rng.standard_normal(p * q)
    ref = np.linalg.solve(k, x)
    assert rel_err(km.solve_kronecker(ab, bb, x), ref) < bound
    groups = rng.standard_normal((q, 3 * p))
    y = km.solve_kronecker(ab, bb, groups)
    for g in range(3):
        got = y[:, g * p:(g + 1) * p].reshape(-1, order="F")
        want = np.linalg.solve(k, groups[:, g * p:(g + 1) * p].reshape(-1, order="F"))
        assert rel_err(got, want) < bound
    u1, _ = km.band_cholesky(ab, 1e-12)
    u2, _ = km.band_cholesky(bb, 1e-12)
    cols = rng.standard_normal((p * q, 4))
    assert rel_err(km.kron_cholesky_solve(u1, u2, cols), np.linalg.solve(k, cols)) < bound
    lower_then_upper = km.kron_upper_substitute(u1, u2, km.kron_lower_substitute(u1, u2, cols))
    assert rel_err(lower_then_upper, np.linalg.solve(k, cols)) < bound
    with pytest.raises(km.FactorizationError, match="positive definite"):
        km.solve_kronecker(-ab, bb, x)


def normal_band(x, t, k):
    """The normal-equation matrix B^T B of a B-spline least-squares fit, in upper band form."""
    design = BSpline.design_matrix(x, t, k).toarray()
    return upper_band(design.T @ design, k), design


def test_tensor_lsq_fit_matches_make_lsq_spline_and_rectbivariatespline(rng):
    k = 3
    x, y = np.linspace(0, 1, 60), np.linspace(0, 2, 45)
    z = np.sin(3 * x)[:, None] * np.cos(2 * y)[None, :] + 0.01 * rng.standard_normal((60, 45))
    tx = np.r_[[0] * 4, np.linspace(0, 1, 12)[1:-1], [1] * 4]
    ty = np.r_[[0] * 4, np.linspace(0, 2, 9)[1:-1], [2] * 4]
    nx, bx = normal_band(x, tx, k)
    ny, by = normal_band(y, ty, k)
    rhs = bx.T @ z @ by                                   # (px, py)
    u1, r1 = km.band_cholesky(nx, 1e-14)
    u2, r2 = km.band_cholesky(ny, 1e-14)
    assert (r1, r2) == (nx.shape[1], ny.shape[1])
    # Block i of the vector (px blocks of py entries) is row i of the coefficient array.
    c = km.kron_cholesky_solve(u1, u2, rhs.reshape(-1)).reshape(rhs.shape)
    ref = make_lsq_spline(y, make_lsq_spline(x, z, tx, k).c.T, ty, k).c.T
    cond = np.linalg.cond(bx.T @ bx) * np.linalg.cond(by.T @ by)
    assert rel_err(c, ref) < 100 * EPS * cond
    # With the interpolating spline's own knots the fit is RectBivariateSpline's interpolation.
    xs, ys = np.linspace(0, 1, 14), np.linspace(0, 2, 11)
    zs = np.exp(-xs)[:, None] * np.sin(ys)[None, :]
    spl = RectBivariateSpline(xs, ys, zs, kx=k, ky=k, s=0)
    kx, ky = spl.get_knots()
    tx = np.r_[[0] * 3, kx, [1] * 3]
    ty = np.r_[[0] * 3, ky, [2] * 3]
    nx, bx = normal_band(xs, tx, k)
    ny, by = normal_band(ys, ty, k)
    c = km.kron_cholesky_solve(km.band_cholesky(nx, 1e-14)[0], km.band_cholesky(ny, 1e-14)[0],
                               (bx.T @ zs @ by).reshape(-1)).reshape(nx.shape[1], ny.shape[1])
    xe, ye = np.linspace(0, 1, 31), np.linspace(0, 2, 29)
    ours = BSpline.design_matrix(xe, tx, k).toarray() @ c @ BSpline.design_matrix(ye, ty, k).T
    cond = np.linalg.cond(bx.T @ bx) * np.linalg.cond(by.T @ by)
    assert np.max(np.abs(ours - spl(xe, ye))) < 100 * EPS * cond * np.abs(zs).max()


def test_products_and_residual_ratios_match_dense(rng):
    n, bw = 40, 3
    a, ab = spd_band(rng, n, bw)
    x = rng.standard_normal((n, 2))
    assert np.allclose(km.band_matmul(ab, x), a @ x, rtol=0, atol=50 * EPS * np.abs(a).sum())
    general = np.triu(np.tril(rng.standard_normal((n, n)), 1), -2)
    gb = np.zeros((4, n))
    for k in range(-2, 2):
        gb[1 - k, max(k, 0):n + min(k, 0)] = np.diag(general, k)
    assert np.allclose(km.band_matmul(gb, x[:, 0], l_and_u=(2, 1)), general @ x[:, 0], rtol=0,
                       atol=50 * EPS * np.abs(general).sum())
    b = a @ x
    u, _ = km.band_cholesky(ab, 1e-12)
    sol = km.band_cholesky_solve(u, b)
    assert km.band_residual_ratio(ab, sol, b) < 30 and km.residual_ratio(a, sol, b) < 30
    assert km.residual_ratio(a, x, a @ x + 1e-6) > 1e3          # a wrong answer shows
    assert km.residual_ratio(a, x, np.asarray(b, order="F")) == km.residual_ratio(a, x, b)
    bm = km.BorderedMatrix.from_dense(a, bw, 2)
    keep = bm.copy()
    assert np.allclose(bm.matmul(x), a @ x, rtol=0, atol=50 * EPS * np.abs(a).sum())
    bm.factor(1e-12)
    assert not keep.factored and keep.residual_ratio(bm.solve(b), b) < 30
    with pytest.raises(ValueError, match="^x: expected 40 rows"):
        km.band_matmul(ab, x[:-1])
