// KELMATRIX band factorization kernels (internal)
// Cholesky_factor on a strided view of the upper band, bit for bit as the generic loops.
//
// Bands up to width 63 take the ring kernel (ring_factor.cpp); wider bands take blocks of eight
// or sixteen columns j of row i together, k ascending (column_block_body.h), and the whole upper
// triangle the tiled kernel (tiled_factor_body.h).
// Either way every U(i, j) takes its terms in ascending k, exactly as the generic loops do: only
// the work on different j is interleaved, which the distinct addresses of the view make exact.
// With a team (parallel/team.h), the wide bands deal their columns out to the threads as a
// wavefront and the whole triangle deals out the tiles of each block of rows; each element is
// still formed by one thread with the serial code, so the bits are the same for every count.
#include <algorithm>
#include <atomic>
#include <cmath>

#include "band/direct_kernels.h"
#include "parallel/team.h"
#include "parallel/thresholds.h"

namespace kelmatrix {
namespace internal {
namespace {

// The column kernel remembers which of the last kMaxDirectWidth + 1 pivots are positive.
constexpr int kFlagMask = kMaxDirectWidth; // 2^14 - 1
static_assert((kFlagMask & (kFlagMask + 1)) == 0, "the flag ring's size is a power of two");

// Wide band: each block of kBlock columns j of row i (two where they fit) takes its terms from
// the columns of U together, k ascending. Whether U(k, k) > 0 is kept for the last kFlagMask + 1
// rows, more than the band reaches back.
constexpr int kBlock = 8;

// Row i's pivot from the column above it, in place (a dropped pivot becomes -1.0); returns
// whether it was kept, with its value in pivot.
bool row_pivot(const StridedView& a, int bw, int i, double tol, unsigned char* positive,
               double& pivot)
{
    double d = a(i, i);
    for (int k = std::max(0, i - bw); k < i; ++k)
        if (positive[k & kFlagMask]) { // strict: dropped (-1) and zero pivots do not contribute
            const double u = a(k, i);
            d -= u * u;
        }
    if (d < tol) { // dropped pivot; d == tol and NaN are accepted
        a(i, i) = -1.0;
        positive[i & kFlagMask] = 0;
        return false;
    }
    pivot = std::sqrt(d);
    a(i, i) = pivot;
    positive[i & kFlagMask] = pivot > 0.0;
    return true;
}

// Columns j_begin .. j_last of row i, whose pivot is kept, in blocks from j_begin.
void row_columns(const StridedView& a, int bw, int i, double pivot, const unsigned char* positive,
                 int j_begin, int j_last)
{
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
    for (int j0 = j_begin; j0 <= j_last;) {
        const int nj = std::min(2 * kBlock, j_last - j0 + 1);
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

int factor_columns(const StridedView& a, int n, int bw, double tol)
{
    unsigned char positive[kFlagMask + 1]; // U(k, k) > 0 at k & kFlagMask
    int count = 0;
    for (int i = 0; i < n; ++i) {
        double pivot = 0.0;
        if (!row_pivot(a, bw, i, tol, positive, pivot))
            continue;
        ++count;
        row_columns(a, bw, i, pivot, positive, i + 1, std::min(n - 1, i + bw));
    }
    return count;
}

// factor_columns on a team, as a wavefront: the columns are dealt out in fixed runs of kOwned
// (run r to thread r mod parts), and each thread forms the entries of its own columns, row by
// row, with the serial code. Entry (i, j) needs column i down to its pivot, which is final once
// the pivots count passes i: a thread waits for that count once per row, never for the others'
// columns. The thread owning column i + 1 forms that column's entry of row i first and its pivot
// right after (look-ahead), so the next row can start while row i's other columns are formed.
// A thread reads a pivot (and the flags of positive pivots) only after the count has passed it.
// The threads stay within parts kOwned + 1 rows of each other, far less than the flags' ring.
constexpr int kOwned = 16;

int factor_columns_team(const StridedView& a, int n, int bw, double tol, int threads)
{
    unsigned char positive[kFlagMask + 1]; // shared: each flag written once, by its pivot's owner
    std::atomic<int> pivots{0};            // rows 0 .. pivots - 1 have their final pivot
    std::atomic<int> total{0};
    run_team(threads, [&](int t, int parts) {
        const auto owner = [&](int j) { return (j / kOwned) % parts; };
        int count = 0;
        const auto settle = [&](int i) { // row i's pivot, published
            double pivot = 0.0;
            count += row_pivot(a, bw, i, tol, positive, pivot);
            pivots.store(i + 1, std::memory_order_release);
        };
        if (owner(0) == t)
            settle(0);
        for (int i = 0; i < n; ++i) {
            wait_at_least(pivots, i + 1);
            const double pivot = a(i, i);
            const bool next = i + 1 < n && owner(i + 1) == t;
            if (pivot == -1.0) { // dropped (a kept pivot is a square root: >= 0 or NaN)
                if (next)
                    settle(i + 1);
                continue;
            }
            const int j_end = std::min(n - 1, i + bw);
            int run = (i + 1) / kOwned;
            run += ((t - run % parts) % parts + parts) % parts; // this thread's first run
            for (; run * kOwned <= j_end; run += parts) {
                const int from = std::max(i + 1, run * kOwned);
                row_columns(a, bw, i, pivot, positive, from,
                            std::min(j_end, run * kOwned + kOwned - 1));
                if (next && from == i + 1)
                    settle(i + 1);
            }
        }
        total += count;
    });
    return total.load();
}

// The tiled factorization on a team. The tiles of a block of rows depend only on the rows above
// it and on the block's leading tile, so they go to the threads side by side (tile m to thread
// m mod parts), with one barrier per block of rows. Look-ahead: the next block's leading tile
// needs only this block's first two tiles, so the thread of tile 1 forms it right after that
// tile, while the others still form theirs. Every thread then loads the leading tile's results
// (its pivots among them) from A after the barrier, once they are final.
int tiled_factor_team(const StridedView& a, int n, double tol, int threads)
{
    constexpr int kNb = TiledScratch::kNb, kNc = TiledScratch::kNc;
    std::atomic<int> total{0};
    SpinBarrier barrier;
    run_team(threads, [&](int t, int parts) {
        TiledScratch s;
        const int ahead = 1 % parts; // the thread of tile 1, which forms the next leading tile
        int count = t == ahead ? tiled_step_kernel(a, n, tol, 0, 0, s) : 0;
        barrier.wait(parts);
        for (int i0 = 0; i0 < n; i0 += kNb) {
            const int next = i0 + kNb, tiles = (n - i0 + kNc - 1) / kNc;
            tiled_step_kernel(a, n, tol, i0, -1, s);
            if (t == ahead && tiles == 1 && next < n)
                count += tiled_step_kernel(a, n, tol, next, 0, s);
            for (int m = 1; m < tiles; ++m) {
                if (m % parts != t)
                    continue;
                tiled_step_kernel(a, n, tol, i0, m, s);
                if (m == 1 && next < n) { // then back to this block's leading tile
                    count += tiled_step_kernel(a, n, tol, next, 0, s);
                    tiled_step_kernel(a, n, tol, i0, -1, s);
                }
            }
            barrier.wait(parts);
        }
        total += count;
    });
    return total.load();
}

} // namespace

int factor_kernel(const StridedView& a, int n, int bw, double tol)
{
    if (n <= 0)
        return 0;
    bw = std::min(bw, n); // the loops clamp at 0 and n - 1: wider changes nothing
    if (std::min(bw, n - 1) <= kRingWidth)
        return ring_factor_kernel(a, n, bw, tol);
    if (bw >= n - 1) { // every k from 0: the tiled kernel, on a team when it pays
        const int threads = team_size(static_cast<double>(n) * n * n, kFactorGrain);
        return threads > 1 ? tiled_factor_team(a, n, tol, threads) : tiled_factor_kernel(a, n, tol);
    }
    // A team only where a row's work outweighs its hand-over between cores, and the flags' ring
    // outlasts the threads' spread.
    const int threads = (bw >= kMinTeamWidth || team_thresholds_ignored()) && bw <= kMaxTeamWidth
                            ? team_size(static_cast<double>(n) * bw * bw, kFactorGrain)
                            : 1;
    if (std::min(threads, bw / kOwned) > 1)
        return factor_columns_team(a, n, bw, tol, std::min(threads, bw / kOwned));
    return factor_columns(a, n, bw, tol);
}

} // namespace internal
} // namespace kelmatrix
