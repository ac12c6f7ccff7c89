// KELMATRIX ring factor kernel (internal)
// Cholesky_factor on a strided view of an upper band up to width 63, bit for bit as the loops.
//
// Row k of U still needed is kept in a small row-major ring on the stack, so the update of row
// i runs over contiguous j with the rows k passing in ascending order: below width 16 on pairs
// (narrow_ring_row), from 16 on the widest vectors (ring_row_kernel). Each U(i, i + t) takes its
// terms U(k, i + t) U(k, i) in ascending k, each product rounded before its subtraction. Why a
// file of its own: the partial sums of a narrow row are written one by one and read back on
// the next row's critical path, and GCC's vectorizers would read pairs of them with one wide
// load, which the processor cannot forward from two narrow stores (a stall of about a dozen
// cycles per row: the width-4 rows were slower than the width-8 ones). The vector code here is
// written by hand, and the build compiles this file with GCC's vectorizers off
// (kelmatrix_add_library). Vectorizing or not changes no bit: no sum is ever reordered.
#include <algorithm>
#include <cmath>

#include "band/direct_kernels.h"
#include "band/simd.h"

namespace kelmatrix {
namespace internal {
namespace {

using Pair = simd::Vec<2>;
using simd::load;
using simd::store;

// The ring of 2 (w + 1)^2 doubles takes at most 2 * 64 * 64 doubles (64 KiB) of stack.
constexpr int kRingDoubles = 2 * (kRingWidth + 1) * (kRingWidth + 1);
// From this width the rows of the ring kernel run on ring_row_kernel (several vectors of sums).
constexpr int kWideRow = 16;

// Row i of the ring kernel: U(i, i+t) for t = 1 .. jl, jl = min(w, n - 1 - i); the rows
// k = i - e of the window start at window - e R. Eight columns j at a time keep their running
// sums in registers while the rows k pass in ascending order (e descending); row k reaches
// t <= min(w - e, jl), so the first rows of a block may cover only part of it.
template <int W, bool Full>
__attribute__((noinline)) void narrow_ring_row(const StridedView& a, int i, int w_runtime,
                                               int jl_runtime, double pivot, const double* window,
                                               double* ri, double* ri2)
{
    constexpr int kBlock = 8;
    const int w = W > 0 ? W : w_runtime, R = w + 1, jl = Full ? w : jl_runtime;
    const Pair p = simd::splat<Pair>(pivot);
    for (int t0 = 1; t0 <= jl; t0 += kBlock) {
        const int tb = std::min(kBlock, jl - t0 + 1);
        double acc[kBlock];
        for (int q = 0; q < tb; ++q)
            acc[q] = a(i, i + t0 + q);
        int e = w - t0; // rows with e > w - t0 do not reach t0
        for (; e >= 1 && std::min(w - e, jl) - t0 + 1 < tb; --e) {
            const double* rk = window - e * R;
            if (rk[0] > 0.0) { // strict: dropped (-1) and zero pivots do not contribute
                const double f = rk[e];
                const int cnt = std::min(w - e, jl) - t0 + 1;
                for (int q = 0; q < cnt; ++q)
                    acc[q] -= rk[e + t0 + q] * f;
            }
        }
        if (tb == kBlock && e >= 1) { // rows reaching the whole block: pairs pay
            // Built from the scalars (not reloaded as pairs: a wide load of narrow stores
            // would stall on the row-to-row critical path).
            Pair s0 = {acc[0], acc[1]}, s1 = {acc[2], acc[3]}, s2 = {acc[4], acc[5]},
                 s3 = {acc[6], acc[7]};
            for (; e >= 1; --e) {
                const double* rk = window - e * R;
                if (rk[0] > 0.0) {
                    const Pair f = simd::splat<Pair>(rk[e]);
                    const double* x = rk + e + t0;
                    s0 -= load<Pair>(x) * f;
                    s1 -= load<Pair>(x + 2) * f;
                    s2 -= load<Pair>(x + 4) * f;
                    s3 -= load<Pair>(x + 6) * f;
                }
            }
            const Pair u[4] = {s0 / p, s1 / p, s2 / p, s3 / p};
            for (int v = 0; v < 4; ++v) {
                store(ri + t0 + 2 * v, u[v]);
                store(ri2 + t0 + 2 * v, u[v]);
                a(i, i + t0 + 2 * v) = u[v][0];
                a(i, i + t0 + 2 * v + 1) = u[v][1];
            }
            continue;
        }
        const int tq = std::min(tb, kBlock); // (e == 0 here when tb == kBlock)
        for (; e >= 1; --e) {
            const double* rk = window - e * R;
            if (rk[0] > 0.0) {
                const double f = rk[e];
                for (int q = 0; q < tq; ++q)
                    acc[q] -= rk[e + t0 + q] * f;
            }
        }
        for (int q = 0; q < tq; ++q) { // one at a time: acc holds scalars (no wide reload)
            const double u = acc[q] / pivot;
            ri[t0 + q] = ri2[t0 + q] = u;
            a(i, i + t0 + q) = u;
        }
    }
}

// Narrow band: row k of U, U(k, k .. k + w), is kept in a ring of w + 1 slots, each slot stored
// twice so that the rows i - w .. i - 1 are always contiguous; slots not yet written stand for
// rows before row 0 and hold a dropped pivot, so every row away from the end runs loops of the
// same length (fixed at compile time for the widths instantiated). W > 0: the width w, else
// w = min(bw, n - 1).
template <int W> int factor_ring(const StridedView& a, int n, int bw, double tol)
{
    const int w = W > 0 ? W : std::min(bw, n - 1), R = w + 1;
    alignas(32) double ring[kRingDoubles];
    const Pair dropped = simd::splat<Pair>(-1.0); // by pairs: the vectorizers are off here
    for (int k = 0; k < 2 * R * R; k += 2)        // (2 R^2 is even)
        store(ring + k, dropped);
    int count = 0;
    for (int i = 0, si = 0; i < n; ++i, si = si + 1 == R ? 0 : si + 1) {
        double* const ri = ring + si * R;
        double* const ri2 = ri + R * R;
        const double* const window = ri2; // row i - e starts at window - e R

        double d = a(i, i);
        for (int e = w; e >= 1; --e) { // k = i - e ascending
            const double* rk = window - e * R;
            if (rk[0] > 0.0) // strict: dropped (-1) and zero pivots do not contribute
                d -= rk[e] * rk[e];
        }
        if (d < tol) { // dropped pivot; d == tol and NaN are accepted
            a(i, i) = -1.0;
            ri[0] = ri2[0] = -1.0;
            continue;
        }
        ++count;
        const double pivot = std::sqrt(d);
        a(i, i) = pivot;
        ri[0] = ri2[0] = pivot;
        if (w >= kWideRow) // wide enough for several vectors of sums side by side
            ring_row_kernel(a, i, w, std::min(w, n - 1 - i), pivot, window, ri, ri2);
        else if (i + w <= n - 1)
            narrow_ring_row<W, true>(a, i, w, w, pivot, window, ri, ri2);
        else // the last rows: j stops at n - 1
            narrow_ring_row<W, false>(a, i, w, n - 1 - i, pivot, window, ri, ri2);
    }
    return count;
}

} // namespace

int ring_factor_kernel(const StridedView& a, int n, int bw, double tol)
{
    switch (std::min(bw, n - 1)) {
    case 1:
        return factor_ring<1>(a, n, bw, tol);
    case 2:
        return factor_ring<2>(a, n, bw, tol);
    case 3:
        return factor_ring<3>(a, n, bw, tol);
    case 4:
        return factor_ring<4>(a, n, bw, tol);
    case 5:
        return factor_ring<5>(a, n, bw, tol);
    case 6:
        return factor_ring<6>(a, n, bw, tol);
    case 7:
        return factor_ring<7>(a, n, bw, tol);
    case 8:
        return factor_ring<8>(a, n, bw, tol);
    default:
        break;
    }
    if (std::min(bw, n - 1) <= kRingWidth)
        return factor_ring<0>(a, n, bw, tol);
    return factor_ring<0>(a, n, bw, tol);
}

} // namespace internal
} // namespace kelmatrix
