// KELMATRIX vector kernels for AVX2
// The AVX2 copies of the vector kernels and their table. No fused multiply-add: "fma" is not
// enabled, and contraction is off for the whole library anyway.
#define KEL_ISA_NS avx2
#define KEL_ISA_TARGET __attribute__((target("avx2")))
#define KEL_ISA_WIDTH 4
#define KEL_ISA_TABLE kAvx2Kernels
#include "band/vector_kernels.h"
