// KELMATRIX sparse solver checks (internal)
// The checked library's checks of LSMsolver.
//
// Declared only when KELMATRIX_CHECKED is defined (the checked library); sparse_checks.cpp holds
// them. The solver's own state decides whether a call reaches PARDISO; only such calls are
// checked.
#ifndef KELMATRIX_SPARSE_CHECKS_H
#define KELMATRIX_SPARSE_CHECKS_H

#include "checks/checks.h"

#if defined(KELMATRIX_CHECKED)

#    include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace checks {

void solver_init(int n, int nrhs);
void solver_matrix(const char* function, bool reaches_pardiso, int n, const int* ia, const int* ja,
                   const double* a, int mtype);
void solver_solve(bool reaches_pardiso, int n, const KelMatrix& B, const KelMatrix& X);
void solver_solve(bool reaches_pardiso, int n, int count, const double* b, const double* x);

} // namespace checks
} // namespace kelmatrix

#endif

#endif
