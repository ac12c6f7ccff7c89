"""What the binding promises beyond the numbers: argument checks naming the argument, the
overwrite convention, strided views read through their strides, errors in the library's words
with nothing printed, the GIL released, and lifetimes."""

import gc
import os
import subprocess
import sys
import threading

import numpy as np
import pytest
import scipy.linalg as sl
import scipy.sparse as sp

import kelmatrix as km
from conftest import lower_band, rel_err, spd_band, upper_band


@pytest.mark.parametrize("call,arg,message", [
    (lambda a, b: km.solve(a.astype(complex), b), "a", "real numbers"),
    (lambda a, b: km.solve(a, b[:-1]), "b", "40 rows"),
    (lambda a, b: km.solve(a[:, :-1], b), "a", "square"),
    (lambda a, b: km.solve(a, np.ones((40, 2, 2))), "b", "1-D or 2-D"),
    (lambda a, b: km.solve(a, np.array(["x"] * 40)), "b", "real numbers"),
    (lambda a, b: km.solve_spd(a, b, overwrite_a=True), "a", "Fortran-contiguous"),
    (lambda a, b: km.solve_spd(np.asfortranarray(a), b.astype(np.float32), overwrite_b=True),
     "b", "float64"),
    (lambda a, b: km.solve_spd(np.asfortranarray(a), [1.0] * 40, overwrite_b=True), "b",
     "numpy.ndarray"),
    (lambda a, b: km.cholesky(np.asfortranarray(a)[:, ::2], overwrite_a=True), "a",
     "Fortran-contiguous"),
    (lambda a, b: km.solveh_banded(np.ones((3, 40)), b, overwrite_ab=True), "ab",
     "Fortran-contiguous"),
    (lambda a, b: km.band_cholesky(np.ones((0, 4)), 0.0), "ab", "(bw + 1, n)"),
    (lambda a, b: km.solve_banded((1, 1), np.ones((2, 40)), b), "ab", "l + u + 1"),
    (lambda a, b: km.solve_banded((-1, 1), np.ones((2, 40)), b), "l_and_u", ">= 0"),
    (lambda a, b: km.eigh(a, driver="heev"), "driver", "syev"),
    (lambda a, b: km.matmul(a, np.ones((3, 3))), "b", "op(b) with 40 rows"),
    (lambda a, b: km.solve_kronecker(np.ones((2, 5)), np.ones((2, 4)), np.ones(19)), "x",
     "length p q"),
    (lambda a, b: km.kron_cholesky_solve(np.ones((2, 5)), np.ones((2, 4)), np.ones(21)), "x",
     "20 rows"),
    (lambda a, b: km.solve_bordered(a, b, 40, 2), "nb", "1 <= nb < n"),
    (lambda a, b: km.cyclic_cholesky(a, 2, 41, 0.0), "m", "0 <= m <= n"),
    (lambda a, b: km.BorderedMatrix(10, 2, 2).factor(0.0, bandwidth=3), "bandwidth", "1 .. 2"),
    (lambda a, b: km.BorderedMatrix(10, 2, 2).solve(b[:10]), "self", "factor() first"),
])
def test_bad_input_names_the_argument(rng, call, arg, message):
    a = rng.standard_normal((40, 40))
    b = rng.standard_normal(40)
    with pytest.raises(ValueError) as e:
        call(a, b)
    assert str(e.value).startswith(f"{arg}: ") and message in str(e.value)


@pytest.mark.parametrize("order", ["C", "F"])
def test_default_never_changes_the_callers_arrays(rng, order):
    a, ab = spd_band(rng, 30, 2)
    a, ab = np.asarray(a, order=order), np.asarray(ab, order=order)
    b = np.asarray(rng.standard_normal((30, 2)), order=order)
    saved = [x.copy() for x in (a, ab, b)]
    km.solve_spd(a, b)
    km.cholesky(a)
    km.solveh_banded(ab, b)
    km.band_cholesky(ab, 1e-12)
    km.band_cholesky_solve(km.band_cholesky(ab, 1e-12)[0], b)
    km.cyclic_cholesky(a, 2, 3, 1e-12)
    for x, s in zip((a, ab, b), saved):
        assert np.array_equal(x, s)


