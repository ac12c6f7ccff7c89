// KELMATRIX cyclic band Cholesky
// Bordered block Cholesky: a band block of order nb = n - m, then an m x m dense Schur complement.
//
// A11 = U11^T U11 (band, width bw), W = U11^-T A12, S = A22 - W^T W = U22^T U22 (dense). The
// factor overwrites A's upper triangle in place (U11 in the band of A11, W in A12, U22 in A22);
// the lower triangle and A11 outside the band are never touched. Dropped pivots carry through:
// their W rows and unknowns are 0. The library's own storage types, when they hold the whole
// pattern, are factored and solved in place by cyclic_kernels.cpp (direct_route.h decides).
// Any other storage runs the steps below through its accessor, with two temporaries so that
// the band routines see exactly nb or m rows: the band block in band storage of the width
// they touch (O(nb bw) doubles, not nb^2) and the Schur complement as a dense m x m matrix;
// both are released on return. Deliberate: the returned count covers the Schur complement
// only; the band block's count is discarded.
#include <algorithm>

#include "band/band_checks.h"
#include "band/band_substitution.h"
#include "band/direct_kernels.h"
#include "kelmatrix/band.h"

using namespace kelmatrix::internal;

namespace {

// The width the band routines use on the band block: bw as given, or, for bw < 1, the block's
// order (its recorded upper band width, bw itself, is < 1 and resolves so).
int block_width(int bw, int nb)
{
    return bw >= 1 ? bw : nb;
}

// The band block's temporary, symmetric with the upper triangle stored and holding only the
// band the routines touch, with A11's band (i <= j <= i + bw) copied in. With bw >= 1 that is
// every element the routines read; with bw < 1 the band is the whole block (Deliberate: bw is
// used as given, so bw = 0 copies only the diagonal and bw < 0 nothing) and the rest reads as
// zero.
void make_band_block(KelMatrixBanded& T, KelGenericMatrix& A, int nb, int bw, int width)
{
    const int order = std::max(nb, 0);
    T.SetSymmetric(true);
    T.SetUsesUpper();
    T.Dimension(order, order, 0, std::max(0, std::min(width, order - 1)));
    if (bw < 1)
        T.SetZero();
    for (int i = 0; i < nb; ++i)
        for (int j = i; j <= std::min(nb - 1, i + bw); ++j)
            T(i, j) = A(i, j);
}

// The Schur complement's temporary: dense, symmetric, upper, order m, no band recorded, zeroed.
void make_corner_block(KelMatrix& S, int m)
{
    S.SetSymmetric(true);
    S.SetUsesUpper();
    S.Dimension(m, m, -1, -1);
    S.SetZero();
}

} // namespace

int cyclic_Cholesky_factor(KelGenericMatrix& A, int bandWidth, int m, double tol)
{
    KELMATRIX_CHECK(cyclic_cholesky("cyclic_Cholesky_factor", A, bandWidth, m, nullptr));
    const int n = A.GetRowDim(), nb = n - m;
    const int bw = bandWidth; // Deliberate: as given, not resolved (see make_band_block)
    BorderedViews a;
    if (direct_cyclic_factor(A, bw, m, a))
        return cyclic_factor_kernel(a, bw, tol);

    const int width = block_width(bw, nb);
    KelMatrixBanded T; // exactly the library's types, so that the band routines address them
    KelMatrix S;       // directly
    make_band_block(T, A, nb, bw, width);
    make_corner_block(S, m);
    Cholesky_factor(T, width, tol); // Deliberate: the band block's count is not reported
    for (int i = 0; i < nb; ++i)
        for (int j = i; j <= std::min(nb - 1, i + bw); ++j)
            A(i, j) = T(i, j);
    for (int c = nb; c < n; ++c) // W = U11^-T A12; fill-in makes it dense
        forward_substitute(T, width, A, 0, c, c + 1);
    for (int r = 0; r < m; ++r) // S = A22 - W^T W: each sum formed from 0, subtracted once
        for (int c = r; c < m; ++c) {
            double sigma = 0.0;
            for (int k = 0; k < nb; ++k)
                sigma += A(k, nb + c) * A(k, nb + r);
            S(r, c) = A(nb + r, nb + c) - sigma;
        }
    // Band width m: S is factored as a full dense matrix (m <= 0 resolves to S's order).
    const int count = Cholesky_factor(S, m, tol);
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c)
            A(nb + r, nb + c) = S(r, c);
    return count;
}

void cyclic_Cholesky_subst(KelGenericMatrix& A, int bandWidth, int m, KelMatrix& B)
{
    KELMATRIX_CHECK(cyclic_cholesky("cyclic_Cholesky_subst", A, bandWidth, m, &B));
    const int nb = A.GetRowDim() - m;
    const int bw = bandWidth; // as given, exactly as in the factorization
    BorderedViews a;
    StridedView b;
    if (direct_cyclic_solve(A, bw, m, B, a, b))
        return cyclic_solve_kernel(a, bw, b, B.GetColDim());

    const int width = block_width(bw, nb);
    KelMatrixBanded T; // exactly the library's types, so that the band routines address them
    KelMatrix S;       // directly
    make_band_block(T, A, nb, bw, width);
    make_corner_block(S, m);
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c)
            S(r, c) = A(nb + r, nb + c);
    // Each column is solved completely before the next is begun.
    for (int col = 0; col < B.GetColDim(); ++col) {
        forward_substitute(T, width, B, 0, col, col + 1); // y1 = U11^-T b1
        for (int r = 0; r < m; ++r) {                     // b2 - W^T y1
            double sigma = 0.0;
            for (int k = 0; k < nb; ++k)
                sigma += A(k, nb + r) * B(k, col);
            B(nb + r, col) = B(nb + r, col) - sigma;
        }
        forward_substitute(S, m, B, nb, col, col + 1);  // U22^-T (b2 - W^T y1)
        backward_substitute(S, m, B, nb, col, col + 1); // x2
        for (int r = 0; r < nb; ++r) {                  // y1 - W x2
            double sigma = 0.0;
            for (int k = 0; k < m; ++k)
                sigma += A(r, nb + k) * B(nb + k, col);
            B(r, col) = B(r, col) - sigma;
        }
        backward_substitute(T, width, B, 0, col, col + 1); // x1
    }
}
