// KELMATRIX vector kernels for SSE2
// The baseline copies of the vector kernels (every x86-64 has SSE2) and their table.
#define KEL_ISA_NS sse2
#define KEL_ISA_TARGET
#define KEL_ISA_WIDTH 2
#define KEL_ISA_TABLE kSse2Kernels
#include "band/vector_kernels.h"
