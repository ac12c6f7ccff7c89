"""A tensor-product surface fit against its data: cubic B-splines on a 300 x 200 grid.

The least-squares normal equations of a tensor-product fit are (Bx^T Bx) kron (By^T By): two
small SPD band matrices. band_cholesky factors each, and kron_cholesky_solve solves with their
Kronecker product without ever forming it. Saves surface_fit.png and exits non-zero when the
fit misses the noise-free surface by more than the noise level."""

import sys

import matplotlib
import numpy as np
from scipy.interpolate import BSpline

import kelmatrix as km

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def upper_band(a, bw):
    ab = np.zeros((bw + 1, a.shape[0]))
    for k in range(bw + 1):
        ab[bw - k, k:] = np.diag(a, k)
    return ab


def knots(lo, hi, pieces, k=3):
    return np.r_[[lo] * k, np.linspace(lo, hi, pieces + 1), [hi] * k]


def main(out):
    rng = np.random.default_rng(11)
    x, y = np.linspace(0, 1, 300), np.linspace(0, 1, 200)
    truth = np.sin(4 * x)[:, None] * np.cos(3 * y)[None, :] + np.exp(-((x[:, None] - 0.6) ** 2 +
                                                                       (y[None, :] - 0.4) ** 2) * 20)
    sigma = 0.05
    z = truth + sigma * rng.standard_normal(truth.shape)
    bx = BSpline.design_matrix(x, knots(0, 1, 20), 3).toarray()
    by = BSpline.design_matrix(y, knots(0, 1, 14), 3).toarray()
    ux, rx = km.band_cholesky(upper_band(bx.T @ bx, 3), 1e-14)
    uy, ry = km.band_cholesky(upper_band(by.T @ by, 3), 1e-14)
    rhs = bx.T @ z @ by                      # block i of the vector is row i: C order
    coef = km.kron_cholesky_solve(ux, uy, rhs.reshape(-1)).reshape(rhs.shape)
    fit = bx @ coef @ by.T
    err = np.sqrt(np.mean((fit - truth) ** 2))
    print(f"surface fit: {z.shape[0]} x {z.shape[1]} grid, {coef.shape[0]} x {coef.shape[1]} "
          f"coefficients (ranks {rx}, {ry}), rms error against the noise-free surface "
          f"{err:.4f} (noise {sigma})")
    fig, axes = plt.subplots(1, 3, figsize=(13, 4))
    for ax, data, title in zip(axes, (z, fit, fit - truth),
                               ("noisy data", "tensor-product LSQ fit", "fit - true surface")):
        im = ax.imshow(data.T, origin="lower", extent=(0, 1, 0, 1), cmap="viridis")
        ax.set_title(title)
        fig.colorbar(im, ax=ax, shrink=0.8)
    fig.suptitle("Surface fit: band Cholesky + Kronecker substitutions")
    fig.savefig(f"{out}/surface_fit.png", dpi=100)
    return 0 if err < sigma and rx == coef.shape[0] and ry == coef.shape[1] else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "."))
