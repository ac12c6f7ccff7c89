// KELMATRIX direct route decisions
// The one place that decides whether a native band routine may address arrays directly.
//
// The three conditions of direct_route.h, as three predicates (is_*, holds_*, apart) that every
// decision below combines, and the views read off the matrices' own accessors. Any matrix that
// fails a condition sends the whole call down the generic route, which gives the same bits.
#include <algorithm>
#include <cstdint>
#include <typeinfo>

#include "band/direct_route.h"

namespace kelmatrix {
namespace internal {
namespace {

// ---- condition 1: exactly one of the library's storage types ----

bool is_dense(const KelGenericMatrix& M)
{
    return typeid(M) == typeid(KelMatrix);
}

bool is_band(const KelGenericMatrix& M)
{
    return typeid(M) == typeid(KelMatrixBanded);
}

bool is_bordered(const KelGenericMatrix& M)
{
    return typeid(M) == typeid(KelMatrixBordered);
}

// ---- condition 2: the array holds what the call touches, at distinct addresses ----

// The upper band of width w <= n - 1 of M's leading order n. Dense storage holds any band; band
// storage holds it when its stored side (the upper, or the lower one it mirrors into) is at
// least w wide; either way inside the array.
bool holds_band(KelGenericMatrix& M, int n, int w)
{
    const long long rows = M.GetRowDim(), cols = M.GetColDim(), size = M.GetStorageSize();
    if (is_dense(M))
        return rows >= n && cols >= n && rows * cols <= size;
    if (is_band(M)) {
        const long long kl = M.GetLowerBandWidth(), ku = M.GetUpperBandWidth();
        const long long side = M.SymmetricQ() && M.UsesLowerQ() ? kl : ku;
        return kl >= 0 && side >= w && cols >= n && (2 * kl + ku + 1) * cols <= size;
    }
    return false;
}

// Columns 0 .. cols - 1, rows 0 .. rows - 1 of a right-hand side: dense and not mirrored.
bool holds_columns(KelGenericMatrix& B, long long rows, int cols)
{
    const long long r = B.GetRowDim(), c = B.GetColDim();
    return is_dense(B) && !B.SymmetricQ() && r >= rows && c >= cols && r * c <= B.GetStorageSize();
}

// A width bw >= 1 whose band of order n the kernels' stack scratch serves.
bool serves(int bw, int n)
{
    return bw >= 1 && std::min(bw, n - 1) <= kMaxDirectWidth;
}

// ---- condition 3: a written array shares nothing with another operand's ----

bool apart(const KelGenericMatrix& M, const KelGenericMatrix& N)
{
    const auto begin = [](const KelGenericMatrix& X) {
        return reinterpret_cast<std::uintptr_t>(X.GetElements());
    };
    const auto end = [&](const KelGenericMatrix& X) {
        return begin(X) +
               sizeof(double) * static_cast<std::uintptr_t>(std::max(0, X.GetStorageSize()));
    };
    return end(M) <= begin(N) || end(N) <= begin(M);
}

// ---- views, read off the accessor ----

// The upper triangle of the order-n block at (at, at): (at, at), (at, at + 1) and
// (at + 1, at + 1) all lie on the side i <= j, whose addressing is affine in a library type.
StridedView upper_view(KelGenericMatrix& M, int at, int n)
{
    StridedView v;
    if (n < 1)
        return v;
    v.p = &M(at, at);
    if (n >= 2) {
        const double* right = &M(at, at + 1);
        v.cs = right - v.p;
        v.rs = &M(at + 1, at + 1) - right;
    }
    return v;
}

// The rows x cols block at (i0, j0), which lies on one side of M's diagonal.
StridedView block_view(KelGenericMatrix& M, int i0, int j0, int rows, int cols)
{
    StridedView v;
    if (rows < 1 || cols < 1)
        return v;
    v.p = &M(i0, j0);
    if (rows >= 2)
        v.rs = &M(i0 + 1, j0) - v.p;
    if (cols >= 2)
        v.cs = &M(i0, j0 + 1) - v.p;
    return v;
}

} // namespace

// ---- the decisions ----

bool direct_factor(KelGenericMatrix& A, int bw, StridedView& a)
{
    const int n = A.GetRowDim();
    if (n < 1 || !serves(bw, n) || !holds_band(A, n, std::min(bw, n - 1)))
        return false;
    a = upper_view(A, 0, n);
    return true;
}

bool direct_substitution(KelGenericMatrix& U, int bw, KelGenericMatrix& B, int off, int c_end,
                         StridedView& u, StridedView& b)
{
    const int n = U.GetRowDim();
    if (n < 1 || off < 0 || !serves(bw, n) || !holds_band(U, n, std::min(bw, n - 1)) ||
        !holds_columns(B, static_cast<long long>(off) + n, c_end) || !apart(U, B))
        return false;
    u = upper_view(U, 0, n);
    b = block_view(B, 0, 0, off + n, c_end);
    return true;
}

bool direct_cyclic_factor(KelGenericMatrix& A, int bw, int m, BorderedViews& a)
{
    const int n = A.GetRowDim(), nb = n - m;
    if (m < 0 || nb < 0 || !serves(bw, nb) || m - 1 > kMaxDirectWidth) // the corner: width m
        return false;
    // The bordered type holds the pattern of its own (nb, bw, m); the others the whole triangle.
    const bool holds = is_bordered(A) ? static_cast<KelMatrixBordered&>(A).GetBorderSize() == m &&
                                            A.GetUpperBandWidth() >= bw
                                      : holds_band(A, n, n - 1);
    if (!holds)
        return false;
    a.nb = nb;
    a.m = m;
    a.band = upper_view(A, 0, nb);
    a.border = block_view(A, 0, nb, nb, m);
    a.corner = upper_view(A, nb, m);
    return true;
}

bool direct_cyclic_solve(KelGenericMatrix& A, int bw, int m, KelGenericMatrix& B, BorderedViews& a,
                         StridedView& b)
{
    const int n = A.GetRowDim(), nrhs = B.GetColDim();
    if (!holds_columns(B, n, nrhs) || !apart(A, B) || !direct_cyclic_factor(A, bw, m, a))
        return false;
    b = block_view(B, 0, 0, n, nrhs);
    return true;
}

bool direct_kronecker(KelGenericMatrix& U1, int w1, KelGenericMatrix& U2, int w2,
                      KelGenericMatrix& X, StridedView& u1, StridedView& u2, StridedView& x)
{
    const int p = U1.GetRowDim(), q = U2.GetRowDim();
    if (p < 1 || q < 1 || w1 < 1 || !serves(w2, q) || !holds_band(U1, p, std::min(w1, p - 1)) ||
        !holds_band(U2, q, std::min(w2, q - 1)) ||
        !holds_columns(X, static_cast<long long>(p) * q, X.GetColDim()) || !apart(X, U1) ||
        !apart(X, U2))
        return false;
    u1 = upper_view(U1, 0, p);
    u2 = upper_view(U2, 0, q);
    x = block_view(X, 0, 0, p * q, X.GetColDim());
    return true;
}

bool direct_transpose(KelGenericMatrix& X, int cols, StridedView& x)
{
    if (!holds_columns(X, X.GetRowDim(), cols))
        return false;
    x = block_view(X, 0, 0, X.GetRowDim(), cols);
    return true;
}

} // namespace internal
} // namespace kelmatrix
