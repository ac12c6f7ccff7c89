// KELMATRIX tiled dense factorization and the band factor row updates: the SSE2 copies and the
// choice among the copies.
#include "band/direct_kernels.h"
#include "band/kernel_isa.h"

#define KEL_ISA_NS sse2
#define KEL_ISA_TARGET
#define KEL_ISA_WIDTH 2
#include "band/column_block_body.h"
#include "band/ring_row_body.h"
#include "band/tiled_factor_body.h"

namespace kelmatrix {
namespace internal {
namespace avx2 {
int tiled_factor(const StridedView& a, int n, double tol);
void column_block(const double* const* col, const double* ci, const unsigned char* positive,
                  int mask, int k, int k_end, double* s, int columns);
void ring_row(const StridedView& a, int i, int w, int jl, double pivot, const double* window,
              double* ri, double* ri2);
} // namespace avx2
namespace avx512 {
int tiled_factor(const StridedView& a, int n, double tol);
void column_block(const double* const* col, const double* ci, const unsigned char* positive,
                  int mask, int k, int k_end, double* s, int columns);
void ring_row(const StridedView& a, int i, int w, int jl, double pivot, const double* window,
              double* ri, double* ri2);
} // namespace avx512

int tiled_factor_kernel(const StridedView& a, int n, double tol)
{
    return dispatch(avx512::tiled_factor, avx2::tiled_factor, sse2::tiled_factor, a, n, tol);
}

void column_block_kernel(const double* const* col, const double* ci, const unsigned char* positive,
                         int mask, int k, int k_end, double* s, int columns)
{
    dispatch(avx512::column_block, avx2::column_block, sse2::column_block, col, ci, positive, mask,
             k, k_end, s, columns);
}

void ring_row_kernel(const StridedView& a, int i, int w, int jl, double pivot, const double* window,
                     double* ri, double* ri2)
{
    dispatch(avx512::ring_row, avx2::ring_row, sse2::ring_row, a, i, w, jl, pivot, window, ri, ri2);
}

} // namespace internal
} // namespace kelmatrix
