// KELMATRIX cyclic band Cholesky
// Bordered block Cholesky: a band block of order nb = n - m, then an m x m dense Schur complement.
//
// A11 = U11^T U11 (band, width bw), W = U11^-T A12, S = A22 - W^T W = U22^T U22 (dense). The
// factor overwrites A's upper triangle in place (U11 in the band of A11, W in A12, U22 in A22);
// the lower triangle and A11 outside the band are never touched. Both routines copy the blocks
// into temporaries so that the band routines run over exactly nb or m rows: the band block
// into band storage of the width the routines touch (O(nb bw) doubles, not nb^2), the border
// block into a dense m x m matrix. A is read and written through its accessor in the fixed
// order below; a KelMatrix or KelMatrixBanded is addressed directly instead, and then the
// border columns and right-hand sides are walked together and the independent sums formed side
// by side. Dropped pivots carry through: their W rows and unknowns are 0. The temporaries are
// rebuilt by every call and released on return. Deliberate: the returned count covers the Schur
// complement only; the band block's count is discarded.
#include <algorithm>

#include "band/band_substitution.h"
#include "band/direct_access.h"
#include "band/ordered_ops.h"
#include "kelmatrix/band.h"
#include "checks/checks.h"

using namespace kelmatrix::internal;

namespace {

// The width the band routines use on the band block: bw as given, or, for bw < 1, the block's
// order (its recorded upper band width, bw itself, is < 1 and resolves so).
int block_width(int bw, int nb)
{
    return bw >= 1 ? bw : nb;
}

// The band block's temporary: symmetric with the upper triangle stored, holding only the band
// the routines touch. With bw >= 1 every element they read is copied in first; with bw < 1 the
// band is the whole block (Deliberate) and all but the copied diagonal must read as zero.
void make_band_block(KelMatrixBanded& T, int nb, int bw, int width)
{
    const int order = std::max(nb, 0);
    T.SetSymmetric(true);
    T.SetUsesUpper();
    T.Dimension(order, order, 0, std::max(0, std::min(width, order - 1)));
    if (bw < 1)
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

// The two temporaries of the factorization and the solve, with direct views of their upper
// triangles; both are released when the routine returns, on every path.
struct Blocks {
    KelMatrixBanded T;
    KelMatrix S;
    StridedView t, s;
    Blocks(int nb, int bw, int width, int m)
    {
        make_band_block(T, nb, bw, width);
        t = direct_access(T).side(true);
        make_border_block(S, m);
        s = direct_access(S).side(true);
    }
};

// Deliberate: bw is used as given here, so bw = 0 copies only the diagonal of A11 and bw < 0
// nothing; the band routines then treat the block as full (block_width).
template <class M> void band_into(const StridedView& T, M& A, int nb, int bw)
{
    for (int i = 0; i < nb; ++i) {
        const int j_end = std::min(nb - 1, i + bw);
        for (int j = i; j <= j_end; ++j)
            T(i, j) = A(i, j);
    }
}

template <class M> void band_back(M& A, const StridedView& T, int nb, int bw)
{
    for (int i = 0; i < nb; ++i) {
        const int j_end = std::min(nb - 1, i + bw);
        for (int j = i; j <= j_end; ++j)
            A(i, j) = T(i, j);
    }
}

// S = A22 - W^T W, upper triangle: each sum formed from 0 first and subtracted once.
template <class M> void schur_in_order(M& A, const StridedView& S, int nb, int m)
{
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c) {
            double sigma = 0.0;
            for (int k = 0; k < nb; ++k)
                sigma = add(sigma, mul(A(k, nb + c), A(k, nb + r)));
            S(r, c) = A(nb + r, nb + c) - sigma;
        }
}

// The same sums, up to eight at a time in one sweep over k (A is only read here).
void schur_side_by_side(const StridedView& a, const StridedView& S, int nb, int m)
{
    constexpr int kGroup = 8;
    for (int r = 0, c = 0; r < m;) {
        int rr[kGroup], cc[kGroup], g = 0;
        double sigma[kGroup];
        for (; g < kGroup && r < m; ++g) { // the next pairs (r, c), c >= r, in the generic order
            rr[g] = nb + r;
            cc[g] = nb + c;
            sigma[g] = 0.0;
            if (++c == m)
                c = ++r;
        }
        for (int k = 0; k < nb; ++k)
            for (int q = 0; q < g; ++q)
                sigma[q] = add(sigma[q], mul(a(k, cc[q]), a(k, rr[q])));
        for (int q = 0; q < g; ++q)
            S(rr[q] - nb, cc[q] - nb) = a(rr[q], cc[q]) - sigma[q];
    }
}

template <class M> void corner_back(M& A, const StridedView& S, int nb, int m)
{
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c)
            A(nb + r, nb + c) = S(r, c);
}

