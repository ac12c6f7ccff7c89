// KELMATRIX wide-band factor update, one instruction set (internal)
// Included once per instruction set by tiled_factor*.cpp beside tiled_factor_body.h, with the
// same KEL_ISA_NS, KEL_ISA_TARGET and KEL_ISA_WIDTH.
//
// The inner update of the column kernel for a wide band (factor_kernels.cpp): eight sums
// s[jj] = A(i, j0 + jj), one per column, each take the terms U(k, j0 + jj) U(k, i) for k
// ascending over a run of rows that reaches all eight columns, skipping the k whose pivot is
// not positive. The columns hold U(k, j) contiguous in k, so a run of KEL_ISA_WIDTH rows k of
// KEL_ISA_WIDTH columns is loaded as vectors down the columns and transposed in registers into
// vectors across the columns; each then takes its rows' terms one k after the other. Every sum
// gets exactly the scalar sequence: each product rounded, then subtracted, in ascending k.
#include <immintrin.h>

#include <cstring>

namespace kelmatrix {
namespace internal {
namespace KEL_ISA_NS {
namespace {

constexpr int kColumns = 8; // the columns j of one block of the column kernel

typedef double ColumnVec __attribute__((vector_size(KEL_ISA_WIDTH * sizeof(double))));

// r[c] = rows k .. k + L - 1 of column c becomes r[m] = row k + m across the columns c: a
// butterfly, each stage swapping one bit of the row index with the same bit of the column index.
// (The AVX-512 steps use the all-lanes masked forms: GCC 12's unmasked ones start from an
// undefined vector and warn.)
KEL_ISA_TARGET inline void transpose(ColumnVec* r)
{
#if KEL_ISA_WIDTH == 8
    const __m512i lo2 = _mm512_setr_epi64(0, 1, 8, 9, 4, 5, 12, 13);
    const __m512i hi2 = _mm512_setr_epi64(2, 3, 10, 11, 6, 7, 14, 15);
    __m512d x[8];
    for (int c = 0; c < 8; ++c)
        x[c] = (__m512d)r[c];
    for (int a = 0; a < 8; a += 2) { // bit 0
        const __m512d p = x[a], q = x[a + 1];
        x[a] = _mm512_mask_unpacklo_pd(p, 0xFF, p, q);
        x[a + 1] = _mm512_mask_unpackhi_pd(p, 0xFF, p, q);
    }
    for (int b = 0; b < 4; ++b) { // bit 1: rows 0, 1, 4, 5 with rows 2, 3, 6, 7
        const int a = b + (b & 2);
        const __m512d p = x[a], q = x[a + 2];
        x[a] = _mm512_permutex2var_pd(p, lo2, q);
        x[a + 2] = _mm512_permutex2var_pd(p, hi2, q);
    }
    for (int a = 0; a < 4; ++a) { // bit 2: 128-bit lanes 0, 1 of both, then 2, 3 of both
        const __m512d p = x[a], q = x[a + 4];
        x[a] = _mm512_mask_shuffle_f64x2(p, 0xFF, p, q, 0x44);
        x[a + 4] = _mm512_mask_shuffle_f64x2(p, 0xFF, p, q, 0xEE);
    }
    for (int c = 0; c < 8; ++c)
        r[c] = (ColumnVec)x[c];
#elif KEL_ISA_WIDTH == 4
    __m256d x[4];
    for (int c = 0; c < 4; ++c)
        x[c] = (__m256d)r[c];
    for (int a = 0; a < 4; a += 2) { // bit 0
        const __m256d p = x[a], q = x[a + 1];
        x[a] = _mm256_unpacklo_pd(p, q);
        x[a + 1] = _mm256_unpackhi_pd(p, q);
    }
    for (int a = 0; a < 2; ++a) { // bit 1: 128-bit halves
        const __m256d p = x[a], q = x[a + 2];
        x[a] = _mm256_permute2f128_pd(p, q, 0x20);
        x[a + 2] = _mm256_permute2f128_pd(p, q, 0x31);
    }
    for (int c = 0; c < 4; ++c)
        r[c] = (ColumnVec)x[c];
#else
    const __m128d p = (__m128d)r[0], q = (__m128d)r[1];
    r[0] = (ColumnVec)_mm_unpacklo_pd(p, q);
    r[1] = (ColumnVec)_mm_unpackhi_pd(p, q);
#endif
}

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
    ColumnVec acc[V];
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
                ColumnVec r[L];
                for (int c = 0; c < L; ++c)
                    std::memcpy(&r[c], col[v * L + c] + k, sizeof r[c]);
                transpose(r);
                for (int m = 0; m < L; ++m)
                    acc[v] -= r[m] * ci[k + m];
            }
            k += L;
            continue;
        }
        if (positive[k & mask]) { // strict: dropped (-1) and zero pivots do not contribute
            const double f = ci[k];
            for (int v = 0; v < V; ++v) {
                ColumnVec x;
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
