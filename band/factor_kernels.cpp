// KELMATRIX band factorization kernels (internal)
// Cholesky_factor on a strided view of the upper band, bit for bit as the generic loops.
//
// Bands up to width 63 take the ring kernel (ring_factor.cpp); wider bands take blocks of eight
// or sixteen columns j of row i together, k ascending (column_block_body.h), and the whole upper
// triangle the tiled kernel (tiled_factor_body.h).
// Either way every U(i, j) takes its terms in ascending k, exactly as the generic loops do: only
// the work on different j is interleaved, which the distinct addresses of the view make exact.
#include <algorithm>
#include <cmath>

#include "band/direct_kernels.h"

namespace kelmatrix {
namespace internal {
namespace {

// The column kernel remembers which of the last kMaxDirectWidth + 1 pivots are positive.
constexpr int kFlagMask = kMaxDirectWidth; // 2^14 - 1
static_assert((kFlagMask & (kFlagMask + 1)) == 0, "the flag ring's size is a power of two");

// Wide band: each block of kBlock columns j of row i (two where they fit) takes its terms from
// the columns of U together, k ascending. Whether U(k, k) > 0 is kept for the last kFlagMask + 1
// rows, more than the band reaches back.
int factor_columns(const StridedView& a, int n, int bw, double tol)
{
    constexpr int kBlock = 8;
    unsigned char positive[kFlagMask + 1]; // U(k, k) > 0 at k & kFlagMask
    int count = 0;
    for (int i = 0; i < n; ++i) {
        double d = a(i, i);
        for (int k = std::max(0, i - bw); k < i; ++k)
            if (positive[k & kFlagMask]) { // strict: dropped (-1) and zero pivots do not contribute
                const double u = a(k, i);
                d -= u * u;
            }
        if (d < tol) { // dropped pivot; d == tol and NaN are accepted
            a(i, i) = -1.0;
            positive[i & kFlagMask] = 0;
            continue;
        }
        ++count;
        const double pivot = std::sqrt(d);
        a(i, i) = pivot;
        positive[i & kFlagMask] = pivot > 0.0;

        const int j_end = std::min(n - 1, i + bw);
        // The terms of columns j0 .. j0 + nj - 1 with k below k_all, which reach only some of
        // them (column j takes k from max(0, j - bw)); returns k_all.
        const auto partial = [&](int j0, int nj, double* s) {
            const int k_all = std::min(i, std::max(0, j0 + nj - 1 - bw));
            for (int k = std::max(0, j0 - bw); k < k_all; ++k)
                if (positive[k & kFlagMask]) {
                    const double f = a(k, i);
                    for (int jj = 0; jj < nj; ++jj)
                        if (k >= j0 + jj - bw)
                            s[jj] -= a(k, j0 + jj) * f;
                }
            return k_all;
        };
        for (int j0 = i + 1; j0 <= j_end;) {
            const int nj = std::min(2 * kBlock, j_end - j0 + 1);
            double s[2 * kBlock];
            for (int jj = 0; jj < nj; ++jj)
                s[jj] = a(i, j0 + jj);
            if (nj >= kBlock && a.rs == 1) {
                // Columns contiguous in k: runs of rows k of the columns are turned into vectors
                // across j (as wide as the instruction set allows), each sum still taking k in
                // ascending order. Two blocks go together from the first k that reaches both.
                const int nc = nj / kBlock * kBlock;
                const double* col[2 * kBlock];
                for (int jj = 0; jj < nc; ++jj)
                    col[jj] = &a(0, j0 + jj);
                const double* const ci = &a(0, i);
                int k_all = partial(j0, kBlock, s);
                if (nc == 2 * kBlock) {
                    const int k_second = partial(j0 + kBlock, kBlock, s + kBlock);
                    column_block_kernel(col, ci, positive, kFlagMask, k_all, k_second, s, kBlock);
                    k_all = k_second;
                }
                column_block_kernel(col, ci, positive, kFlagMask, k_all, i, s, nc);
                for (int jj = 0; jj < nc; ++jj)
                    a(i, j0 + jj) = s[jj] / pivot;
                j0 += nc;
                continue;
            }
            const int nb = std::min(kBlock, nj);
            for (int k = partial(j0, nb, s); k < i; ++k)
                if (positive[k & kFlagMask]) {
                    const double f = a(k, i);
                    for (int jj = 0; jj < nb; ++jj)
                        s[jj] -= a(k, j0 + jj) * f;
                }
            for (int jj = 0; jj < nb; ++jj)
                a(i, j0 + jj) = s[jj] / pivot;
            j0 += nb;
        }
    }
    return count;
}

} // namespace

int factor_kernel(const StridedView& a, int n, int bw, double tol)
{
    if (n <= 0)
        return 0;
    bw = std::min(bw, n); // the loops clamp at 0 and n - 1: wider changes nothing
    if (std::min(bw, n - 1) <= kRingWidth)
        return ring_factor_kernel(a, n, bw, tol);
    if (bw >= n - 1) // every k from 0: the tiled kernel
        return tiled_factor_kernel(a, n, tol);
    return factor_columns(a, n, bw, tol);
}

} // namespace internal
} // namespace kelmatrix
