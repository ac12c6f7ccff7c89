// KELMATRIX band Cholesky with dropped pivots
// In-place A = U^T U over the upper band, and the substitutions that solve with U.
//
// Written without LAPACK and against the element accessor, so one routine serves dense, band
// and user-derived storage; only A(i, j) with i <= j <= i + bw is touched. A pivot d below the
// tolerance is dropped (diagonal -1.0, row not formed) and its unknown solves to 0, so the
// factorization never fails and returns the numerical rank. Loop directions and the order of
// every subtraction are fixed: results are reproducible bit for bit. The three diagonal tests
// differ on purpose (factor: > 0 contributes; forward: >= 0 solves; backward: > 0 solves).
// Each routine first asks direct_route.h whether its matrices may be addressed directly; if
// so the kernels of factor_kernels.cpp / substitution_body.h compute the same bits from
// strided views, otherwise the loops below run through the accessor. Nothing is allocated.
#include <algorithm>
#include <cmath>

#include "band/band_checks.h"
#include "band/band_substitution.h"
#include "band/direct_kernels.h"
#include "kelmatrix/band.h"

namespace kelmatrix {
namespace internal {

int resolve_band_width(const KelGenericMatrix& A, int bandWidth)
{
    if (bandWidth < 1)
        bandWidth = A.GetUpperBandWidth();
    if (bandWidth < 1) // -1 after default construction, 0 for a diagonal-only band
        bandWidth = A.GetRowDim();
    return bandWidth;
}

void forward_substitute(KelGenericMatrix& U, int bw, KelGenericMatrix& B, int off, int c_begin,
                        int c_end)
{
    const int n = U.GetRowDim();
    bw = std::min(bw, n); // the loops clamp at 0 and n - 1: wider changes nothing
    StridedView u, b;
    if (direct_substitution(U, bw, B, off, c_end, u, b))
        return forward_kernel(u, n, bw, b, off, c_begin, c_end);

    for (int c = c_begin; c < c_end; ++c)
        for (int i = 0; i < n; ++i) {
            const double d = U(i, i);
            if (!(d < 0.0)) { // zero included (divides by it), and NaN too; only dropped give 0
                double s = B(i + off, c);
                for (int k = i - 1; k >= std::max(0, i - bw); --k)
                    if (U(k, k) >= 0.0) // zero included, NaN excluded
                        s -= U(k, i) * B(k + off, c);
                B(i + off, c) = s / U(i, i);
            } else {
                B(i + off, c) = 0.0;
            }
        }
}

void backward_substitute(KelGenericMatrix& U, int bw, KelGenericMatrix& B, int off, int c_begin,
                         int c_end)
{
    const int n = U.GetRowDim();
    bw = std::min(bw, n);
    StridedView u, b;
    if (direct_substitution(U, bw, B, off, c_end, u, b))
        return backward_kernel(u, n, bw, b, off, c_begin, c_end);

    for (int c = c_begin; c < c_end; ++c)
        for (int i = n - 1; i >= 0; --i) {
            const double d = U(i, i);
            if (!(d <= 0.0)) { // strictly positive, and NaN too; zero and dropped give 0
                double s = B(i + off, c);
                for (int k = i + 1; k <= std::min(n - 1, i + bw); ++k)
                    if (U(k, k) >= 0.0) // zero included, NaN excluded
                        s -= U(i, k) * B(k + off, c);
                B(i + off, c) = s / U(i, i);
            } else {
                B(i + off, c) = 0.0;
            }
        }
}

} // namespace internal
} // namespace kelmatrix

using namespace kelmatrix::internal;

int Cholesky_factor(KelGenericMatrix& A, int bandWidth, double tol)
{
    KELMATRIX_CHECK(band_cholesky("Cholesky_factor", A, bandWidth, nullptr));
    const int n = A.GetRowDim();
    const int bw = std::min(resolve_band_width(A, bandWidth), n); // wider changes nothing
    StridedView a;
    if (direct_factor(A, bw, a))
        return factor_kernel(a, n, bw, tol);

    int count = 0;
    for (int i = 0; i < n; ++i) {
        double d = A(i, i);
        for (int k = std::max(0, i - bw); k < i; ++k)
            if (A(k, k) > 0.0) // strict: dropped (-1) and zero pivots do not contribute
                d -= A(k, i) * A(k, i);
        if (d < tol) { // dropped pivot; d == tol and NaN are accepted
            A(i, i) = -1.0;
            continue;
        }
        ++count;
        A(i, i) = std::sqrt(d);
        for (int j = i + 1; j <= std::min(n - 1, i + bw); ++j) {
            double s = A(i, j);
            for (int k = std::max(0, j - bw); k < i; ++k)
                if (A(k, k) > 0.0) // strict, as above
                    s -= A(k, j) * A(k, i);
            A(i, j) = s / A(i, i);
        }
    }
    return count;
}

void Cholesky_subst(KelGenericMatrix& A, int bandWidth, KelMatrix& B)
{
    KELMATRIX_CHECK(band_cholesky("Cholesky_subst", A, bandWidth, &B));
    const int n = A.GetRowDim(), nrhs = B.GetColDim();
    const int bw = std::min(resolve_band_width(A, bandWidth), n);
    StridedView u, b;
    if (direct_substitution(A, bw, B, 0, nrhs, u, b)) {
        // The columns share no storage with each other or with A: each pass may take them all.
        forward_kernel(u, n, bw, b, 0, 0, nrhs);
        backward_kernel(u, n, bw, b, 0, 0, nrhs);
        return;
    }
    for (int c = 0; c < nrhs; ++c) { // each column completed, forward then backward, in turn
        forward_substitute(A, bw, B, 0, c, c + 1);
        backward_substitute(A, bw, B, 0, c, c + 1);
    }
}
