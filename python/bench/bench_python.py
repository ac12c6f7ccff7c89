"""Benchmarks of the Python package (reported, not gated): binding overhead against the same
library call from C++, end-to-end comparisons with SciPy, and two Python threads against the
same work done one after the other. One thread (OMP_NUM_THREADS=1) unless said.

    bash scripts/bench-python.sh [--quick]      (builds what it needs, then runs this)

Prints a table and writes build/bench/python.json. SciPy figures name the BLAS/LAPACK SciPy
ran on: Debian's SciPy uses the reference BLAS/LAPACK unless another is selected with
update-alternatives."""

import argparse
import json
import os
import subprocess
import threading
import time

import numpy as np
import scipy.linalg as sl
import scipy.sparse as sp
import scipy.sparse.linalg as spl
from scipy.interpolate import CubicSpline

import kelmatrix as km
import _bench_core as cpp  # after kelmatrix, which makes MKL loadable

results = []


def blas_in_use():
    try:
        out = subprocess.run(["update-alternatives", "--query", "libblas.so.3-x86_64-linux-gnu"],
                             capture_output=True, text=True).stdout
        value = next(line.split(": ", 1)[1] for line in out.splitlines()
                     if line.startswith("Value:"))
    except (OSError, StopIteration):
        return "unknown"
    return value + (" (reference BLAS)" if "/blas/" in value else "")


def best(call, reps, setup=None):
    t = float("inf")
    for _ in range(reps):
        if setup:
            setup()
        t0 = time.perf_counter()
        call()
        t = min(t, time.perf_counter() - t0)
    return t


def report(name, ours, other, other_name, note=""):
    ratio = ours / other
    results.append(dict(case=name, kelmatrix_s=ours, peer=other_name, peer_s=other, ratio=ratio,
                        note=note))
    print(f"{name:<48} {ours * 1e3:10.3f} ms  {other_name:<22} {other * 1e3:10.3f} ms  "
          f"ratio {ratio:6.3f}  {note}")


def band_matrix(n, bw):
    ab = np.zeros((bw + 1, n))
    ab[bw] = 2.0 * bw + 1.0
    for k in range(1, bw + 1):
        ab[bw - k, k:] = -1.0 / k
    return np.asfortranarray(ab)


def poisson(m):
    t = sp.diags([-1.0, 2.0, -1.0], [-1, 0, 1], shape=(m, m))
    return sp.csr_matrix(sp.kron(sp.eye(m), t) + sp.kron(t, sp.eye(m)))


def overhead(n, reps):
    bw = 2
    ab = band_matrix(n, bw)
    work = ab.copy(order="F")
    b = np.linspace(1, 2, n)
    bb = b.copy()
    u, _ = km.band_cholesky(ab, 1e-12)
    u = np.asfortranarray(u)
    c = cpp.band_factor(ab, 1e-12, reps)
    t = best(lambda: km.band_cholesky(ab, 1e-12), reps)
    report(f"band_cholesky n={n} (copies ab once)", t, c, "C++ Cholesky_factor",
           f"+{(t - c) * 1e6:.2f} us")
    t = best(lambda: km.band_cholesky(work, 1e-12, overwrite_ab=True), reps,
             setup=lambda: np.copyto(work, ab))
    report(f"band_cholesky n={n} overwrite_ab=True", t, c, "C++ Cholesky_factor",
           f"+{(t - c) * 1e6:.2f} us")
    c = cpp.band_solve(u, b, reps)
    t = best(lambda: km.band_cholesky_solve(u, b), reps)
    report(f"band_cholesky_solve n={n} (copies b once)", t, c, "C++ Cholesky_subst",
           f"+{(t - c) * 1e6:.2f} us")
    t = best(lambda: km.band_cholesky_solve(u, bb, overwrite_b=True), reps,
             setup=lambda: np.copyto(bb, b))
    report(f"band_cholesky_solve n={n} overwrite_b=True", t, c, "C++ Cholesky_subst",
           f"+{(t - c) * 1e6:.2f} us")
    m = int(round(np.sqrt(n)))
    a = sp.triu(poisson(m)).tocsr()
    ia, ja = (a.indptr + 1).astype(np.int32), (a.indices + 1).astype(np.int32)
    rhs = np.ones(m * m)
    s = km.SparseSolver.from_csr(ia, ja, a.data, base=1, stored="upper")
    s.factor()
    c = cpp.sparse_solve(m * m, ia, ja, a.data, rhs, 2, reps)
    t = best(lambda: s.solve(rhs), reps)
    report(f"SparseSolver.solve n={m * m}", t, c, "C++ LSMsolver::solve", f"+{(t - c) * 1e6:.2f} us")
    s.close()


