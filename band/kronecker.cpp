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
// blocks of U1 and one inner band substitution with U2 per block (band_substitution.h),
// keeping the last w1 + 1 outer values in a ring buffer. A negative
// diagonal of U1 (a dropped pivot) zeroes its block in every column. Deliberate: a zero diagonal
// of U1 is divided by in the lower substitution but zeroes the block in the upper one, and the
// w2 <= 0 defaults differ between the two. The recurrence is written once, through the element
// accessor, so U1 and U2 may be dense, band or user storage; when direct_kronecker allows it,
// the same recurrence runs on strided views with the inner substitution kernel. The block
// transpositions work on the temporaries' arrays tile by tile. All temporaries are local
// matrices released on every path.
#include <algorithm>

#include "band/band_checks.h"
#include "band/band_substitution.h"
#include "band/direct_kernels.h"
#include "band/kronecker_widths.h"
#include "band/simd.h"
#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"

using namespace kelmatrix::internal;

namespace {

using Pair = simd::Vec<2>;

// dst(j, i) = src(i, j) for i < rows, j < cols (column-major, leading dimensions lds and ldd),
// in square tiles so that both sides stay in cache; inside a tile two rows of src at a time
// become pairs of adjacent elements of dst (a pure copy: every bit, NaN payloads included).
void transpose(const double* src, long long lds, double* dst, long long ldd, int rows, int cols)
{
    constexpr int kTile = 128;
    for (int i0 = 0; i0 < rows; i0 += kTile) {
        const int i1 = std::min(rows, i0 + kTile);
        for (int j0 = 0; j0 < cols; j0 += kTile) {
            const int j1 = std::min(cols, j0 + kTile);
            int i = i0;
            for (; i + 1 < i1; i += 2) {
                int j = j0;
                for (; j + 1 < j1; j += 2) {
                    const Pair a = simd::load<Pair>(src + i + j * lds); // src(i, j), src(i+1, j)
                    const Pair b =
                        simd::load<Pair>(src + i + (j + 1) * lds); // src(i, j+1), src(i+1, j+1)
                    simd::store(dst + j + i * ldd, Pair{a[0], b[0]});
                    simd::store(dst + j + (i + 1) * ldd, Pair{a[1], b[1]});
                }
                if (j < j1) {
                    dst[j + i * ldd] = src[i + j * lds];
                    dst[j + (i + 1) * ldd] = src[i + 1 + j * lds];
                }
            }
            if (i < i1)
                for (int j = j0; j < j1; ++j)
                    dst[j + i * ldd] = src[i + j * lds];
        }
    }
}

} // namespace

bool Solve_Kronecker(const KelMatrixBanded& A, const KelMatrixBanded& B, KelMatrix& X,
                     bool copyInputs)
{
    KELMATRIX_CHECK(kronecker_solve(A, B, X));
    const int copy = copyInputs ? 1 : 0;
    const int nA = A.GetRowDim(), nB = B.GetRowDim();
    // Deliberate: truncating division, unchecked (nA == 0 is not guarded); columns past the
    // last whole group are not transposed and so never receive A^-1.
    const int m = X.GetColDim() / nA;

    // T1 := B^-1 X, every group in one call.
    KelMatrix T1;
    if (!SolveBSP(B, X, T1, copy))
        return false;

    // T2(:, k*nB .. k*nB+nB-1) := transpose of group k of T1. Both are plain dense temporaries.
    KelMatrix T2;
    T2.Dimension(nA, m * nB, -1, -1);
    const long long ld1 = T1.GetRowDim(), ld2 = T2.GetRowDim();
    for (int k = 0; k < m; ++k)
        transpose(T1.GetElements() + ld1 * k * nA, ld1, T2.GetElements() + ld2 * k * nB, ld2, nB,
                  nA);

    // T1 := A^-1 T2, again every group in one call.
    if (!SolveBSP(A, T2, T1, copy))
        return false;

    const long long ld = T1.GetRowDim();
    StridedView x;
    if (direct_transpose(X, m * nA, x)) {
        for (int k = 0; k < m; ++k)
            transpose(T1.GetElements() + ld * k * nB, ld, x.p + x.cs * k * nA, x.cs, nA, nB);
        return true;
    }
    const double* t1 = T1.GetElements();
    for (int k = 0; k < m; ++k)
        for (int j = 0; j < nA; ++j)
            for (int i = 0; i < nB; ++i)
                X(i, k * nA + j) = t1[j + ld * (static_cast<long long>(k) * nB + i)];
    return true;
}

