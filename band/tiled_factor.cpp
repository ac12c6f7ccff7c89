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
    switch (kernel_isa()) {
    case Isa::kAvx512:
        return avx512::tiled_factor(a, n, tol);
    case Isa::kAvx2:
        return avx2::tiled_factor(a, n, tol);
    default:
        return sse2::tiled_factor(a, n, tol);
    }
}

void column_block_kernel(const double* const* col, const double* ci, const unsigned char* positive,
                         int mask, int k, int k_end, double* s, int columns)
{
    switch (kernel_isa()) {
    case Isa::kAvx512:
        return avx512::column_block(col, ci, positive, mask, k, k_end, s, columns);
    case Isa::kAvx2:
        return avx2::column_block(col, ci, positive, mask, k, k_end, s, columns);
    default:
        return sse2::column_block(col, ci, positive, mask, k, k_end, s, columns);
    }
}

void ring_row_kernel(const StridedView& a, int i, int w, int jl, double pivot, const double* window,
                     double* ri, double* ri2)
{
    switch (kernel_isa()) {
    case Isa::kAvx512:
        return avx512::ring_row(a, i, w, jl, pivot, window, ri, ri2);
    case Isa::kAvx2:
        return avx2::ring_row(a, i, w, jl, pivot, window, ri, ri2);
    default:
        return sse2::ring_row(a, i, w, jl, pivot, window, ri, ri2);
    }
}

} // namespace internal
} // namespace kelmatrix
