// KELMATRIX tiled dense factorization: the AVX2 copy (no fused multiply-add: "fma" is not
// enabled, and contraction is off for the whole library anyway).
#define KEL_ISA_NS avx2
#define KEL_ISA_TARGET __attribute__((target("avx2")))
#define KEL_ISA_WIDTH 4
#include "band/column_block_body.h"
#include "band/tiled_factor_body.h"