def test_overwrite_works_in_the_callers_array(rng):
    a, ab = spd_band(rng, 30, 2)
    ab_f = np.asfortranarray(ab)
    b_f = np.asfortranarray(rng.standard_normal((30, 2)))
    ref_u = sl.cholesky_banded(ab)
    ref_x = sl.solveh_banded(ab, b_f)
    x = km.solveh_banded(ab_f.copy(order="F"), b_f, overwrite_b=True)
    assert x is b_f and rel_err(b_f, ref_x) < 1e-12
    u, rank = km.band_cholesky(ab_f, 1e-12, overwrite_ab=True)
    assert u is ab_f and rank == 30 and rel_err(ab_f, ref_u) < 1e-12
    c = np.asfortranarray(a)
    assert km.cholesky(c, overwrite_a=True) is c and rel_err(c, sl.cholesky(a)) < 1e-12
    lower = np.asfortranarray(lower_band(a, 2))        # the lower form goes through a copy
    ul, _ = km.band_cholesky(lower, 1e-12, overwrite_ab=True, lower=True)
    assert ul is lower and rel_err(lower, sl.cholesky_banded(lower_band(a, 2), lower=True)) < 1e-12
    x = np.asfortranarray(rng.standard_normal((30 * 4, 2)))
    u2, _ = km.band_cholesky(upper_band(np.diag([2.0, 3.0, 4.0, 5.0]), 0), 1e-12)
    ref_k = np.linalg.solve(np.kron(a, np.diag([2.0, 3.0, 4.0, 5.0])), x)
    assert km.kron_cholesky_solve(ab_f, u2, x, overwrite_x=True) is x and rel_err(x, ref_k) < 1e-12
    v = np.asfortranarray(rng.standard_normal(30))   # 1-D arrays are Fortran-contiguous too
    x = km.band_cholesky_solve(ab_f, v.copy())
    assert km.band_cholesky_solve(ab_f, v, overwrite_b=True) is v and np.array_equal(v, x)


def test_strided_views_are_read_through_their_strides(rng):
    a, ab = spd_band(rng, 25, 2)
    big = np.zeros((50, 60))
    big[::2, 1::2][:, :25] = a                      # a strided view holding a
    view = big[::2, 1::2][:, :25]
    assert not view.flags.c_contiguous and not view.flags.f_contiguous
    b = np.arange(75.0)[::3]
    ref = np.linalg.solve(a, b)
    assert rel_err(km.solve(view, b), ref) < 1e-12
    assert rel_err(km.solve_spd(view.T, b), ref) < 1e-12      # a transposed view
    abig = np.zeros((6, 50))
    abig[::2, ::2] = ab
    assert rel_err(km.solveh_banded(abig[::2, ::2], b), ref) < 1e-12
    assert rel_err(km.band_cholesky_solve(km.band_cholesky(abig[::2, ::2], 1e-12)[0], b),
                   ref) < 1e-12
    with km.SparseSolver(sp.csr_matrix(a)) as s:
        s.factor()
        assert rel_err(s.solve(b), ref) < 1e-12
        bb = np.asfortranarray(np.column_stack([b, 2 * b, 3 * b]))[:, ::2]
        assert rel_err(s.solve(bb), np.column_stack([ref, 3 * ref])) < 1e-12


def test_sparse_solver_call_order_and_close(capfd):
    a = sp.csr_matrix(np.diag([2.0, 3.0, 4.0]))
    s = km.SparseSolver(a)
    with pytest.raises(km.CallOrderError, match="factor"):
        s.solve(np.ones(3))
    with pytest.raises(km.CallOrderError, match="factor"):
        s.refactor(np.ones(3))
    s.factor()
    with pytest.raises(km.CallOrderError, match="^factor\\(\\): a factorization is held") as e:
        s.factor()
    assert e.value.refusal == s.diagnostics().refusal != 0
    with pytest.raises(km.CallOrderError, match="^set_settings"):
        s.set_settings(scaling_and_matching=True)
    with pytest.raises(ValueError, match="^values: expected 3 values"):
        s.refactor(np.ones(4))
    with pytest.raises(km.CsrError) as e:                   # NaN: nothing changes
        s.refactor(np.array([1.0, np.nan, 1.0]))
    assert e.value.row == 2 and e.value.position == 2 and "finite" in e.value.rule
    assert np.allclose(s.solve(np.array([2.0, 3.0, 4.0])), 1.0)
    with pytest.raises(ValueError, match="^b: expected 3 rows"):
        s.solve(np.ones(4))
    with pytest.raises(ValueError, match="^values: the matrix's pattern"):
        s.refactor(sp.csr_matrix(np.ones((3, 3))))
    s.clear()
    s.set_settings(ordering="minimum_degree", pivot_perturbation=8)
    assert s.settings == km.Settings(False, 8, "minimum_degree", False)
    with pytest.raises(ValueError, match="^pivot_perturbation"):
        s.set_settings(pivot_perturbation=21)
    with pytest.raises(ValueError, match="^ordering"):
        s.set_settings(ordering="amd")
    s.close()
    s.close()                                               # closing twice is fine
    for call in (s.factor, lambda: s.solve(np.ones(3)), s.clear, lambda: s.refactor([1.0]),
                 lambda: s.refactor(a)):
        with pytest.raises(ValueError, match="closed"):
            call()
    with pytest.raises(ValueError, match="^mtype"):
        km.SparseSolver(a, "hermitian")
    with pytest.raises(ValueError, match="^a: expected a scipy.sparse"):
        km.SparseSolver(np.eye(3))
    with pytest.raises(ValueError, match="^a: expected a non-empty square"):
        km.SparseSolver(sp.csr_matrix(np.ones((2, 3))))
    with pytest.raises(ValueError, match="^indices: expected integer"):
        km.SparseSolver.from_csr([0, 1], [0.0], [1.0])
    # A failure in PARDISO carries its code, phase and words.
    indefinite = sp.csr_matrix(np.array([[1.0, 2.0], [2.0, 1.0]]))
    with km.SparseSolver(indefinite, "spd") as s, pytest.raises(km.SparseSolverError) as e:
        s.factor()
    assert e.value.code == -4 and e.value.phase == 12 and e.value.message
    assert capfd.readouterr() == ("", "")                   # nothing printed


