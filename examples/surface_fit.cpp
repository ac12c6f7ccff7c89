// Surface fitting on a tensor grid.
//
// A height field f(x, y) sampled on an nx x ny grid is fitted in the least-squares sense by a
// tensor-product cubic B-spline surface s(x, y) = sum_ab C(b, a) Nx_a(x) Ny_b(y). With the
// collocation matrices Bx (nx x p) and By (ny x q) the normal equations are
//     (Bx^T Bx) kron (By^T By) vec(C) = vec(By^T F Bx),
// the Kronecker product of two SPD band matrices (half-bandwidth 3). Solve_Kronecker solves it
// with two band solves; the same system assembled explicitly (p q unknowns) is solved with
// LSMsolver for comparison.
//
//   surface_fit [intervals]     (default 40 knot intervals per axis, 5 samples per interval)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kelmatrix/kelmatrix.h>

namespace {

const double kPi = 3.14159265358979323846;

double seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// The cardinal cubic B-spline, support [-2, 2].
double cubic_bspline(double t)
{
    t = std::fabs(t);
    if (t < 1.0)
        return 2.0 / 3.0 - t * t + 0.5 * t * t * t;
    if (t < 2.0)
        return (2.0 - t) * (2.0 - t) * (2.0 - t) / 6.0;
    return 0.0;
}

// Collocation matrix of the m + 3 uniform cubic B-splines centred at k/m, k = -1 .. m + 1, at
// n equally spaced samples of [0, 1]: row i, column k.
std::vector<double> collocation(int n, int m)
{
    const int p = m + 3;
    std::vector<double> B(static_cast<std::size_t>(n) * p, 0.0);
    for (int i = 0; i < n; ++i) {
        const double x = static_cast<double>(i) / (n - 1);
        for (int k = 0; k < p; ++k)
            B[static_cast<std::size_t>(k) * n + i] = cubic_bspline(x * m - (k - 1));
    }
    return B;
}

// Gram matrix B^T B (half-bandwidth 3) in upper band storage, as SolveBSP expects.
void gram_band(const std::vector<double>& B, int n, int p, KelMatrixBanded& G)
{
    G.Dimension(p, p, 0, 3);
    G.SetZero();
    for (int b = 0; b < p; ++b)
        for (int a = std::max(0, b - 3); a <= b; ++a) {
            double s = 0.0;
            for (int i = 0; i < n; ++i)
                s +=
                    B[static_cast<std::size_t>(a) * n + i] * B[static_cast<std::size_t>(b) * n + i];
            G(a, b) = s;
        }
}

double height(double x, double y)
{
    return std::sin(2.0 * kPi * x) * std::cos(kPi * y) +
           0.5 * std::exp(-4.0 * ((x - 0.3) * (x - 0.3) + (y - 0.6) * (y - 0.6)));
}

} // namespace