namespace {

// Row of block k's saved values in the ring buffer of w1 + 1 slots of q rows. An empty inner
// factor (q = 0) has an empty ring and no rows to touch.
inline int slot(int k, int w1, int q)
{
    const int ring_rows = (w1 + 1) * q;
    return ring_rows > 0 ? (k * q) % ring_rows : 0;
}

// What distinguishes the two substitutions. The lower one runs the blocks i up and each sum
// over the blocks k below i, reading U1(k, i); the upper one runs i down and k over the blocks
// above i, reading U1(i, k). Deliberate: the lower substitution solves a block unless
// U1(i, i) < 0, so a zero diagonal is divided by, while the upper one solves only when
// U1(i, i) > 0, so a zero diagonal zeroes the block; NaN zeroes it in both.
template <bool Lower> struct BlockPass {
    static int first(int p) { return Lower ? 0 : p - 1; }
    static int next(int i) { return Lower ? i + 1 : i - 1; }
    static int prev(int k) { return Lower ? k - 1 : k + 1; } // the next term of a sum
    static bool in(int i, int p) { return i >= 0 && i < p; }
    static int distance(int i, int k) { return Lower ? i - k : k - i; }
    static bool solves(double d) { return Lower ? d >= 0.0 : d > 0.0; }
    template <class U1> static double coefficient(U1& u1, int i, int k)
    {
        return Lower ? u1(k, i) : u1(i, k);
    }
};

// z_i = (x_i - sum_k U1(k,i) z_k) / U1(i,i) over the blocks k before i in the pass's order,
// with z_k = U2^T y_k (lower) or U2 y_k (upper): the ring keeps z, the values between the
// division and the inner solve, of the last w1 + 1 blocks. inner(off, c) solves with U2 on rows
// off .. off + q - 1 of column c.
template <bool Lower, class U1, class XA, class Inner>
void substitute_blocks(int p, int q, int w1, U1& u1, XA& x, int ncols, double* ring, Inner inner)
{
    using P = BlockPass<Lower>;
    for (int c = 0; c < ncols; ++c) {
        for (int i = P::first(p); P::in(i, p); i = P::next(i)) {
            const double d = u1(i, i);
            const int si = slot(i, w1, q);
            if (P::solves(d)) {
                for (int k = P::prev(i); P::in(k, p) && P::distance(i, k) <= w1; k = P::prev(k)) {
                    if (u1(k, k) > 0.0) { // strict: dropped and zero diagonals do not contribute
                        const double f = P::coefficient(u1, i, k);
                        const int sk = slot(k, w1, q);
                        for (int t = 0; t < q; ++t)
                            x(i * q + t, c) -= f * ring[sk + t];
                    }
                }
                for (int t = 0; t < q; ++t) {
                    x(i * q + t, c) /= d;
                    ring[si + t] = x(i * q + t, c);
                }
                inner(i * q, c);
            } else {
                for (int t = 0; t < q; ++t) {
                    ring[si + t] = 0.0;
                    x(i * q + t, c) = 0.0;
                }
            }
        }
    }
}

// The recurrence through the accessors with the substitution interface, or on views with the
// kernel when direct_kronecker allows it.
template <bool Lower>
void substitute(int w1, int w2, KelGenericMatrix& U1, KelGenericMatrix& U2, KelMatrix& X)
{
    const int p = U1.GetRowDim(), q = U2.GetRowDim(), ncols = X.GetColDim();
    w2 = resolve_band_width(U2, w2); // what the inner substitution resolves at every block
    KelMatrix W;
    W.Dimension((w1 + 1) * q, 1, -1, -1);
    double* ring = W.GetElements(); // W(r, 0) lies at ring[r]: a plain column

    auto run = [&](auto& u1, auto& x, auto inner) {
        substitute_blocks<Lower>(p, q, w1, u1, x, ncols, ring, inner);
    };
    StridedView u1, u2, x;
    if (direct_kronecker(U1, w1, U2, w2, X, u1, u2, x)) {
        run(u1, x, [&](int off, int c) {
            if (Lower)
                forward_kernel(u2, q, w2, x, off, c, c + 1);
            else
                backward_kernel(u2, q, w2, x, off, c, c + 1);
        });
        return;
    }
    run(U1, X, [&](int off, int c) {
        if (Lower)
            forward_substitute(U2, w2, X, off, c, c + 1);
        else
            backward_substitute(U2, w2, X, off, c, c + 1);
    });
}

} // namespace

void kronecker_lower_substitute(int w1, int w2, KelGenericMatrix& U1, KelGenericMatrix& U2,
                                KelMatrix& X)
{
    KELMATRIX_CHECK(kronecker_substitution("kronecker_lower_substitute", false, w1, w2, U1, U2, X));
    const KroneckerWidths w = kronecker_widths(false, w1, w2, U1.GetRowDim(), U2.GetRowDim());
    substitute<true>(w.w1, w.w2, U1, U2, X);
}

void kronecker_upper_substitute(int w1, int w2, KelGenericMatrix& U1, KelGenericMatrix& U2,
                                KelMatrix& X)
{
    KELMATRIX_CHECK(kronecker_substitution("kronecker_upper_substitute", true, w1, w2, U1, U2, X));
    // Deliberate: w2 <= 0 resolves to U1's order here, to U2's in the lower substitution.
    const KroneckerWidths w = kronecker_widths(true, w1, w2, U1.GetRowDim(), U2.GetRowDim());
    substitute<false>(w.w1, w.w2, U1, U2, X);
}
