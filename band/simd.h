// KELMATRIX vector vocabulary of the band kernels (internal)
// The vector types of the instruction sets and the few operations the kernels use on them.
//
// Vec<L> is L doubles side by side (the GCC / Clang vector extension): every arithmetic
// operation (-, *, / and a scalar broadcast by them) acts on each lane exactly as the scalar
// operation would, so a kernel that keeps one independent sum per lane gives the scalar bits.
// There is no fused multiply-add: a - b * f is a multiply, rounded, then a subtraction (the
// library compiles with -ffp-contract=off, and no operation here asks for one). Each
// instruction set has one vector type, as wide as its registers: Vec<2> for SSE2 (every
// x86-64), Vec<4> for AVX2, Vec<8> for AVX-512; a kernel may also use a narrower one. load and
// store assume no alignment; select and transpose only move lanes, every bit kept. The
// operations of a type are compiled for its instruction set (the attribute below), so they may
// be called from a kernel compiled for that set or a wider one, and are always inlined there.
#ifndef KELMATRIX_SIMD_H
#define KELMATRIX_SIMD_H

#include <immintrin.h>

#include <cstring>

namespace kelmatrix {
namespace internal {
namespace simd {

template <int L> struct Lanes {
    typedef double vec __attribute__((vector_size(L * sizeof(double))));
    typedef long long mask __attribute__((vector_size(L * sizeof(long long))));
};

/// L doubles, and a lane mask of the same width (each lane all ones or all zeros), as the
/// vector extension's comparisons return it.
template <int L> using Vec = typename Lanes<L>::vec;
template <int L> using Mask = typename Lanes<L>::mask;

/// p[0 .. L - 1] as a vector (any alignment).
template <class V> V load(const double* p);
/// x in every lane.
template <class V> V splat(double x);
/// The lane indices 0, 1, .. L - 1, to compare with a count (lanes() < n: the first n lanes).
template <class M> M lanes();

// The operations of one width, compiled for the instruction set named by TARGET. select(take,
// a, b) keeps a's lane where take is set and b's elsewhere, bit for bit.
#define KELMATRIX_SIMD_OPERATIONS(L, TARGET)                                                       \
    template <> TARGET inline __attribute__((always_inline)) Vec<L> load<Vec<L>>(const double* p)  \
    {                                                                                              \
        Vec<L> v;                                                                                  \
        std::memcpy(&v, p, sizeof v);                                                              \
        return v;                                                                                  \
    }                                                                                              \
    TARGET inline __attribute__((always_inline)) void store(double* p, Vec<L> v)                   \
    {                                                                                              \
        std::memcpy(p, &v, sizeof v);                                                              \
    }                                                                                              \
    template <> TARGET inline __attribute__((always_inline)) Vec<L> splat<Vec<L>>(double x)        \
    {                                                                                              \
        Vec<L> v;                                                                                  \
        for (int l = 0; l < L; ++l)                                                                \
            v[l] = x;                                                                              \
        return v;                                                                                  \
    }                                                                                              \
    template <> TARGET inline __attribute__((always_inline)) Mask<L> lanes<Mask<L>>()              \
    {                                                                                              \
        Mask<L> m;                                                                                 \
        for (int l = 0; l < L; ++l)                                                                \
            m[l] = l;                                                                              \
        return m;                                                                                  \
    }                                                                                              \
    TARGET inline __attribute__((always_inline)) Vec<L> select(Mask<L> take, Vec<L> a, Vec<L> b)   \
    {                                                                                              \
        Mask<L> x, y;                                                                              \
        std::memcpy(&x, &a, sizeof x);                                                             \
        std::memcpy(&y, &b, sizeof y);                                                             \
        x = (x & take) | (y & ~take);                                                              \
        std::memcpy(&a, &x, sizeof a);                                                             \
        return a;                                                                                  \
    }

KELMATRIX_SIMD_OPERATIONS(2, )
KELMATRIX_SIMD_OPERATIONS(4, __attribute__((target("avx2"))))
KELMATRIX_SIMD_OPERATIONS(8, __attribute__((target("avx512f"))))
#undef KELMATRIX_SIMD_OPERATIONS

// transpose(r): r[c] = rows k .. k + L - 1 of column c becomes r[m] = row k + m across the
// columns c. A butterfly, each stage swapping one bit of the row index with the same bit of the
// column index.

inline void transpose(Vec<2>* r)
{
    const __m128d p = (__m128d)r[0], q = (__m128d)r[1];
    r[0] = (Vec<2>)_mm_unpacklo_pd(p, q);
    r[1] = (Vec<2>)_mm_unpackhi_pd(p, q);
}

__attribute__((target("avx2"))) inline void transpose(Vec<4>* r)
{
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
        r[c] = (Vec<4>)x[c];
}

// (The steps use the all-lanes masked forms: GCC 12's unmasked ones start from an undefined
// vector and warn.)
__attribute__((target("avx512f"))) inline void transpose(Vec<8>* r)
{
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
        r[c] = (Vec<8>)x[c];
}

} // namespace simd
} // namespace internal
} // namespace kelmatrix

#endif
