// KELMATRIX tiled dense factorization: the SSE2 copy and the choice among the copies.
#include "band/direct_kernels.h"
#include "band/kernel_isa.h"

#define KEL_ISA_NS sse2
#define KEL_ISA_TARGET
#define KEL_ISA_WIDTH 2
#include "band/tiled_factor_body.h"

namespace kelmatrix {
namespace internal {
namespace avx2 {
int tiled_factor(const StridedView& a, int n, double tol);
}
namespace avx512 {
int tiled_factor(const StridedView& a, int n, double tol);
}

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

} // namespace internal
} // namespace kelmatrix
