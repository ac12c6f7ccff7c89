// KELMATRIX two-lane doubles (internal)
// The vector type the direct kernels use to carry two independent sums side by side.
//
// Pair is the GCC / Clang vector extension over two doubles: every operation acts on each lane
// exactly as the scalar operation would, so a kernel that keeps one sum per lane gives the
// scalar bits. Loads and stores go through memcpy, so no alignment is assumed.
#ifndef KELMATRIX_SIMD_PAIR_H
#define KELMATRIX_SIMD_PAIR_H

#include <cstring>

namespace kelmatrix {
namespace internal {

typedef double Pair __attribute__((vector_size(16)));

inline Pair load_pair(const double* p)
{
    Pair v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void store_pair(double* p, Pair v)
{
    std::memcpy(p, &v, sizeof v);
}

inline Pair splat(double x)
{
    return Pair{x, x};
}

} // namespace internal
} // namespace kelmatrix

#endif
