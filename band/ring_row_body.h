// KELMATRIX ring-kernel row update for widths 16 to 63, one instruction set (internal)
// Included once per instruction set by vector_kernels.h (KEL_ISA_NS, KEL_ISA_TARGET and
// KEL_ISA_WIDTH as described there).
//
// Row i of the narrow-band factorization (factor_kernels.cpp): U(i, i + t) for t = 1 .. jl from
// A(i, i + t) minus U(k, i + t) U(k, i) over the rows k = i - e of the ring that reach column
// i + t (t + e <= w) with a positive pivot, k ascending, then divided by the pivot. A group of up
// to kChunks vectors of columns keeps its sums in registers while the rows pass, so that the
// chunks' chains run side by side. Row k reaches a prefix of the columns; in the chunk it cuts
// only the lanes it reaches take the term (a select, not arithmetic). Every sum gets exactly the
// scalar sequence: each product rounded, then subtracted, in ascending k.
#include <algorithm>

#include "band/direct_route.h"
#include "band/simd.h"

namespace kelmatrix {
namespace internal {
namespace KEL_ISA_NS {
namespace {

using Vec = simd::Vec<KEL_ISA_WIDTH>;
using Mask = simd::Mask<KEL_ISA_WIDTH>;

constexpr int kChunks = 8; // vectors of sums held at once

// Columns t0 .. t0 + tn - 1 of row i, tn <= kChunks * KEL_ISA_WIDTH.
KEL_ISA_TARGET void ring_group(const StridedView& a, int i, int w, int jl, int t0, double pivot,
                               const double* window, double* ri, double* ri2)
{
    constexpr int L = KEL_ISA_WIDTH;
    const int R = w + 1, tn = std::min(kChunks * L, jl - t0 + 1);
    // Every index into acc is a constant once the loops over chunks and lanes are unrolled, so
    // the sums stay in registers (a sum stored lane by lane and reloaded whole would stall).
    const Mask lane = simd::lanes<Mask>();
    Vec acc[kChunks];
#pragma GCC unroll 8
    for (int c = 0; c < kChunks; ++c) {
        Vec v = {};
#pragma GCC unroll 8
        for (int l = 0; l < L; ++l)
            if (c * L + l < tn)
                v[l] = a(i, i + t0 + c * L + l);
        acc[c] = v;
    }
    for (int e = w - t0; e >= 1; --e) { // rows k = i - e that reach t0, k ascending
        const double* rk = window - e * R;
        if (!(rk[0] > 0.0)) // strict: dropped (-1) and zero pivots do not contribute
            continue;
        const double f = rk[e];
        const double* x = rk + e + t0;                  // U(k, i + t0)
        const int reach = std::min(w - e, jl) - t0 + 1; // columns of the group row k reaches
#pragma GCC unroll 8
        for (int c = 0; c < kChunks; ++c) {
            const int left = reach - c * L;
            if (left >= L) {
                acc[c] -= simd::load<Vec>(x + c * L) * f;
            } else if (left > 0) { // lanes below left take the term, the others keep their sum
                const Vec y = simd::load<Vec>(x + c * L); // past the row: the ring's next slot
                acc[c] = simd::select(lane < left, acc[c] - y * f, acc[c]);
            }
        }
    }
#pragma GCC unroll 8
    for (int c = 0; c < kChunks; ++c) {
        const Vec u = acc[c] / pivot;
#pragma GCC unroll 8
        for (int l = 0; l < L; ++l)
            if (c * L + l < tn) {
                const int t = t0 + c * L + l;
                ri[t] = ri2[t] = u[l];
                a(i, i + t) = u[l];
            }
    }
}

} // namespace

KEL_ISA_TARGET void ring_row(const StridedView& a, int i, int w, int jl, double pivot,
                             const double* window, double* ri, double* ri2)
{
    for (int t0 = 1; t0 <= jl; t0 += kChunks * KEL_ISA_WIDTH)
        ring_group(a, i, w, jl, t0, pivot, window, ri, ri2);
}

} // namespace KEL_ISA_NS
} // namespace internal
} // namespace kelmatrix
