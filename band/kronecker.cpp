// KELMATRIX Kronecker band solves
// (A kron B) y = x for two SPD band matrices without forming the product, and the forward and
// backward substitutions with the Kronecker product of two band Cholesky factors.
//
// Solve_Kronecker reads each group of A.rows columns of X as the nB x nA matrix Xk and replaces
// it with B^-1 Xk A^-1 (A is symmetric, so this is the column-major reshape of the solution):
// one SolveBSP with B over every column of X, a block transposition, one SolveBSP with A over
// every group, and the transposition back. copyInputs is handed to SolveBSP as 0 or 1, so with
// copies a failure leaves A, B and X as they were; without, A and B are factored in place and X's
// own array is the first right-hand side (its trailing X.cols mod nA columns then hold B^-1 times
// their input; with copies they keep it). The substitutions run the outer recurrence over the
// blocks of U1 and one inner band substitution with U2 per block (Cholesky_forward_subst,
// Cholesky_backward_subst), keeping the last w1 + 1 outer values in a ring buffer. A negative
// diagonal of U1 (a dropped pivot) zeroes its block in every column. Deliberate: a zero diagonal
// of U1 is divided by in the lower substitution but zeroes the block in the upper one, and the
// w2 <= 0 defaults differ between the two. Every element goes through the virtual accessor, so
// U1 and U2 may be dense or band; all temporaries are local matrices released on every path.
#include "band/band_substitution.h"
#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"

bool Solve_Kronecker(const KelMatrixBanded& A, const KelMatrixBanded& B, KelMatrix& X,
                     bool copyInputs)
{
    const int copy = copyInputs ? 1 : 0;
    const int nA = A.GetRowDim(), nB = B.GetRowDim();
    // Deliberate: truncating division, unchecked (nA == 0 is not guarded); columns past the
    // last whole group are not transposed and so never receive A^-1.
    const int m = X.GetColDim() / nA;

    // T1 := B^-1 X, every group in one call.
    KelMatrix T1;
    if (!SolveBSP(B, X, T1, copy))
        return false;

    // T2(:, k*nB .. k*nB+nB-1) := transpose of group k of T1.
    KelMatrix T2;
    T2.Dimension(nA, m * nB, -1, -1);
    for (int k = 0; k < m; ++k)
        for (int i = 0; i < nB; ++i)
            for (int j = 0; j < nA; ++j)
                T2(j, k * nB + i) = T1(i, k * nA + j);

    // T1 := A^-1 T2, again every group in one call.
    if (!SolveBSP(A, T2, T1, copy))
        return false;

    for (int k = 0; k < m; ++k)
        for (int j = 0; j < nA; ++j)
            for (int i = 0; i < nB; ++i)
                X(i, k * nA + j) = T1(j, k * nB + i);
    return true;
}

namespace {

// Row of block k's saved values in the ring buffer of w1 + 1 slots of q rows.
inline int slot(int k, int w1, int q)
{
    return (k * q) % ((w1 + 1) * q);
}

} // namespace

void kronecker_lower_substitute(int w1, int w2, KelGenericMatrix& U1, KelGenericMatrix& U2,
                                KelMatrix& X)
{
    const int p = U1.GetRowDim(), q = U2.GetRowDim();
    if (w1 <= 0)
        w1 = p;
    if (w2 <= 0)
        w2 = q;

    // z_i = (x_i - sum_{k<i} U1(k,i) z_k) / U1(i,i) with z_k = U2^T y_k: the ring keeps z, the
    // values between the division and the inner solve, of the last w1 + 1 blocks.
    KelMatrix W;
    W.Dimension((w1 + 1) * q, 1, -1, -1);
    for (int c = 0; c < X.GetColDim(); ++c) {
        for (int i = 0; i < p; ++i) {
            const double d = U1(i, i);
            const int si = slot(i, w1, q);
            if (d >= 0.0) { // zero is divided by; negative (dropped) and NaN zero the block
                for (int k = i - 1; k >= 0 && i - k <= w1; --k) {
                    if (U1(k, k) > 0.0) { // strict: dropped and zero diagonals do not contribute
                        const double f = U1(k, i);
                        const int sk = slot(k, w1, q);
                        for (int t = 0; t < q; ++t)
                            X(i * q + t, c) -= f * W(sk + t, 0);
                    }
                }
                for (int t = 0; t < q; ++t) {
                    X(i * q + t, c) /= d;
                    W(si + t, 0) = X(i * q + t, c);
                }
                Cholesky_forward_subst(U2, i * q, c, w2, X);
            } else {
                for (int t = 0; t < q; ++t) {
                    W(si + t, 0) = 0.0;
                    X(i * q + t, c) = 0.0;
                }
            }
        }
    }
}

void kronecker_upper_substitute(int w1, int w2, KelGenericMatrix& U1, KelGenericMatrix& U2,
                                KelMatrix& X)
{
    const int p = U1.GetRowDim(), q = U2.GetRowDim();
    if (w1 <= 0)
        w1 = p;
    if (w2 <= 0)
        w2 = p; // Deliberate: U1's order, not U2's as in the lower; positive widths never see it

    // The mirror image: z_i = (x_i - sum_{k>i} U1(i,k) z_k) / U1(i,i) with z_k = U2 y_k.
    KelMatrix W;
    W.Dimension((w1 + 1) * q, 1, -1, -1);
    for (int c = 0; c < X.GetColDim(); ++c) {
        for (int i = p - 1; i >= 0; --i) {
            const double d = U1(i, i);
            const int si = slot(i, w1, q);
            if (d > 0.0) { // Deliberate: strict, so a zero diagonal zeroes the block here
                for (int k = i + 1; k < p && k - i <= w1; ++k) {
                    if (U1(k, k) > 0.0) { // strict: dropped and zero diagonals do not contribute
                        const double f = U1(i, k);
                        const int sk = slot(k, w1, q);
                        for (int t = 0; t < q; ++t)
                            X(i * q + t, c) -= f * W(sk + t, 0);
                    }
                }
                for (int t = 0; t < q; ++t) {
                    X(i * q + t, c) /= d;
                    W(si + t, 0) = X(i * q + t, c);
                }
                Cholesky_backward_subst(U2, i * q, c, w2, X);
            } else {
                for (int t = 0; t < q; ++t) {
                    W(si + t, 0) = 0.0;
                    X(i * q + t, c) = 0.0;
                }
            }
        }
    }
}
