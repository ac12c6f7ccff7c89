// KELMATRIX vector kernel table
// The choice of the kernel table: the CPU is asked once, when the library is loaded.
#include "band/kernel_table.h"

namespace kelmatrix {
namespace internal {
namespace {

Isa detect()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f"))
        return Isa::kAvx512;
    if (__builtin_cpu_supports("avx2"))
        return Isa::kAvx2;
#endif
    return Isa::kSse2;
}

const KernelTable* table(Isa isa)
{
    switch (isa) {
    case Isa::kAvx512:
        return &kAvx512Kernels;
    case Isa::kAvx2:
        return &kAvx2Kernels;
    default:
        return &kSse2Kernels;
    }
}

} // namespace

// The baseline until the choice below is made at load: valid from the first instant.
const KernelTable* active_kernels = &kSse2Kernels;

namespace {
[[maybe_unused]] const bool chosen = (active_kernels = table(best_isa()), true);
} // namespace

Isa best_isa()
{
    static const Isa isa = detect();
    return isa;
}

Isa kernel_isa()
{
    return active_kernels == &kAvx512Kernels ? Isa::kAvx512
           : active_kernels == &kAvx2Kernels ? Isa::kAvx2
                                             : Isa::kSse2;
}

Isa force_kernel_isa(Isa isa)
{
    const Isa used = static_cast<int>(isa) > static_cast<int>(best_isa()) ? best_isa() : isa;
    active_kernels = table(used);
    return used;
}

} // namespace internal
} // namespace kelmatrix
