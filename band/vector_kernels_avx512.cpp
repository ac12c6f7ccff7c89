// KELMATRIX vector kernels for AVX-512
// The AVX-512 copies of the vector kernels and their table. No fused multiply-add: contraction
// is off for the whole library, and the vector extension's s - x * f is a multiply, then a
// subtraction.
#define KEL_ISA_NS avx512
#define KEL_ISA_TARGET __attribute__((target("avx512f")))
#define KEL_ISA_WIDTH 8
#define KEL_ISA_TABLE kAvx512Kernels
#include "band/vector_kernels.h"