template <class M> void corner_into(const StridedView& S, M& A, int nb, int m)
{
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c)
            S(r, c) = A(nb + r, nb + c);
}

// Rows nb + r of column col: b2 - W^T y1, each sum from 0 in ascending k.
template <class M, class BB> void subtract_w_t_y(M& A, BB& B, int nb, int m, int col)
{
    for (int r = 0; r < m; ++r) {
        double sigma = 0.0;
        for (int k = 0; k < nb; ++k)
            sigma = add(sigma, mul(A(k, nb + r), B(k, col)));
        B(nb + r, col) = B(nb + r, col) - sigma;
    }
}

// The same, up to eight sums side by side (the rows written lie below the rows read).
void subtract_w_t_y_side_by_side(const StridedView& a, const StridedView& b, int nb, int m, int col)
{
    constexpr int kGroup = 8;
    for (int r0 = 0; r0 < m; r0 += kGroup) {
        const int g = std::min(kGroup, m - r0);
        double sigma[kGroup] = {};
        for (int k = 0; k < nb; ++k) {
            const double y = b(k, col);
            for (int q = 0; q < g; ++q)
                sigma[q] = add(sigma[q], mul(a(k, nb + r0 + q), y));
        }
        for (int q = 0; q < g; ++q)
            b(nb + r0 + q, col) = b(nb + r0 + q, col) - sigma[q];
    }
}

// Rows r < nb of column col: y1 - W x2, each sum from 0 in ascending k.
template <class M, class BB> void subtract_w_x(M& A, BB& B, int nb, int m, int col)
{
    for (int r = 0; r < nb; ++r) {
        double sigma = 0.0;
        for (int k = 0; k < m; ++k)
            sigma = add(sigma, mul(A(r, nb + k), B(nb + k, col)));
        B(r, col) = B(r, col) - sigma;
    }
}

// One right-hand side column in the fixed order: forward with T, border rows, forward and
// backward with S, band rows, backward with T.
template <class M, class BB>
void solve_column(M& A, BB& b, KelGenericMatrix& B, KelMatrixBanded& T, KelMatrix& S, int nb, int m,
                  int width, int col)
{
    forward_columns(T, nb, width, 0, col, col + 1, B);  // y1 = U11^-T b1
    subtract_w_t_y(A, b, nb, m, col);                   // b2 - W^T y1
    forward_columns(S, m, m, nb, col, col + 1, B);      // U22^-T (b2 - W^T y1)
    backward_columns(S, m, m, nb, col, col + 1, B);     // x2
    subtract_w_x(A, b, nb, m, col);                     // y1 - W x2
    backward_columns(T, nb, width, 0, col, col + 1, B); // x1
}

template <class M>
void solve_columns_in_order(M& A, KelGenericMatrix& B, KelMatrixBanded& T, KelMatrix& S, int nb,
                            int m, int width)
{
    if (has_direct_access(B)) {
        DirectAccess b = direct_access(B);
        for (int col = 0; col < B.GetColDim(); ++col)
            solve_column(A, b, B, T, S, nb, m, width, col);
    } else {
        for (int col = 0; col < B.GetColDim(); ++col)
            solve_column(A, B, B, T, S, nb, m, width, col);
    }
}

} // namespace

