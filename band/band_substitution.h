// KELMATRIX band substitution (internal)
// The forward and backward passes of the library's band Cholesky, on a row range of B.
//
// Shared by the band, cyclic and Kronecker solvers and not exported. Both solve in place in
// rows rowOffset .. rowOffset + n - 1 of B (n = U.rows); column >= 0 selects that column, a
// negative column every column in ascending order. bandWidth <= 0 resolves as in
// Cholesky_factor. Unknowns of dropped pivots (negative diagonal) solve to 0.
//
// The loops below are the algorithms in their fixed order, written once over any element
// access: the virtual accessor (the generic route) or a direct replica of it (band/
// direct_access.h). The entry points pick the fastest exact route from the matrices' types.
// Products are written mul(a, b) so that even NaN results are the same on every route
// (band/ordered_ops.h).
#ifndef KELMATRIX_BAND_SUBSTITUTION_H
#define KELMATRIX_BAND_SUBSTITUTION_H

#include <algorithm>
#include <cmath>

#include "band/ordered_ops.h"
#include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace internal {

/// bandWidth < 1: the matrix's upper band width, and if that is < 1 too, its order.
int resolve_band_width(const KelGenericMatrix& A, int bandWidth);

/// Cholesky_factor's loops on the first n rows of A, bw resolved.
template <class M> int factor_in_order(M& A, int n, int bw, double tol)
{
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
                    s -= mul(A(k, j), A(k, i));
            A(i, j) = s / A(i, i);
        }
    }
    return count;
}

/// U^T y = b in column c of B, rows off .. off + n - 1, bw resolved.
template <class U, class B> void forward_in_order(U& u, int n, int bw, B& b, int off, int c)
{
    for (int i = 0; i < n; ++i) {
        const double d = u(i, i);
        if (!(d < 0.0)) { // zero included (divides by it), and NaN too; only dropped give 0
            double s = b(i + off, c);
            for (int k = i - 1; k >= std::max(0, i - bw); --k)
                if (u(k, k) >= 0.0) // zero included, NaN excluded
                    s -= mul(u(k, i), b(k + off, c));
            b(i + off, c) = s / u(i, i);
        } else {
            b(i + off, c) = 0.0;
        }
    }
}

/// U x = y in column c of B, rows off .. off + n - 1, bw resolved.
template <class U, class B> void backward_in_order(U& u, int n, int bw, B& b, int off, int c)
{
    for (int i = n - 1; i >= 0; --i) {
        const double d = u(i, i);
        if (!(d <= 0.0)) { // strictly positive, and NaN too; zero and dropped give 0
            double s = b(i + off, c);
            const int k_end = std::min(n - 1, i + bw);
            for (int k = i + 1; k <= k_end; ++k)
                if (u(k, k) >= 0.0) // zero included, NaN excluded
                    s -= mul(u(i, k), b(k + off, c));
            b(i + off, c) = s / u(i, i);
        } else {
            b(i + off, c) = 0.0;
        }
    }
}

/// Cholesky_factor of the first n rows of A with bw resolved, by the fastest exact route.
int factor_band(KelGenericMatrix& A, int n, int bw, double tol);

/// The forward / backward pass over columns [c_begin, c_end) of B with the first n rows of U
/// and bw resolved, by the fastest exact route (columns walked together where they may be).
void forward_columns(KelGenericMatrix& U, int n, int bw, int rowOffset, int c_begin, int c_end,
                     KelGenericMatrix& B);
void backward_columns(KelGenericMatrix& U, int n, int bw, int rowOffset, int c_begin, int c_end,
                      KelGenericMatrix& B);

/// True when the passes over columns [c_begin, c_end) of B may be walked together, stage by
/// stage, without changing a bit: both matrices are the library's types, B's columns and U's
/// band share no address and B's selected columns lie on one side of its mirroring.
bool columns_walk_together(KelGenericMatrix& U, int n, int bw, int rowOffset, int c_begin,
                           int c_end, KelGenericMatrix& B);

} // namespace internal
} // namespace kelmatrix

/// Solves U^T y = b in place in B. A negative diagonal (dropped pivot) gives 0; a zero one is
/// divided by.
void Cholesky_forward_subst(KelGenericMatrix& U, int rowOffset, int column, int bandWidth,
                            KelGenericMatrix& B);
/// Solves U x = y in place in B. A diagonal <= 0 gives 0.
void Cholesky_backward_subst(KelGenericMatrix& U, int rowOffset, int column, int bandWidth,
                             KelGenericMatrix& B);

#endif
