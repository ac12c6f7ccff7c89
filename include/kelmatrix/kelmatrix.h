// KELMATRIX umbrella header
// Includes every public header of the library.
//
// Matrix containers (matrix.h), LAPACK/BLAS-backed dense and band algebra (dense.h), the
// library's own band, cyclic and Kronecker solvers (band.h) and the PARDISO-backed sparse
// direct solver (sparse.h), and the opt-in threads of the library's own routines (threads.h).
// All names live in the global namespace; indices are 0-based except where a declaration says
// otherwise.
#ifndef KELMATRIX_KELMATRIX_H
#define KELMATRIX_KELMATRIX_H

#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"
#include "kelmatrix/matrix.h"
#include "kelmatrix/sparse.h"
#include "kelmatrix/threads.h"

#endif
