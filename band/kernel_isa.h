// KELMATRIX kernel instruction sets (internal)
// Which vector width the wide kernels run with, decided once from the CPU.
//
// The kernels are compiled for SSE2 (every x86-64), AVX2 and AVX-512 from one source each, the
// wider ones through function target attributes, and one of them is chosen at run time. All of
// them give the same bits: the vectors only carry independent sums side by side, every product
// is rounded before its subtraction (no fused multiply-add on any of them) and every sum takes
// its terms in the same order. force_kernel_isa lets the tests run each one the machine has;
// the library itself never calls it.
#ifndef KELMATRIX_KERNEL_ISA_H
#define KELMATRIX_KERNEL_ISA_H

namespace kelmatrix {
namespace internal {

enum class Isa { kSse2 = 0, kAvx2 = 1, kAvx512 = 2 };

/// The widest instruction set this CPU and its operating system support.
Isa best_isa();
/// The instruction set the kernels use now: best_isa() unless a narrower one was forced.
Isa kernel_isa();
/// Makes the kernels use isa, or best_isa() when isa is wider than the machine's; returns the
/// one in use. For the tests, which compare the instruction sets with each other.
Isa force_kernel_isa(Isa isa);

/// Calls the copy of a kernel for the instruction set in use: the same function as compiled in
/// the avx512, avx2 and sse2 namespaces.
template <class F, class... Args> auto dispatch(F* avx512, F* avx2, F* sse2, Args... args)
{
    switch (kernel_isa()) {
    case Isa::kAvx512:
        return avx512(args...);
    case Isa::kAvx2:
        return avx2(args...);
    default:
        return sse2(args...);
    }
}

} // namespace internal
} // namespace kelmatrix

#endif