int main(int argc, char** argv)
{
    const int m = argc > 1 ? std::atoi(argv[1]) : 40;
    if (m < 2) {
        std::fprintf(stderr, "usage: surface_fit [intervals >= 2]\n");
        return 2;
    }
    const int nx = 5 * m + 1, ny = 5 * m + 1, p = m + 3, q = m + 3;
    std::printf(
        "surface_fit: %d x %d samples, bicubic B-spline surface with %d x %d = %d coefficients\n",
        nx, ny, p, q, p * q);

    std::vector<double> F(static_cast<std::size_t>(ny) * nx);
    for (int ix = 0; ix < nx; ++ix)
        for (int iy = 0; iy < ny; ++iy)
            F[static_cast<std::size_t>(ix) * ny + iy] =
                height(static_cast<double>(ix) / (nx - 1), static_cast<double>(iy) / (ny - 1));
    const std::vector<double> Bx = collocation(nx, m), By = collocation(ny, m);

    // Right-hand side R = By^T F Bx (q x p), one group of Solve_Kronecker's layout.
    std::vector<double> FBx(static_cast<std::size_t>(ny) * p, 0.0);
    for (int a = 0; a < p; ++a)
        for (int ix = 0; ix < nx; ++ix) {
            const double w = Bx[static_cast<std::size_t>(a) * nx + ix];
            if (w != 0.0)
                for (int iy = 0; iy < ny; ++iy)
                    FBx[static_cast<std::size_t>(a) * ny + iy] +=
                        F[static_cast<std::size_t>(ix) * ny + iy] * w;
        }
    KelMatrix R;
    R.Dimension(q, p, -1, -1);
    for (int a = 0; a < p; ++a)
        for (int b = 0; b < q; ++b) {
            double s = 0.0;
            for (int iy = 0; iy < ny; ++iy)
                s += By[static_cast<std::size_t>(b) * ny + iy] *
                     FBx[static_cast<std::size_t>(a) * ny + iy];
            R(b, a) = s;
        }

    KelMatrixBanded A, B; // A = Bx^T Bx (outer factor), B = By^T By (inner factor)
    gram_band(Bx, nx, p, A);
    gram_band(By, ny, q, B);

    // --- Kronecker route ---
    KelMatrix C;
    C = R;
    auto t0 = std::chrono::steady_clock::now();
    const bool ok_kron = Solve_Kronecker(A, B, C, true);
    const double t_kron = seconds_since(t0);

    // --- Naive route: assemble A kron B (upper triangle, CSR, 1-based) and use LSMsolver ---
    t0 = std::chrono::steady_clock::now();
    const int N = p * q;
    std::vector<int> ia(1, 1), ja;
    std::vector<double> va;
    for (int a = 0; a < p; ++a)
        for (int s = 0; s < q; ++s) { // row a q + s
            for (int b = a; b <= std::min(p - 1, a + 3); ++b)
                for (int t = (b == a ? s : std::max(0, s - 3)); t <= std::min(q - 1, s + 3); ++t) {
                    const double bst = s <= t ? B(s, t) : B(t, s);
                    ja.push_back(b * q + t + 1);
                    va.push_back(A(a, b) * bst);
                }
            ia.push_back(static_cast<int>(ja.size()) + 1);
        }
    const double t_assemble = seconds_since(t0);
    KelMatrix rhs, Csparse;
    rhs.Dimension(N, 1, -1, -1);
    Csparse.Dimension(N, 1, -1, -1);
    for (int k = 0; k < N; ++k)
        rhs.GetElements()[k] = R.GetElements()[k]; // column-major q x p is vec(R)
    LSMsolver::establish_numthreads(1);
    t0 = std::chrono::steady_clock::now();
    LSMsolver solver(N, ia.data(), ja.data(), va.data(), 1, 0,
                     LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE);
    const bool ok_sparse = solver.factor() && solver.solve(rhs, Csparse);
    const double t_sparse = seconds_since(t0);
    solver.clear();

    // --- Compare: coefficients, and the fit against the samples ---
    double cdiff = 0.0, cmax = 0.0;
    for (int k = 0; k < N; ++k) {
        cdiff = std::max(cdiff, std::fabs(C.GetElements()[k] - Csparse.GetElements()[k]));
        cmax = std::max(cmax, std::fabs(C.GetElements()[k]));
    }
    double fit_err = 0.0;
    for (int ix = 0; ix < nx; ++ix)
        for (int iy = 0; iy < ny; ++iy) {
            double s = 0.0;
            for (int a = std::max(0, ix * m / (nx - 1) - 1);
                 a <= std::min(p - 1, ix * m / (nx - 1) + 3); ++a)
                for (int b = std::max(0, iy * m / (ny - 1) - 1);
                     b <= std::min(q - 1, iy * m / (ny - 1) + 3); ++b)
                    s += C(b, a) * Bx[static_cast<std::size_t>(a) * nx + ix] *
                         By[static_cast<std::size_t>(b) * ny + iy];
            fit_err = std::max(fit_err, std::fabs(s - F[static_cast<std::size_t>(ix) * ny + iy]));
        }

    // Cubic spline approximation error (5/384) h^4 |f''''| per direction; |f''''| <= (2 pi)^4.
    const double h = 1.0 / m,
                 fit_bound = 2.0 * 5.0 / 384.0 * std::pow(h, 4) * std::pow(2.0 * kPi, 4);
    const double agree_bound = 1e-9;
    std::printf("  Solve_Kronecker (two band solves, %d and %d unknowns): %9.5f s  %s\n", p, q,
                t_kron, ok_kron ? "ok" : "FAILED");
    std::printf("  LSMsolver on the assembled product (%d unknowns, %zu stored entries): %9.5f s "
                "(+%.4f s assembly)  %s\n",
                N, va.size(), t_sparse, t_assemble, ok_sparse ? "ok" : "FAILED");
    std::printf("  speed-up of the Kronecker route: %.0fx\n", t_sparse / std::max(t_kron, 1e-9));
    std::printf("  max |C_kron - C_sparse| / max |C| = %.2e (bound %.0e)\n", cdiff / cmax,
                agree_bound);
    std::printf("  max fit error at the samples     = %.2e (bound %.1e, O(h^4) with h = 1/%d)\n",
                fit_err, fit_bound, m);
    const bool pass = ok_kron && ok_sparse && cdiff / cmax <= agree_bound && fit_err <= fit_bound;
    return pass ? 0 : 1;
}
