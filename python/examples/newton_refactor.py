"""A Newton loop with refactorization: -Laplace(u) + u^3 = f on the unit square.

The Jacobian A + diag(3 u^2) keeps the pattern of the Laplacian, so the solver analyses the
pattern once (factor) and each later Newton step only refactorizes the new values
(refactor, PARDISO phase 22). f is made from a known discrete solution, so Newton must reach it
to rounding. Saves newton_refactor.png and exits non-zero when it does not converge."""

import sys

import matplotlib
import numpy as np
import scipy.sparse as sp

import kelmatrix as km

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def main(out):
    m = 120
    h = 1.0 / (m + 1)
    t = sp.diags([-1.0, 2.0, -1.0], [-1, 0, 1], shape=(m, m)) / h ** 2
    lap = sp.csr_matrix(sp.kron(sp.eye(m), t) + sp.kron(t, sp.eye(m)))
    g = np.linspace(h, 1 - h, m)
    target = (8 * np.outer(np.sin(np.pi * g), np.sin(2 * np.pi * g))).reshape(-1)
    f = lap @ target + target ** 3
    u = np.zeros_like(f)
    history = []
    solver = None
    for step in range(20):
        residual = lap @ u + u ** 3 - f
        history.append(np.linalg.norm(residual) / np.linalg.norm(f))
        if history[-1] < 1e-12:
            break
        jacobian = (lap + sp.diags(3 * u ** 2)).tocsr()
        if solver is None:
            solver = km.SparseSolver(jacobian, "spd")
            solver.factor()                  # analysis + factorization, once
        else:
            solver.refactor(jacobian)         # same pattern: numeric factorization only
        u -= solver.solve(residual)
    solver.close()
    err = np.abs(u - target).max()
    print(f"newton: {len(history) - 1} steps, relative residuals "
          + " ".join(f"{r:.1e}" for r in history) + f"; max error {err:.1e}")
    fig, axes = plt.subplots(1, 2, figsize=(10, 4))
    axes[0].semilogy(history, "o-")
    axes[0].set_xlabel("Newton step")
    axes[0].set_ylabel("relative residual")
    axes[0].set_title("convergence (refactor each step)")
    im = axes[1].imshow(u.reshape(m, m).T, origin="lower", extent=(0, 1, 0, 1), cmap="coolwarm")
    axes[1].set_title("solution u")
    fig.colorbar(im, ax=axes[1], shrink=0.85)
    fig.savefig(f"{out}/newton_refactor.png", dpi=100)
    return 0 if history[-1] < 1e-12 and err < 1e-10 * np.abs(target).max() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "."))