def periodic_spline(n, reps):
    t = np.linspace(0, 2 * np.pi, n + 1)
    h = t[1] - t[0]
    y = np.column_stack([np.cos(t) + 0.3 * np.sin(7 * t), np.sin(3 * t)])
    y[-1] = y[0]

    def ours():
        bm = km.BorderedMatrix(n, 1, 1)
        bm.band[1] = 4.0 / 6.0
        bm.band[0, 1:] = 1.0 / 6.0
        bm.border[0, 0] = bm.border[-1, 0] = 1.0 / 6.0
        bm.corner[0, 0] = 4.0 / 6.0
        bm.factor(1e-14)
        yp = y[:-1]
        rhs = np.asfortranarray((np.roll(yp, -1, axis=0) - 2 * yp + np.roll(yp, 1, axis=0)) / h ** 2)
        return bm.solve(rhs, overwrite_b=True)

    m = ours()
    ref = CubicSpline(t, y, bc_type="periodic")(t[:-1], 2)
    # Second differences over h^2 carry rounding of order eps / h^2 in both.
    assert np.abs(m - ref).max() < 100 * np.finfo(float).eps * np.abs(y).max() / h ** 2
    report(f"periodic spline N={n}, 2 coordinates", best(ours, reps),
           best(lambda: CubicSpline(t, y, bc_type="periodic"), reps), "CubicSpline(periodic)",
           f"SciPy on {BLAS}")


def tensor_interpolation(n, reps):
    bw = 3
    ab = band_matrix(n, bw)
    rng = np.random.default_rng(3)
    z = rng.standard_normal((n, n))

    def ours():
        u, _ = km.band_cholesky(ab, 1e-14)
        return km.kron_cholesky_solve(u, u, z.reshape(-1)).reshape(n, n)

    def scipy_two():
        c = sl.solveh_banded(ab, z)                 # along the first axis, n right-hand sides
        return sl.solveh_banded(ab, c.T).T          # then along the second

    assert np.allclose(ours(), scipy_two(), rtol=1e-10, atol=1e-12)
    report(f"tensor interpolation {n} x {n} (bw {bw})", best(ours, reps), best(scipy_two, reps),
           "2 x solveh_banded", f"SciPy on {BLAS}")


def poisson_2d(m, reps):
    a = poisson(m)
    b = np.ones(m * m)

    def ours():
        with km.SparseSolver(a, "spd") as s:
            s.factor()
            return s.solve(b)

    def scipy_lu():
        return spl.splu(sp.csc_matrix(a)).solve(b)

    x = ours()
    assert np.linalg.norm(a @ x - b) < 1e-8 * np.linalg.norm(b)
    t_ours = best(ours, reps)
    report(f"2-D Poisson {m}^2 factor + solve", t_ours, best(scipy_lu, reps), "splu + solve",
           f"SciPy on {BLAS} (SuperLU)")
    report(f"2-D Poisson {m}^2 factor + solve", t_ours,
           best(lambda: spl.spsolve(sp.csc_matrix(a), b), reps), "spsolve", f"SciPy on {BLAS}")


def two_threads(n, reps):
    bw = 3
    problems = [band_matrix(n, bw) for _ in range(2)]
    rhs = np.linspace(1, 2, n)

    def work(ab):
        u, _ = km.band_cholesky(ab, 1e-14)
        for _ in range(4):
            km.band_cholesky_solve(u, rhs)

    def sequential():
        for ab in problems:
            work(ab)

    def threaded():
        threads = [threading.Thread(target=work, args=(ab,)) for ab in problems]
        for t in threads:
            t.start()
        for t in threads:
            t.join()

    report(f"two threads, band factor + 4 solves n={n} each", best(threaded, reps),
           best(sequential, reps), "one after the other", f"{os.cpu_count()} cores")
    a = poisson(int(np.sqrt(n / 4)))

    def sparse_work():
        with km.SparseSolver(a) as s:
            s.factor()
            s.solve(np.ones(a.shape[0]))

    def sparse_threaded():
        threads = [threading.Thread(target=sparse_work) for _ in range(2)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()

    report(f"two threads, SparseSolver n={a.shape[0]} each", best(sparse_threaded, reps),
           best(lambda: (sparse_work(), sparse_work()), reps), "one after the other",
           f"{os.cpu_count()} cores")


def rss_growth(count=1000):
    a = poisson(20)
    with open("/proc/self/statm") as f:
        before = int(f.read().split()[1])
    for _ in range(count):
        s = km.SparseSolver(a)
        s.factor()
        s.solve(np.ones(400))
        del s
    with open("/proc/self/statm") as f:
        after = int(f.read().split()[1])
    growth = (after - before) * os.sysconf("SC_PAGE_SIZE") / 1024
    print(f"{count} SparseSolver objects made, factored and dropped: resident memory "
          f"{growth:+.0f} KiB")
    results.append(dict(case=f"{count} solvers, RSS growth KiB", value=growth))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--quick", action="store_true", help="small sizes, few repetitions")
    parser.add_argument("--out", default="build/bench/python.json")
    args = parser.parse_args()
    q = args.quick
    print(f"kelmatrix {km.__version__}, NumPy {np.__version__}; library threads "
          f"{km.establish_numthreads(0)}; SciPy's BLAS: {BLAS}")
    overhead(100, 200 if q else 5000)
    overhead(100_000, 5 if q else 40)
    periodic_spline(10_000 if q else 100_000, 2 if q else 5)
    tensor_interpolation(200 if q else 1000, 2 if q else 5)
    poisson_2d(150 if q else 1000, 1 if q else 2)
    two_threads(200_000 if q else 2_000_000, 2 if q else 5)
    rss_growth(100 if q else 1000)
    os.makedirs(os.path.dirname(args.out), exist_ok=True)
    with open(args.out, "w") as f:
        json.dump(dict(scipy_blas=BLAS, results=results), f, indent=1)


BLAS = blas_in_use()

if __name__ == "__main__":
    main()
