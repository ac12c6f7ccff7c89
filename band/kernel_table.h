// KELMATRIX vector kernel table (internal)
// The table of the vector kernels of one instruction set, and which table the library uses.
//
// The vector kernels are compiled from one source each (their *_body.h) for SSE2 (every
// x86-64), AVX2 and AVX-512, once per instruction set, by vector_kernels_<isa>.cpp, which each
// fill one KernelTable. The table of the widest set the CPU supports is chosen once, when the
// library is loaded; every call then goes through one plain pointer. All tables give the same
// bits: the vectors only carry independent sums side by side, every product is rounded before
// its subtraction (no fused multiply-add on any of them) and every sum takes its terms in the
// same order. force_kernel_isa lets the tests run each table the machine can; the library
// itself never calls it.
#ifndef KELMATRIX_KERNEL_TABLE_H
#define KELMATRIX_KERNEL_TABLE_H

#include "band/direct_route.h"

namespace kelmatrix {
namespace internal {

enum class Isa { kSse2 = 0, kAvx2 = 1, kAvx512 = 2 };

/// The vector kernels of one instruction set; direct_kernels.h says what each computes.
struct KernelTable {
    int (*tiled_factor)(const StridedView& a, int n, double tol);
    void (*column_block)(const double* const* col, const double* ci, const unsigned char* positive,
                         int mask, int k, int k_end, double* s, int columns);
    void (*ring_row)(const StridedView& a, int i, int w, int jl, double pivot, const double* window,
                     double* ri, double* ri2);
    void (*forward)(const StridedView& u, int n, int bw, const StridedView& b, int off, int c_begin,
                    int c_end);
    void (*backward)(const StridedView& u, int n, int bw, const StridedView& b, int off,
                     int c_begin, int c_end);
};

extern const KernelTable kSse2Kernels, kAvx2Kernels, kAvx512Kernels;

/// The table in use: best_isa()'s, set when the library is loaded.
extern const KernelTable* active_kernels;

/// The widest instruction set this CPU and its operating system support.
Isa best_isa();
/// The instruction set of the table in use.
Isa kernel_isa();
/// Makes the kernels use isa's table, or best_isa()'s when isa is wider than the machine's;
/// returns the one in use. For the tests, which compare the instruction sets with each other;
/// not to be called while kernels run.
Isa force_kernel_isa(Isa isa);

} // namespace internal
} // namespace kelmatrix

#endif
