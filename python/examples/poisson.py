"""A 2-D Poisson solution with its error: -Laplace(u) = f on the unit square, u = 0 on the
boundary, five-point differences on a 300 x 300 interior grid, solved by SparseSolver
(PARDISO) from a scipy.sparse matrix. The exact solution is sin(pi x) sin(pi y), so the error
is the discretization's, O(h^2). Saves poisson.png and exits non-zero when the error exceeds
the second-order bound."""

import sys

import matplotlib
import numpy as np
import scipy.sparse as sp

import kelmatrix as km

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def main(out):
    m = 300
    h = 1.0 / (m + 1)
    t = sp.diags([-1.0, 2.0, -1.0], [-1, 0, 1], shape=(m, m)) / h ** 2
    a = sp.csr_matrix(sp.kron(sp.eye(m), t) + sp.kron(t, sp.eye(m)))
    g = np.linspace(h, 1 - h, m)
    exact = np.outer(np.sin(np.pi * g), np.sin(np.pi * g))
    f = 2 * np.pi ** 2 * exact
    with km.SparseSolver(a, "spd") as solver:
        solver.factor()
        u = solver.solve(f.reshape(-1)).reshape(m, m)
        d = solver.diagnostics()
    err = np.abs(u - exact).max()
    bound = np.pi ** 2 * h ** 2 / 6          # leading term of the five-point truncation error
    print(f"poisson: {m * m} unknowns, factor memory {d.peak_factor_memory_kb} KiB, "
          f"max error {err:.2e} (second-order bound {bound:.2e})")
    fig, axes = plt.subplots(1, 2, figsize=(10, 4))
    for ax, data, title in zip(axes, (u, u - exact), ("solution u", "error u - exact")):
        im = ax.imshow(data.T, origin="lower", extent=(0, 1, 0, 1), cmap="magma")
        ax.set_title(title)
        fig.colorbar(im, ax=ax, shrink=0.85)
    fig.suptitle("2-D Poisson problem: SparseSolver (PARDISO)")
    fig.savefig(f"{out}/poisson.png", dpi=100)
    return 0 if err < bound else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "."))