def test_gil_released_two_threads_inside_at_once():
    """Two threads factor separate bordered matrices while this thread, which needs the GIL to
    run at all, watches the storage: seeing both factorizations started and unfinished at the
    same moment proves both threads are inside the library at once with the GIL released."""
    n = 1_000_000

    def make():
        bm = km.BorderedMatrix(n, 2, 2)
        bm.band[2] = 4.0
        bm.band[1, 1:] = -1.0
        bm.border[0, 0] = bm.border[-1, 1] = -1.0
        bm.corner[:] = np.array([[4.0, 0.0], [0.0, 4.0]])
        return bm

    def state(bm):   # 0 untouched, 1 started and unfinished, 2 finished
        if bm.band[2, 0] == 4.0:
            return 0
        return 1 if bm.corner[1, 1] == 4.0 else 2

    for attempt in range(8):
        mats = [make(), make()]
        go = threading.Barrier(3)
        threads = [threading.Thread(target=lambda m=m: (go.wait(), m.factor(1e-12)))
                   for m in mats]
        for t in threads:
            t.start()
        go.wait()
        seen = False
        while any(t.is_alive() for t in threads) and not seen:
            first = state(mats[0])
            seen = first == 1 and state(mats[1]) == 1 and state(mats[0]) == 1
        for t in threads:
            t.join()
        assert all(state(m) == 2 for m in mats)
        if seen:
            return
    pytest.fail("never saw both factorizations in progress at once")


def rss_kib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


def test_thousand_solvers_do_not_grow_resident_memory():
    a = sp.csr_matrix(sp.diags([-1.0, 4.0, -1.0], [-1, 0, 1], shape=(400, 400)))
    b = np.ones(400)

    def cycle(count):
        for _ in range(count):
            s = km.SparseSolver(a)
            s.factor()
            s.solve(b)
            del s

    cycle(50)                      # warm-up: MKL's pools and Python's caches
    gc.collect()
    before = rss_kib()
    cycle(1000)
    gc.collect()
    growth = rss_kib() - before
    if km._build_config.SANITIZED:
        return  # ASan's quarantine holds freed blocks: resident memory says nothing there
    # Each factorization holds a few hundred KiB; 1000 leaked ones would be hundreds of MiB.
    assert growth < 16 * 1024, f"resident memory grew by {growth} KiB over 1000 solvers"


def test_help_and_typing():
    assert "overwrite_ab" in km.band_cholesky.__doc__ and "rank" in km.band_cholesky.__doc__
    assert "numpy.typing.ArrayLike" in km.solve.__doc__
    for name in km.__all__:
        assert getattr(km, name).__doc__, name
    with open(os.path.join(os.path.dirname(km.__file__), "__init__.pyi")) as stub:
        text = stub.read()
    missing = [n for n in km.__all__ if f" {n}(" not in text and f" {n}:" not in text]
    assert not missing, f"not in the type stub: {missing}"


@pytest.mark.skipif(not km.HAVE_MPI, reason="libkelmatrix_mpi was not built")
def test_cluster_solver_on_two_ranks():
    script = os.path.join(os.path.dirname(__file__), "mpi_solve.py")
    cmd = ["mpiexec", "-n", "2", "--allow-run-as-root", "--oversubscribe", sys.executable, script]
    env = dict(os.environ, OMP_NUM_THREADS="1", OMPI_MCA_mca_base_component_disable_dlclose="1")
    out = subprocess.run(cmd, capture_output=True, text=True, env=env, timeout=300)
    assert out.returncode == 0, out.stdout + out.stderr
    assert out.stdout.count("ok") == 2, out.stdout


def test_native_threads_are_on_by_default_and_keep_the_bits():
    # The package turns the library's own threads on at import unless the environment decided.
    if "KELMATRIX_NUM_THREADS" not in os.environ:
        assert km.native_threads() == 0
    with pytest.raises(ValueError, match="1024"):
        km.set_native_threads(-1)
    rng = np.random.default_rng(3)
    n, bw = 3000, 8
    ab = np.zeros((bw + 1, n))
    ab[:bw] = rng.uniform(-1, 1, (bw, n))
    ab[bw] = 2.0 * bw + 1.0
    b = rng.uniform(-1, 1, (n, 64))
    before = km.native_threads()
    try:
        results = []
        for count in (1, 2, 3):
            km.set_native_threads(count)
            u, rank = km.band_cholesky(ab, 1e-12)
            assert rank == n
            results.append(km.band_cholesky_solve(u, b))
        for x in results[1:]:
            assert x.tobytes() == results[0].tobytes()
    finally:
        km.set_native_threads(before)
