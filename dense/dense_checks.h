// KELMATRIX dense algebra checks (internal)
// The checked library's checks of the products, solves, Cholesky family, least squares and
// eigenproblems.
//
// Declared only when KELMATRIX_CHECKED is defined (the checked library); dense_checks.cpp holds
// them.
#ifndef KELMATRIX_DENSE_CHECKS_H
#define KELMATRIX_DENSE_CHECKS_H

#include "checks/checks.h"

#if defined(KELMATRIX_CHECKED)

#    include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace checks {

void product(const char* function, const KelMatrix& A, const KelMatrix& B, bool transA, bool transB,
             double beta, const KelMatrix& C);
void dgemm_arguments(const char* transa, const char* transb, int m, int n, int k, const double* a,
                     int lda, const double* b, int ldb, const double* c, int ldc);
void solve(const KelMatrix& A, const KelMatrix& B);
void solve(const KelMatrixBanded& A, const KelMatrix& B);
void solve_sp(const KelMatrix& A, const KelMatrix& B, int copyInputs);
void solve_bsp(const KelMatrixBanded& A, const KelMatrix& B, int copyInputs);
void factorization(const char* function, const KelMatrix& A);
void band_factorization(const KelMatrixBanded& A);
void substitution(const KelMatrix& U, const KelMatrix& B, int copyInputs);
void band_substitution(const KelMatrixBanded& U, const KelMatrix& B, int copyInputs);
void triangular_band_solve(const KelMatrixBanded& U, const KelMatrix& B, int copyInputs);
void dgels_arguments(const char* trans, int m, int n, int nrhs, const double* a, int lda,
                     const double* b, int ldb, const double* work, int lwork);
void least_squares(const KelMatrix& A, const KelMatrix& B, const KelMatrix& X);
void min_norm_least_squares(const KelMatrix& A, const KelMatrix& B, const int* jpvt,
                            const KelMatrix& X);
void eigenvalues(const KelMatrix& A, const double* eigenvalues, int copyInputs);
void eigenproblem(const KelMatrix& A, const KelMatrix& W, const KelMatrix& Z, int copyInputs);

} // namespace checks
} // namespace kelmatrix

#endif

#endif
