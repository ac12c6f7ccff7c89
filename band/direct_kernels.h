// KELMATRIX direct kernels (internal)
// The native band algorithms on strided views of the library's own arrays.
//
// Each kernel computes exactly what its generic routine computes through the element accessor,
// to the bit: every sum takes its terms in the routine's order, and only work on independent
// elements is reordered (several columns j of one row of U at a time, several right-hand sides
// through one pass). That is exact because the route decision (direct_route.h) hands over only
// views whose touched elements have distinct addresses and arrays that do not overlap. The
// kernels allocate nothing: their scratch is a fixed array on the stack, sized for bands up to
// kMaxDirectWidth.
#ifndef KELMATRIX_DIRECT_KERNELS_H
#define KELMATRIX_DIRECT_KERNELS_H

#include "band/direct_route.h"
#include "band/kernel_table.h"

namespace kelmatrix {
namespace internal {

/// Cholesky_factor on the upper band of width bw >= 1 of the order-n view a; returns the count.
int factor_kernel(const StridedView& a, int n, int bw, double tol);
/// The widest band the ring kernel (ring_factor.cpp) serves.
constexpr int kRingWidth = 63;
/// Cholesky_factor on the upper band of width bw (min(bw, n - 1) from 1 to kRingWidth) of the
/// order-n view a, by the ring kernel; returns the count.
int ring_factor_kernel(const StridedView& a, int n, int bw, double tol);

// The vector kernels run from the table of the instruction set in use (kernel_table.h).

/// Cholesky_factor of the whole upper triangle of the order-n view a (every k from 0), tiled
/// (tiled_factor_body.h); returns the count.
inline int tiled_factor_kernel(const StridedView& a, int n, double tol)
{
    return active_kernels->tiled_factor(a, n, tol);
}
/// The wide-band factor's update of columns j0 .. j0 + columns - 1 (8 or 16) of row i
/// (column_block_body.h): s[jj] -= U(k, j0 + jj) U(k, i) for k = k .. k_end - 1 ascending with
/// positive[k & mask] (0 or 1); col[jj] points at U(0, j0 + jj), ci at U(0, i), each column
/// contiguous in k.
inline void column_block_kernel(const double* const* col, const double* ci,
                                const unsigned char* positive, int mask, int k, int k_end,
                                double* s, int columns)
{
    active_kernels->column_block(col, ci, positive, mask, k, k_end, s, columns);
}
/// Row i of the ring kernel for widths w of 16 and more (ring_row_body.h): U(i, i + t),
/// t = 1 .. jl, from the rows i - e of the ring, which start at window - e (w + 1); the results
/// also go to ri and ri2.
inline void ring_row_kernel(const StridedView& a, int i, int w, int jl, double pivot,
                            const double* window, double* ri, double* ri2)
{
    active_kernels->ring_row(a, i, w, jl, pivot, window, ri, ri2);
}

/// U^T y = b (forward) or U x = y (backward) with the order-n factor u of width bw >= 1, in
/// place in rows off .. off + n - 1 of columns c_begin .. c_end - 1 of b (substitution_body.h).
/// Columns are independent: any split of c_begin .. c_end gives the same bits.
inline void forward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off,
                           int c_begin, int c_end)
{
    active_kernels->forward(u, n, bw, b, off, c_begin, c_end);
}
inline void backward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off,
                            int c_begin, int c_end)
{
    active_kernels->backward(u, n, bw, b, off, c_begin, c_end);
}

/// cyclic_Cholesky_factor in place on the three blocks of a (bw >= 1); returns the count of
/// the Schur complement.
int cyclic_factor_kernel(const BorderedViews& a, int bw, double tol);
/// cyclic_Cholesky_subst of columns 0 .. nrhs - 1 of b with the factor in a.
void cyclic_solve_kernel(const BorderedViews& a, int bw, const StridedView& b, int nrhs);

} // namespace internal
} // namespace kelmatrix

#endif
