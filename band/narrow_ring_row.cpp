// KELMATRIX narrow ring rows (internal)
// Row i of the ring factor kernel (factor_kernels.cpp) for band widths below 16, on pairs.
//
// Each U(i, i + t) takes its terms U(k, i + t) U(k, i) in ascending k, each product rounded
// before its subtraction, exactly as the generic loops. Why a file of its own: the partial sums
// of a row are written one by one and read back on the next row's critical path, and GCC's
// vectorizers would read pairs of them with one wide load, which the processor cannot forward
// from two narrow stores (a stall of about a dozen cycles per row: the width-4 rows were slower
// than the width-8 ones). The vector code below is written by hand, and the build compiles this
// file, and nothing else, with GCC's vectorizers off (kelmatrix_add_library). Vectorizing or not
// changes no bit here: no sum is ever reordered.
#include <algorithm>

#include "band/direct_kernels.h"
#include "band/simd.h"

namespace kelmatrix {
namespace internal {
namespace {

using Pair = simd::Vec<2>;
using simd::load;
using simd::store;

} // namespace

// Row i of the ring kernel: U(i, i+t) for t = 1 .. jl, jl = min(w, n - 1 - i); the rows
// k = i - e of the window start at window - e R. Eight columns j at a time keep their running
// sums in registers while the rows k pass in ascending order (e descending); row k reaches
// t <= min(w - e, jl), so the first rows of a block may cover only part of it.
template <int W, bool Full>
void narrow_ring_row(const StridedView& a, int i, int w_runtime, int jl_runtime, double pivot,
                     const double* window, double* ri, double* ri2)
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

// The widths the ring kernel instantiates (factor_kernels.cpp): 1 .. 8 fixed, 0 at run time.
#define KELMATRIX_NARROW_ROWS(W)                                                                   \
    template void narrow_ring_row<W, true>(const StridedView&, int, int, int, double,              \
                                           const double*, double*, double*);                       \
    template void narrow_ring_row<W, false>(const StridedView&, int, int, int, double,             \
                                            const double*, double*, double*);
KELMATRIX_NARROW_ROWS(0)
KELMATRIX_NARROW_ROWS(1)
KELMATRIX_NARROW_ROWS(2)
KELMATRIX_NARROW_ROWS(3)
KELMATRIX_NARROW_ROWS(4)
KELMATRIX_NARROW_ROWS(5)
KELMATRIX_NARROW_ROWS(6)
KELMATRIX_NARROW_ROWS(7)
KELMATRIX_NARROW_ROWS(8)
#undef KELMATRIX_NARROW_ROWS

} // namespace internal
} // namespace kelmatrix
