// KELMATRIX band substitution kernels: the SSE2 copy and the choice among the copies.
#include "band/kernel_isa.h"

#define KEL_ISA_NS sse2
#define KEL_ISA_TARGET
#define KEL_ISA_WIDTH 2
#include "band/substitution_body.h"

namespace kelmatrix {
namespace internal {
namespace avx2 {
void forward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off, int c_begin,
                    int c_end);
void backward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off,
                     int c_begin, int c_end);
} // namespace avx2
namespace avx512 {
void forward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off, int c_begin,
                    int c_end);
void backward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off,
                     int c_begin, int c_end);
} // namespace avx512

void forward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off, int c_begin,
                    int c_end)
{
    dispatch(avx512::forward_kernel, avx2::forward_kernel, sse2::forward_kernel, u, n, bw, b, off,
             c_begin, c_end);
}

void backward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off,
                     int c_begin, int c_end)
{
    dispatch(avx512::backward_kernel, avx2::backward_kernel, sse2::backward_kernel, u, n, bw, b,
             off, c_begin, c_end);
}

} // namespace internal
} // namespace kelmatrix