int cyclic_Cholesky_factor(KelGenericMatrix& A, int bandWidth, int m, double tol)
{
    KELMATRIX_CHECK(cyclic_cholesky("cyclic_Cholesky_factor", A, bandWidth, m, nullptr));
    const int n = A.GetRowDim();
    const int nb = n - m;
    const int bw = bandWidth; // Deliberate: as given, not resolved (see band_into)
    const int width = block_width(bw, nb);

    Blocks blocks(nb, bw, width, m);
    KelMatrixBanded& T = blocks.T;
    KelMatrix& S = blocks.S;
    const StridedView& t = blocks.t;
    const StridedView& s = blocks.s;

    if (has_direct_access(A)) {
        DirectAccess a = direct_access(A);
        band_into(t, a, nb, bw);
        factor_band(T, nb, width, tol); // Deliberate: the band block's count is not reported
        band_back(a, t, nb, bw);
        // W = U11^-T A12 in place; fill-in makes it dense. Every border column lies above the
        // diagonal, so A12 is one side of any mirroring.
        forward_columns(T, nb, width, 0, nb, n, A);
        schur_side_by_side(a.side(true), s, nb, m);
        const int count = factor_band(S, m, m, tol);
        corner_back(a, s, nb, m);
        return count;
    }

    band_into(t, A, nb, bw);
    factor_band(T, nb, width, tol); // Deliberate: the band block's count is not reported
    band_back(A, t, nb, bw);
    forward_columns(T, nb, width, 0, nb, n, A); // W = U11^-T A12, column by column
    schur_in_order(A, s, nb, m);
    // Band width m: S is factored as a full dense matrix (m <= 0 resolves to S's order).
    const int count = factor_band(S, m, m, tol);
    corner_back(A, s, nb, m);
    return count;
}

void cyclic_Cholesky_subst(KelGenericMatrix& A, int bandWidth, int m, KelMatrix& B)
{
    KELMATRIX_CHECK(cyclic_cholesky("cyclic_Cholesky_subst", A, bandWidth, m, &B));
    const int nb = A.GetRowDim() - m;
    const int bw = bandWidth; // as given, exactly as in the factorization
    const int width = block_width(bw, nb);
    const int nrhs = B.GetColDim();

    Blocks blocks(nb, bw, width, m);
    KelMatrixBanded& T = blocks.T;
    KelMatrix& S = blocks.S;
    const StridedView& t = blocks.t;
    const StridedView& s = blocks.s;

    if (!has_direct_access(A)) {
        band_into(t, A, nb, bw);
        corner_into(s, A, nb, m);
        solve_columns_in_order(A, B, T, S, nb, m, width);
        return;
    }

    DirectAccess a = direct_access(A);
    band_into(t, a, nb, bw);
    corner_into(s, a, nb, m);

    // Each column is solved completely before the next is begun; columns that share no storage
    // with each other, with the factor or with W may go through each stage together instead.
    StridedView b;
    const StridedView w = a.side(true);
    const bool together = nb >= 1 && m >= 1 && nrhs >= 1 && has_direct_access(B) &&
                          !B.SymmetricQ() && columns_walk_together(T, nb, width, 0, 0, nrhs, B) &&
                          columns_walk_together(S, m, m, nb, 0, nrhs, B) &&
                          (b = direct_access(B).side(true), block_is_distinct(b, nb + m, nrhs)) &&
                          !block_span(w, 0, nb, nb, m).meets(block_span(b, 0, nb + m, 0, nrhs));
    if (!together) {
        solve_columns_in_order(a, B, T, S, nb, m, width);
        return;
    }
    forward_columns(T, nb, width, 0, 0, nrhs, B);
    for (int col = 0; col < nrhs; ++col)
        subtract_w_t_y_side_by_side(w, b, nb, m, col);
    forward_columns(S, m, m, nb, 0, nrhs, B);
    backward_columns(S, m, m, nb, 0, nrhs, B);
    for (int col = 0; col < nrhs; ++col)
        subtract_w_x(w, b, nb, m, col);
    backward_columns(T, nb, width, 0, 0, nrhs, B);
}
