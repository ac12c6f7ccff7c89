// A closed curve: periodic cubic spline interpolation of points on an ellipse.
//
// Through N points P_i = (a cos t_i, b sin t_i), t_i = 2 pi i / N, the periodic cubic spline's
// second derivatives M solve the cyclic system
//     M_{i-1} + 4 M_i + M_{i+1} = 6 (P_{i+1} - 2 P_i + P_{i-1}) / h^2,   indices mod N,
// a tridiagonal band whose corner entries wrap around. With the last unknown ordered last it is
// a band block of order N - 1 plus a border of one: solved once with SolveBSP_Cyclic (LAPACK
// band Cholesky + Schur complement, on a dense N x N matrix) and once with the library's own
// cyclic_Cholesky_factor / cyclic_Cholesky_subst on a KelMatrixBordered, which stores only the
// band, the border column and the corner: 3 N doubles instead of N^2. The spline is evaluated
// half-way between the points and compared with the true ellipse; the periodic cubic spline error
// bound is (5/384) h^4 max|f''''|.
//
//   closed_curve [N]     (default N = 200 points)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <kelmatrix/kelmatrix.h>

namespace {

const double kPi = 3.14159265358979323846;

double seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Largest coordinate error of the spline with second derivatives M at the interval midpoints.
double midpoint_error(const KelMatrix& P, const KelMatrix& M, double h, double a, double b)
{
    const int n = P.GetRowDim();
    double err = 0.0;
    for (int i = 0; i < n; ++i) {
        const int j = (i + 1) % n;
        const double t = (i + 0.5) * h;
        const double truth[2] = {a * std::cos(t), b * std::sin(t)};
        for (int c = 0; c < 2; ++c) {
            // S(t_i + h/2) = (P_i + P_j) / 2 - h^2 (M_i + M_j) / 16
            const double s = 0.5 * (P(i, c) + P(j, c)) - h * h * (M(i, c) + M(j, c)) / 16.0;
            err = std::max(err, std::fabs(s - truth[c]));
        }
    }
    return err;
}

} // namespace

int main(int argc, char** argv)
{
    const int n = argc > 1 ? std::atoi(argv[1]) : 200;
    if (n < 4) {
        std::fprintf(stderr, "usage: closed_curve [N >= 4]\n");
        return 2;
    }
    const double a = 3.0, b = 1.0, h = 2.0 * kPi / n;

    KelMatrix P, rhs, A;
    P.Dimension(n, 2, -1, -1);
    rhs.Dimension(n, 2, -1, -1);
    for (int i = 0; i < n; ++i) {
        P(i, 0) = a * std::cos(i * h);
        P(i, 1) = b * std::sin(i * h);
    }
    for (int i = 0; i < n; ++i)
        for (int c = 0; c < 2; ++c)
            rhs(i, c) = 6.0 * (P((i + 1) % n, c) - 2.0 * P(i, c) + P((i + n - 1) % n, c)) / (h * h);

    // Upper triangle of the cyclic matrix: band block 0 .. N-2 (half-bandwidth 1), border column
    // N-1.
    A.Dimension(n, n, -1, -1);
    A.SetZero();
    for (int i = 0; i < n; ++i) {
        A(i, i) = 4.0;
        if (i + 1 < n)
            A(i, i + 1) = 1.0;
    }
    A(0, n - 1) = 1.0; // the wrap-around coupling lies in the border

    std::printf("closed_curve: periodic cubic spline through %d points of the ellipse x^2/%g + "
                "y^2/%g = 1\n",
                n, a * a, b * b);

    KelMatrix M1;
    auto t0 = std::chrono::steady_clock::now();
    const bool ok = SolveBSP_Cyclic(A, rhs, n - 1, 3, M1); // band width 3: half-bandwidth 1
    const double t_driver = seconds_since(t0);

    // The same system in bordered storage: the pattern only, written through the accessor.
    KelMatrixBordered F;
    if (F.DimensionBordered(n, 1, 1) != KEL_BORDERED_OK)
        return 1;
    for (int i = 0; i < n; ++i) {
        F(i, i) = 4.0;
        F(i, (i + 1) % n) = 1.0; // (n-1, 0) mirrors to (0, n-1), in the border
    }
    KelMatrix M2;
    M2 = rhs;
    t0 = std::chrono::steady_clock::now();
    const int schur_rank = cyclic_Cholesky_factor(F, 1, 1, 1e-12);
    cyclic_Cholesky_subst(F, 1, 1, M2);
    const double t_native = seconds_since(t0);

    // The naive route: the full N x N matrix (both triangles) by dense LU.
    KelMatrix Full, M3;
    Full.Dimension(n, n, -1, -1);
    Full.SetZero();
    for (int i = 0; i < n; ++i) {
        Full(i, i) = 4.0;
        Full(i, (i + 1) % n) = Full((i + 1) % n, i) = 1.0;
    }
    t0 = std::chrono::steady_clock::now();
    const bool ok_dense = Solve(Full, rhs, M3);
    const double t_dense = seconds_since(t0);

    const double e1 = ok ? midpoint_error(P, M1, h, a, b) : INFINITY;
    const double e2 = midpoint_error(P, M2, h, a, b);
    double agree = 0.0;
    for (int i = 0; i < n && ok; ++i)
        for (int c = 0; c < 2; ++c)
            agree = std::max({agree, std::fabs(M1(i, c) - M2(i, c)) / a,
                              ok_dense ? std::fabs(M3(i, c) - M2(i, c)) / a : INFINITY});
    const double bound = 5.0 / 384.0 * std::pow(h, 4) * std::max(a, b) + 1e-13;

    std::printf("  SolveBSP_Cyclic (LAPACK band + Schur complement): %8.5f s  %s\n", t_driver,
                ok ? "ok" : "FAILED");
    std::printf("  cyclic_Cholesky_factor + subst (bordered storage): %8.5f s  Schur rank %d of 1, "
                "%d doubles\n",
                t_native, schur_rank, F.GetStorageSize());
    std::printf("  naive dense LU (dgesv) on the full matrix:         %8.5f s  %s (%.0fx the "
                "native time)\n",
                t_dense, ok_dense ? "ok" : "FAILED", t_dense / std::max(t_native, 1e-9));
    std::printf("  max error against the true ellipse: %.3e (driver), %.3e (native); bound (5/384) "
                "h^4 max|f''''| = %.3e\n",
                e1, e2, bound);
    std::printf("  max difference between the three second-derivative solutions / a: %.2e\n",
                agree);
    return ok && schur_rank == 1 && e1 <= bound && e2 <= bound && agree <= 1e-12 ? 0 : 1;
}
