// KELMATRIX tiled dense factorization and band factor row updates: the AVX2 copies (no fused
// multiply-add: "fma" is not enabled, and contraction is off for the whole library anyway).
#define KEL_ISA_NS avx2
#define KEL_ISA_TARGET __attribute__((target("avx2")))
#define KEL_ISA_WIDTH 4
#include "band/column_block_body.h"
#include "band/ring_row_body.h"
#include "band/tiled_factor_body.h"
