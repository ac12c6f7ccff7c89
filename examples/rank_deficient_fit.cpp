// A rank-deficient fit: a quadratic model written with redundant parameters.
//
// The data y(x) = 1 + 2x - x^2/2 + 0.01 sin(7x) at m points of [0, 1] are fitted with five
// basis functions 1, x, x^2, 1 - x and 2x^2 + 3, of which only three are independent. Two
// routes handle the redundancy:
//  - the normal equations N c = A^T y factored by Cholesky_factor with a relative tolerance:
//    the dependent parameters' pivots are dropped, the returned count is the rank, and the
//    dropped parameters come out as 0;
//  - MinNormLeastSquares (rank-revealing QR): the rank and the minimum-norm coefficients.
// Both must give the best fit of the three-parameter model (computed independently with
// SolveLS), and the minimum-norm coefficients must be orthogonal to the null space.
//
//   rank_deficient_fit [m]     (default m = 50 points)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kelmatrix/kelmatrix.h>

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

double basis(int k, double x)
{
    switch (k) {
    case 0:
        return 1.0;
    case 1:
        return x;
    case 2:
        return x * x;
    case 3:
        return 1.0 - x;
    default:
        return 2.0 * x * x + 3.0;
    }
}

// Largest difference between the fitted values of coefficients c (over `cols` basis functions)
// and the reference fit.
double fit_difference(const KelMatrix& c, int cols, const std::vector<double>& xs,
                      const std::vector<double>& ref)
{
    double d = 0.0;
    for (std::size_t i = 0; i < xs.size(); ++i) {
        double s = 0.0;
        for (int k = 0; k < cols; ++k)
            s += c(k, 0) * basis(k, xs[i]);
        d = std::max(d, std::fabs(s - ref[i]));
    }
    return d;
}

void print_coefficients(const char* what, const KelMatrix& c, int cols)
{
    std::printf("  %-34s", what);
    for (int k = 0; k < cols; ++k)
        std::printf(" %+.6f", c(k, 0));
    std::printf("\n");
}

} // namespace

int main(int argc, char** argv)
{
    const int m = argc > 1 ? std::atoi(argv[1]) : 50;
    if (m < 3) {
        std::fprintf(stderr, "usage: rank_deficient_fit [m >= 3]\n");
        return 2;
    }
    const int p = 5;
    std::vector<double> xs(m);
    KelMatrix A, y;
    A.Dimension(m, p, -1, -1);
    y.Dimension(m, 1, -1, -1);
    for (int i = 0; i < m; ++i) {
        xs[i] = static_cast<double>(i) / (m - 1);
        for (int k = 0; k < p; ++k)
            A(i, k) = basis(k, xs[i]);
        y(i, 0) = 1.0 + 2.0 * xs[i] - 0.5 * xs[i] * xs[i] + 0.01 * std::sin(7.0 * xs[i]);
    }
    std::printf("rank_deficient_fit: %d points, basis 1, x, x^2, 1 - x, 2x^2 + 3 (rank 3 of 5)\n",
                m);

    // Reference: the full-rank three-parameter model by dgels.
    KelMatrix A3, c3;
    A3.Dimension(m, 3, -1, -1);
    for (int i = 0; i < m; ++i)
        for (int k = 0; k < 3; ++k)
            A3(i, k) = A(i, k);
    c3.Dimension(3, 1, -1, -1);
    if (!SolveLS(A3, y, c3)) {
        std::printf("  FAILED: reference least-squares solve\n");
        return 1;
    }
    std::vector<double> ref(m);
    for (int i = 0; i < m; ++i)
        ref[i] = c3(0, 0) + c3(1, 0) * xs[i] + c3(2, 0) * xs[i] * xs[i];

    // Route 1: normal equations with dropped pivots. The tolerance is on the squared pivot,
    // relative to the largest diagonal entry of N.
    auto t0 = std::chrono::steady_clock::now();
    KelMatrix N, rhs;
    Product(A, A, true, false, N);
    Product(A, y, true, false, rhs);
    double dmax = 0.0;
    for (int k = 0; k < p; ++k)
        dmax = std::max(dmax, N(k, k));
    // The naive route: LAPACK's Cholesky (dpotrf) on the same semi-definite matrix.
    KelMatrix Nlapack;
    Nlapack = N;
    const int info = spdMatrixCholeskyFactorization(Nlapack, 1);
    double worst_pivot = INFINITY;
    for (int k = 0; k < p && info == 0; ++k)
        worst_pivot = std::min(worst_pivot, Nlapack(k, k) * Nlapack(k, k) / dmax);
    const int rank_chol = Cholesky_factor(N, 0, 1e-10 * dmax);
    Cholesky_subst(N, 0, rhs);
    const double t_chol = seconds_since(t0);
    int dropped = 0;
    for (int k = 0; k < p; ++k)
        dropped += N(k, k) == -1.0;

    // Route 2: minimum-norm least squares with column pivoting.
    t0 = std::chrono::steady_clock::now();
    KelMatrix Aw, yw, cmin;
    Aw = A;
    yw = y;
    std::vector<int> jpvt(p, 0);
    int rank_qr = -1;
    const bool ok_qr = MinNormLeastSquares(Aw, yw, jpvt.data(), 1e-10, rank_qr, cmin);
    const double t_qr = seconds_since(t0);

    if (info != 0)
        std::printf(
            "  naive dpotrf on the normal equations: fails, info = %d (not positive definite)\n",
            info);
    else
        std::printf("  naive dpotrf on the normal equations: accepts a pivot of relative size %.1e "
                    "(pure rounding)\n",
                    worst_pivot);
    print_coefficients("reference (1, x, x^2 only):", c3, 3);
    print_coefficients("Cholesky_factor, dropped pivots:", rhs, p);
    print_coefficients("MinNormLeastSquares:", cmin, p);
    std::printf(
        "  rank: Cholesky_factor %d (%d pivots dropped, %.6f s), MinNormLeastSquares %d (%.6f s)\n",
        rank_chol, dropped, t_chol, rank_qr, t_qr);

    const double d_chol = fit_difference(rhs, p, xs, ref);
    const double d_qr = ok_qr ? fit_difference(cmin, p, xs, ref) : INFINITY;
    // Null space of A: col0 - col1 - col3 = 0 and 3 col0 + 2 col2 - col4 = 0.
    const double null1 = cmin(0, 0) - cmin(1, 0) - cmin(3, 0);
    const double null2 = 3.0 * cmin(0, 0) + 2.0 * cmin(2, 0) - cmin(4, 0);
    const double fit_bound = 1e-8, null_bound = 1e-10;
    std::printf("  max |fit - reference fit|: %.2e (Cholesky), %.2e (min-norm); bound %.0e\n",
                d_chol, d_qr, fit_bound);
    std::printf("  min-norm coefficients against the null space: %.2e, %.2e; bound %.0e\n", null1,
                null2, null_bound);
    const bool pass = rank_chol == 3 && rank_qr == 3 && d_chol <= fit_bound && d_qr <= fit_bound &&
                      std::fabs(null1) <= null_bound && std::fabs(null2) <= null_bound;
    return pass ? 0 : 1;
}
