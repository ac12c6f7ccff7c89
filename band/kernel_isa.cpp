// KELMATRIX kernel instruction sets
// The CPU is asked once; a forced choice is kept in an atomic so that threads solving at the
// same time read one value.
#include "band/kernel_isa.h"

#include <atomic>

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

std::atomic<int>& chosen()
{
    static std::atomic<int> isa{static_cast<int>(best_isa())};
    return isa;
}

} // namespace

Isa best_isa()
{
    static const Isa isa = detect();
    return isa;
}

Isa kernel_isa()
{
    return static_cast<Isa>(chosen().load(std::memory_order_relaxed));
}

Isa force_kernel_isa(Isa isa)
{
    const Isa used = static_cast<int>(isa) > static_cast<int>(best_isa()) ? best_isa() : isa;
    chosen().store(static_cast<int>(used), std::memory_order_relaxed);
    return used;
}

} // namespace internal
} // namespace kelmatrix
