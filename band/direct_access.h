// KELMATRIX direct element access (internal)
// Non-virtual replicas of the two library accessors, and strided views of one-sided regions.
//
// The native solvers are written once, as templates over the element access, and run either
// through the virtual accessor (any storage) or, when a matrix is exactly a KelMatrix or a
// KelMatrixBanded, through DirectAccess: the same address computation (symmetric mirroring and
// out-of-band addressing included) without the virtual call. A loop that keeps the generic
// order of reads and writes is then exact whatever the addresses are. Kernels that reorder work
// (across j in the factorization, across right-hand sides in the substitutions) use a
// StridedView of a region that lies on one side of the diagonal, and only after the checks
// below have shown that no two elements they treat as independent share an address.
#ifndef KELMATRIX_DIRECT_ACCESS_H
#define KELMATRIX_DIRECT_ACCESS_H

#include <algorithm>
#include <cstdint>
#include <typeinfo>
#include <utility>

#include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace internal {

/// Element (i, j) at p[base + i * rs + j * cs]; valid for the region it was made for.
struct StridedView {
    double* p = nullptr;
    long long base = 0, rs = 0, cs = 0;
    double& operator()(long long i, long long j) const { return p[base + i * rs + j * cs]; }
    long long at(long long i, long long j) const { return base + i * rs + j * cs; }
};

/// Exactly what KelMatrix::operator() or KelMatrixBanded::operator() computes, inline.
struct DirectAccess {
    double* p = nullptr;
    long long base = 0, ld = 0; // dense: 0 and rows; band: kl + ku and 2 kl + ku
    bool symmetric = false, uses_lower = false;

    double& operator()(long long i, long long j) const
    {
        if (symmetric && (uses_lower ? j > i : i > j))
            std::swap(i, j);
        return p[base + ld * j + i];
    }

    /// The view of the accesses (i, j) with i <= j (upper = true) or i >= j (false).
    StridedView side(bool upper) const
    {
        const bool swapped = symmetric && (upper ? uses_lower : !uses_lower);
        return StridedView{p, base, swapped ? ld : 1, swapped ? 1 : ld};
    }
};

/// True when M is exactly one of the library's storage types, whose accessor DirectAccess
/// replicates. Derived classes may override the accessor, so they take the generic route.
inline bool has_direct_access(const KelGenericMatrix& M)
{
    return typeid(M) == typeid(KelMatrix) || typeid(M) == typeid(KelMatrixBanded);
}

/// The replica of M's accessor; M must pass has_direct_access.
inline DirectAccess direct_access(KelGenericMatrix& M)
{
    DirectAccess a;
    a.p = M.GetElements();
    if (typeid(M) == typeid(KelMatrixBanded)) {
        const long long kl = M.GetLowerBandWidth(), ku = M.GetUpperBandWidth();
        a.base = kl + ku;
        a.ld = 2 * kl + ku;
    } else {
        a.ld = M.GetRowDim();
    }
    a.symmetric = M.SymmetricQ();
    a.uses_lower = M.UsesLowerQ();
    return a;
}

/// Lowest and highest byte address a view reaches over a convex set of index pairs given by
/// its corners (an address is linear in the indices, so its extremes lie there).
struct Span {
    long long lo, hi;
    bool meets(const Span& o) const { return lo <= o.hi && o.lo <= hi; }
};

inline long long address_of(const StridedView& v, long long i, long long j)
{
    return static_cast<long long>(reinterpret_cast<std::intptr_t>(v.p)) +
           static_cast<long long>(sizeof(double)) * v.at(i, j);
}

template <int N> Span span_of(const StridedView& v, const long long (&corners)[N][2])
{
    Span s{address_of(v, corners[0][0], corners[0][1]),
           address_of(v, corners[0][0], corners[0][1])};
    for (const auto& c : corners) {
        s.lo = std::min(s.lo, address_of(v, c[0], c[1]));
        s.hi =
            std::max(s.hi, address_of(v, c[0], c[1]) + static_cast<long long>(sizeof(double)) - 1);
    }
    return s;
}

/// Addresses of the upper band {0 <= i <= j <= min(n - 1, i + bw)}, n >= 1, bw >= 1.
inline Span band_span(const StridedView& v, int n, int bw)
{
    const long long w = std::min(bw, n - 1), last = n - 1;
    const long long corners[4][2] = {{0, 0}, {0, w}, {last - w, last}, {last, last}};
    return span_of(v, corners);
}

/// Addresses of rows [r0, r0 + rows) x columns [c0, c0 + cols), both counts >= 1.
inline Span block_span(const StridedView& v, int r0, int rows, int c0, int cols)
{
    const long long r1 = r0 + rows - 1LL, c1 = c0 + cols - 1LL;
    const long long corners[4][2] = {{r0, c0}, {r0, c1}, {r1, c0}, {r1, c1}};
    return span_of(v, corners);
}

/// True when a unit-stride-in-one-index view gives distinct addresses to every pair of the
/// upper band of order n and width bw (two columns of a band with leading dimension L meet
/// once bw exceeds L).
inline bool band_is_distinct(const StridedView& v, int n, int bw)
{
    if (n <= 1)
        return true;
    long long far;
    if (v.rs == 1)
        far = v.cs;
    else if (v.cs == 1)
        far = v.rs;
    else
        return false;
    return far >= 1 && std::min(bw, n - 1) <= far;
}

/// True when the rows x cols block of a view has distinct addresses.
inline bool block_is_distinct(const StridedView& v, int rows, int cols)
{
    if (rows <= 1 && cols <= 1)
        return true;
    if (v.rs == 1 && v.cs == 1)
        return rows <= 1 || cols <= 1;
    if (v.rs == 1)
        return cols <= 1 || v.cs >= rows || v.cs <= -rows;
    if (v.cs == 1)
        return rows <= 1 || v.rs >= cols || v.rs <= -cols;
    return false;
}

} // namespace internal
} // namespace kelmatrix

#endif
