// KELMATRIX vector kernels, one instruction set (internal)
// Every vector kernel compiled for one instruction set, and the table of them.
//
// Included once by each vector_kernels_<isa>.cpp, which defines
//   KEL_ISA_NS      the namespace of this copy (sse2, avx2, avx512),
//   KEL_ISA_TARGET  the function attribute that enables the set (empty for the baseline),
//   KEL_ISA_WIDTH   doubles per vector of the set (2, 4, 8: simd::Vec<KEL_ISA_WIDTH>),
//   KEL_ISA_TABLE   the name of the table to fill (kernel_table.h).
// The kernels' sources are written once, against the vector vocabulary of simd.h.
#include "band/column_block_body.h"
#include "band/kernel_table.h"
#include "band/ring_row_body.h"
#include "band/substitution_body.h"
#include "band/tiled_factor_body.h"

namespace kelmatrix {
namespace internal {

extern const KernelTable KEL_ISA_TABLE = {KEL_ISA_NS::tiled_factor, KEL_ISA_NS::column_block,
                                          KEL_ISA_NS::ring_row, KEL_ISA_NS::forward_kernel,
                                          KEL_ISA_NS::backward_kernel};

} // namespace internal
} // namespace kelmatrix
