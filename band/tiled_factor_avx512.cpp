// KELMATRIX tiled dense factorization and band factor row updates: the AVX-512 copies (no
// fused multiply-add: contraction is off for the whole library, and the vector extension's
// a - b * f is a multiply, then a subtraction).
#define KEL_ISA_NS avx512
#define KEL_ISA_TARGET __attribute__((target("avx512f")))
#define KEL_ISA_WIDTH 8
#include "band/column_block_body.h"
#include "band/ring_row_body.h"
#include "band/tiled_factor_body.h"
