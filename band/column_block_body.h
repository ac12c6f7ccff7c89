// KELMATRIX wide-band factor update, one instruction set (internal)
// Included once per instruction set by vector_kernels.h (KEL_ISA_NS, KEL_ISA_TARGET and
// KEL_ISA_WIDTH as described there).
//
// The inner update of the column kernel for a wide band (factor_kernels.cpp): eight sums
// s[jj] = A(i, j0 + jj), one per column, each take the terms U(k, j0 + jj) U(k, i) for k
// ascending over a run of rows that reaches all eight columns, skipping the k whose pivot is
// not positive. The columns hold U(k, j) contiguous in k, so a run of KEL_ISA_WIDTH rows k of
// KEL_ISA_WIDTH columns is loaded as vectors down the columns and transposed in registers into
// vectors across the columns; each then takes its rows' terms one k after the other. Every sum
// gets exactly the scalar sequence: each product rounded, then subtracted, in ascending k.
#include <cstring>

#include "band/simd.h"

namespace kelmatrix {
namespace internal {
namespace KEL_ISA_NS {
namespace {

constexpr int kColumns = 8; // the columns j of one block of the column kernel

using Vec = simd::Vec<KEL_ISA_WIDTH>;

// s[jj] -= U(k, j0 + jj) U(k, i) for the C columns j0 + jj and k = k .. k_end - 1 ascending
// with positive[k & mask] (each flag 0 or 1); col[jj] points at U(0, j0 + jj), ci at U(0, i).
template <int C>
KEL_ISA_TARGET void update_columns(const double* const* col, const double* ci,
                                   const unsigned char* positive, int mask, int k, int k_end,
                                   double* s)
{
    constexpr int L = KEL_ISA_WIDTH, V = C / L;
    // L flags of 1 side by side, for reading L of them at once.
    constexpr unsigned long long kAllPositive = 0x0101010101010101ULL >> (64 - 8 * L);
    Vec acc[V];
    for (int v = 0; v < V; ++v)
        for (int l = 0; l < L; ++l) // lane by lane: s was just written as scalars
            acc[v][l] = s[v * L + l];
    while (k < k_end) {
        bool run = k + L <= k_end;
        if (run && (k & mask) + L <= mask + 1) {
            unsigned long long flags = 0;
            std::memcpy(&flags, positive + (k & mask), L);
            run = flags == kAllPositive;
        } else {
            for (int m = 0; run && m < L; ++m)
                run = positive[(k + m) & mask];
        }
        if (run) {
            for (int v = 0; v < V; ++v) {
                Vec r[L];
                for (int c = 0; c < L; ++c) // rows k .. k + L - 1 of column c
                    r[c] = simd::load<Vec>(col[v * L + c] + k);
                simd::transpose(r); // row k + m across the columns
                for (int m = 0; m < L; ++m)
                    acc[v] -= r[m] * ci[k + m];
            }
            k += L;
            continue;
        }
        if (positive[k & mask]) { // strict: dropped (-1) and zero pivots do not contribute
            const double f = ci[k];
            for (int v = 0; v < V; ++v) {
                Vec x;
                for (int l = 0; l < L; ++l)
                    x[l] = col[v * L + l][k];
                acc[v] -= x * f;
            }
        }
        ++k;
    }
    for (int v = 0; v < V; ++v)
        for (int l = 0; l < L; ++l)
            s[v * L + l] = acc[v][l];
}

} // namespace

// update_columns for 8 or 16 columns (two blocks: two independent chains on the widest vectors).
KEL_ISA_TARGET void column_block(const double* const* col, const double* ci,
                                 const unsigned char* positive, int mask, int k, int k_end,
                                 double* s, int columns)
{
    if (columns == 2 * kColumns)
        update_columns<2 * kColumns>(col, ci, positive, mask, k, k_end, s);
    else
        update_columns<kColumns>(col, ci, positive, mask, k, k_end, s);
}

} // namespace KEL_ISA_NS
} // namespace internal
} // namespace kelmatrix
