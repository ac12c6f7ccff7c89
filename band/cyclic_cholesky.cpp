// KELMATRIX cyclic band Cholesky
// Bordered block Cholesky: a band block of order nb = n - m, then an m x m dense Schur complement.
//
// A11 = U11^T U11 (band, width bw), W = U11^-T A12, S = A22 - W^T W = U22^T U22 (dense). The
// factor overwrites A's upper triangle in place (U11 in the band of A11, W in A12, U22 in A22);
// the lower triangle and A11 outside the band are never touched. Both routines copy the blocks
// into dense temporaries so that the band routines, which take their order from the row count,
// run over exactly nb or m rows; every element goes through the virtual accessor. Dropped
// pivots carry through: their W rows and unknowns are 0. The temporaries are rebuilt by every
// call and released on return. Deliberate: the returned count covers the Schur complement
// only; the band block's count is discarded.
#include <algorithm>

#include "band/band_substitution.h"
#include "kelmatrix/band.h"

namespace {

// The band block's temporary: dense, symmetric with the upper triangle stored, order nb with
// band widths 0 and bw recorded, zeroed. Deliberate: a full nb x nb array holding only a band,
// so that any storage A may use reaches the band routines the same way.
void make_band_block(KelMatrix& T, int nb, int bw)
{
    T.SetSymmetric(true);
    T.SetUsesUpper();
    T.DimensionSquare(nb, 0, bw);
    T.SetZero();
}

// The border block's temporary: dense, symmetric, upper, order m, no band recorded, zeroed.
void make_border_block(KelMatrix& S, int m)
{
    S.SetSymmetric(true);
    S.SetUsesUpper();
    S.Dimension(m, m, -1, -1);
    S.SetZero();
}

// dst(i, j) := src(i, j) over the upper band of the leading nb x nb block.
void copy_band(KelGenericMatrix& dst, KelGenericMatrix& src, int nb, int bw)
{
    for (int i = 0; i < nb; ++i) {
        const int j_end = std::min(nb - 1, i + bw);
        for (int j = i; j <= j_end; ++j)
            dst(i, j) = src(i, j);
    }
}

} // namespace

int cyclic_Cholesky_factor(KelGenericMatrix& A, int bandWidth, int m, double tol)
{
    const int n = A.GetRowDim();
    const int nb = n - m;
    // Deliberate: bw is used as given, not resolved, so bw = 0 copies only the diagonal of A11
    // and bw < 0 nothing; the band routines then resolve T's recorded width themselves.
    const int bw = bandWidth;

    KelMatrix T;
    make_band_block(T, nb, bw);
    copy_band(T, A, nb, bw);
    Cholesky_factor(T, bw, tol); // Deliberate: the band block's count is not reported
    copy_band(A, T, nb, bw);

    // W = U11^-T A12 in place, one border column at a time; fill-in makes it dense.
    for (int c = nb; c < n; ++c)
        Cholesky_forward_subst(T, 0, c, bw, A);

    // S = A22 - W^T W, upper triangle: each sum formed from 0 first and subtracted once.
    KelMatrix S;
    make_border_block(S, m);
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c) {
            double sigma = 0.0;
            for (int k = 0; k < nb; ++k)
                sigma = sigma + A(k, nb + c) * A(k, nb + r);
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
    const int nb = A.GetRowDim() - m;
    const int bw = bandWidth; // as given, exactly as in the factorization

    KelMatrix T;
    make_band_block(T, nb, bw);
    copy_band(T, A, nb, bw);

    KelMatrix S;
    make_border_block(S, m);
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c)
            S(r, c) = A(nb + r, nb + c);

    // Each column is solved completely before the next is begun.
    for (int col = 0; col < B.GetColDim(); ++col) {
        Cholesky_forward_subst(T, 0, col, bw, B); // y1 = U11^-T b1

        for (int r = 0; r < m; ++r) { // b2 - W^T y1
            double sigma = 0.0;
            for (int k = 0; k < nb; ++k)
                sigma = sigma + A(k, nb + r) * B(k, col);
            B(nb + r, col) = B(nb + r, col) - sigma;
        }

        Cholesky_forward_subst(S, nb, col, m, B);  // U22^-T (b2 - W^T y1)
        Cholesky_backward_subst(S, nb, col, m, B); // x2

        for (int r = 0; r < nb; ++r) { // y1 - W x2
            double sigma = 0.0;
            for (int k = 0; k < m; ++k)
                sigma = sigma + A(r, nb + k) * B(nb + k, col);
            B(r, col) = B(r, col) - sigma;
        }

        Cholesky_backward_subst(T, 0, col, bw, B); // x1
    }
}
