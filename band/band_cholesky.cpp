// KELMATRIX band Cholesky with dropped pivots
// In-place A = U^T U over the upper band, and the substitutions that solve with U.
//
// Written without LAPACK and against the virtual element accessor, so one routine serves dense,
// band and user-derived storage; only A(i, j) with i <= j <= i + bw is touched. A pivot d below
// the tolerance is dropped (diagonal -1.0, row not formed) and its unknown solves to 0, so the
// factorization never fails and returns the numerical rank. Loop directions and the order of
// every subtraction are fixed: results are reproducible bit for bit. The three diagonal tests
// differ on purpose (factor: > 0 contributes; forward: >= 0 solves; backward: > 0 solves).
#include <algorithm>
#include <cmath>

#include "band/band_substitution.h"
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

} // namespace internal
} // namespace kelmatrix

using kelmatrix::internal::resolve_band_width;

int Cholesky_factor(KelGenericMatrix& A, int bandWidth, double tol)
{
    const int n = A.GetRowDim();
    const int bw = resolve_band_width(A, bandWidth);
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
        const int j_end = std::min(n - 1, i + bw);
        for (int j = i + 1; j <= j_end; ++j) {
            double s = A(i, j);
            for (int k = std::max(0, j - bw); k < i; ++k)
                if (A(k, k) > 0.0) // strict, as above
                    s -= A(k, j) * A(k, i);
            A(i, j) = s / A(i, i);
        }
    }
    return count;
}

void Cholesky_forward_subst(KelGenericMatrix& U, int rowOffset, int column, int bandWidth,
                            KelGenericMatrix& B)
{
    const int n = U.GetRowDim();
    const int bw = resolve_band_width(U, bandWidth);
    const int c_begin = column < 0 ? 0 : column;
    const int c_end = column < 0 ? B.GetColDim() : column + 1;
    for (int c = c_begin; c < c_end; ++c) {
        for (int i = 0; i < n; ++i) {
            const double d = U(i, i);
            if (!(d < 0.0)) { // zero included (divides by it), and NaN too; only dropped give 0
                double s = B(i + rowOffset, c);
                for (int k = i - 1; k >= std::max(0, i - bw); --k)
                    if (U(k, k) >= 0.0) // zero included, NaN excluded
                        s -= U(k, i) * B(k + rowOffset, c);
                B(i + rowOffset, c) = s / U(i, i);
            } else {
                B(i + rowOffset, c) = 0.0;
            }
        }
    }
}

void Cholesky_backward_subst(KelGenericMatrix& U, int rowOffset, int column, int bandWidth,
                             KelGenericMatrix& B)
{
    const int n = U.GetRowDim();
    const int bw = resolve_band_width(U, bandWidth);
    const int c_begin = column < 0 ? 0 : column;
    const int c_end = column < 0 ? B.GetColDim() : column + 1;
    for (int c = c_begin; c < c_end; ++c) {
        for (int i = n - 1; i >= 0; --i) {
            const double d = U(i, i);
            if (!(d <= 0.0)) { // strictly positive, and NaN too; zero and dropped give 0
                double s = B(i + rowOffset, c);
                const int k_end = std::min(n - 1, i + bw);
                for (int k = i + 1; k <= k_end; ++k)
                    if (U(k, k) >= 0.0) // zero included, NaN excluded
                        s -= U(i, k) * B(k + rowOffset, c);
                B(i + rowOffset, c) = s / U(i, i);
            } else {
                B(i + rowOffset, c) = 0.0;
            }
        }
    }
}

void Cholesky_subst(KelGenericMatrix& A, int bandWidth, KelMatrix& B)
{
    // Each column is completed, forward then backward, before the next is begun.
    for (int c = 0; c < B.GetColDim(); ++c) {
        Cholesky_forward_subst(A, 0, c, bandWidth, B);
        Cholesky_backward_subst(A, 0, c, bandWidth, B);
    }
}
