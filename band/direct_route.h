// KELMATRIX direct route decisions (internal)
// Whether a call of the native band solvers may address its matrices' arrays directly.
//
// Every native routine is written once, through the virtual element accessor: the generic
// route, which serves any storage. When its matrices are the library's own storage types laid
// out so that no element the call touches shares an address with another, the routine may
// instead hand strided views of their arrays to the direct kernels (direct_kernels.h), which give
// the same bits faster. The functions below make that decision, one per family of entry
// points, and all of them apply the same three conditions (direct_route.cpp):
//   1. each matrix is exactly one of the library's types (a derived class may override the
//      accessor, so it takes the generic route);
//   2. its array holds every element the call touches at a distinct address: a band storage
//      whose stored side covers the width, a right-hand side that is not mirrored and has a
//      row for every unknown; and the width is one the kernels' fixed stack scratch serves;
//   3. a matrix the call writes shares no part of its array with any other operand.
// Each view is read off the matrix's own accessor, so the addressing is never written twice.
#ifndef KELMATRIX_DIRECT_ROUTE_H
#define KELMATRIX_DIRECT_ROUTE_H

#include "kelmatrix/band.h"

namespace kelmatrix {
namespace internal {

/// Element (i, j) of a region of a matrix's array at p[i * rs + j * cs].
struct StridedView {
    double* p = nullptr;
    long long rs = 0, cs = 0;
    double& operator()(long long i, long long j) const { return p[i * rs + j * cs]; }
};

/// A bordered matrix of order nb + m in three views, each from its own top-left element: the
/// upper band of A11, the border A12 (nb x m) and the upper triangle of A22 (m x m).
struct BorderedViews {
    StridedView band, border, corner;
    int nb = 0, m = 0;
};

/// The widest band the direct kernels serve (their stack scratch is sized for it); wider bands
/// take the generic route.
constexpr int kMaxDirectWidth = 16383;

/// Cholesky_factor of A's first n = A.rows rows with width bw (resolved).
bool direct_factor(KelGenericMatrix& A, int bw, StridedView& a);
/// A band substitution with U (n = U.rows, width bw resolved) on rows off .. off + n - 1 of
/// columns 0 .. c_end - 1 of B.
bool direct_substitution(KelGenericMatrix& U, int bw, KelGenericMatrix& B, int off, int c_end,
                         StridedView& u, StridedView& b);
/// cyclic_Cholesky_factor of A (bw as given, border m).
bool direct_cyclic_factor(KelGenericMatrix& A, int bw, int m, BorderedViews& a);
/// cyclic_Cholesky_subst of every column of B with the factor in A.
bool direct_cyclic_solve(KelGenericMatrix& A, int bw, int m, KelGenericMatrix& B, BorderedViews& a,
                         StridedView& b);
/// The Kronecker substitutions with U1 (width w1) and U2 (width w2, resolved) on X.
bool direct_kronecker(KelGenericMatrix& U1, int w1, KelGenericMatrix& U2, int w2,
                      KelGenericMatrix& X, StridedView& u1, StridedView& u2, StridedView& x);
/// Solve_Kronecker's block transposition into the first cols columns of X (X.rows rows).
bool direct_transpose(KelGenericMatrix& X, int cols, StridedView& x);

} // namespace internal
} // namespace kelmatrix

#endif
