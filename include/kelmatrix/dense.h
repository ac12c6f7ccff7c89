// KELMATRIX dense and band algebra over LAPACK and BLAS
// Thin wrappers that hand matrix arrays to one MKL routine each.
//
// Each function reads its dimensions from the matrix objects, prepares the arrays (private
// aligned copies or the caller's own), calls its routine once and turns LAPACK's info into its
// result. The property flags are never consulted: arrays are handed over as stored, and the
// symmetric routines read the upper triangle. Band matrices for the symmetric band routines
// must be dimensioned with lower band width 0 and upper band width kd (LAPACK upper band
// storage, leading dimension kd + 1). Two copy rules coexist on purpose (see each function):
// some copy for any non-zero copyInputs, others only for copyInputs == 1. Without a copy the
// routine works in the caller's arrays, even those passed const. On failure the output matrix
// is left as it was; nothing is printed or thrown (allocation failure aside). An output that
// the function re-dimensions may be one of its inputs (X passed as B, C as A or B with beta ==
// 0): the result is computed from the inputs as they were, and their block is released after.
#ifndef KELMATRIX_DENSE_H
#define KELMATRIX_DENSE_H

#include "kelmatrix/matrix.h"

// ---- Products (BLAS dgemm) ----

/// C = alpha * op(A) * op(B) + beta * C. When beta == 0.0 exactly (-0.0 too; NaN is not), C is
/// first re-dimensioned to op(A).rows x op(B).cols with fresh, unzeroed storage; otherwise C is
/// used as it stands and must already have the right shape. k is taken from A alone; flags are
/// not consulted (expand a symmetric operand first). With beta == 0.0, C may be A or B itself.
KELMATRIX_API void ProductEx(double alpha, const KelMatrix& A, const KelMatrix& B, bool transA,
                             bool transB, double beta, KelMatrix& C);
/// ProductEx(1.0, A, B, transA, transB, 0.0, C).
KELMATRIX_API void Product(const KelMatrix& A, const KelMatrix& B, bool transA, bool transB,
                           KelMatrix& C);
/// dgemm with exactly these arguments.
KELMATRIX_API void kel_dgemm(const char* transa, const char* transb, const int& m, const int& n,
                             const int& k, const double& alpha, const double* a, const int& lda,
                             const double* b, const int& ldb, const double& beta, double* c,
                             const int& ldc);

// ---- Linear solves (dgesv, dgbsv, dposv, dpbsv) ----

/// General dense solve A X = B by dgesv (n = A.rows). Always works on copies; A and B are never
/// changed. On success X becomes B.rows x B.cols; on failure X is untouched.
KELMATRIX_API bool Solve(const KelMatrix& A, const KelMatrix& B, KelMatrix& X);
/// General band solve by dgbsv (n = A.rows, kl and ku from A, whose layout already reserves the
/// kl fill-in rows). Always works on copies. X as for the dense Solve.
KELMATRIX_API bool Solve(const KelMatrixBanded& A, const KelMatrix& B, KelMatrix& X);
/// SPD solve by dposv, reading the upper triangle of A's array (n = A.cols). copyInputs != 0:
/// A and B are copied and untouched; 0: A's array receives the factor U and B's the solution
/// (through the const references, on purpose). X as for Solve.
KELMATRIX_API bool SolveSP(const KelMatrix& A, const KelMatrix& B, KelMatrix& X, int copyInputs);
/// SPD band solve by dpbsv (n = A.cols, kd = A's upper band width; A built with kl = 0).
/// Copy rule and X as for SolveSP.
KELMATRIX_API bool SolveBSP(const KelMatrixBanded& A, const KelMatrix& B, KelMatrix& X,
                            int copyInputs);

// ---- Cholesky family (dpotrf, dpbtrf, dpotrs, dpbtrs, dpotri, dtbtrs) ----

/// Factors A = U^T U in place (upper triangle; the strictly lower triangle is untouched) by
/// dpotrf, n = A.cols. Copies only when copyInputs == 1 (2 and -1 work in place): then A is
/// unchanged on failure, otherwise it holds the partial factor. Returns info unchanged
/// (k > 0: the leading minor of order k is not positive definite).
KELMATRIX_API int spdMatrixCholeskyFactorization(KelMatrix& A, int copyInputs);
/// Band factorization by dpbtrf (kl = 0 storage, kd = A's upper band width), in place like the
/// dense one. Copies only when copyInputs == 1. True when info == 0.
KELMATRIX_API bool spdBandMatrixCholeskyFactorization(KelMatrixBanded& A, int copyInputs);
/// Solves U^T U X = B with a factor from spdMatrixCholeskyFactorization by dpotrs. B must have
/// exactly n = U.cols rows (its row count is not read). Copies B when copyInputs != 0; with 0
/// B's array receives the solution. U is never copied nor changed. On success X is n x nrhs;
/// on failure X is untouched. Returns info.
KELMATRIX_API int spdCholeskySubstitute(KelMatrix& U, KelMatrix& B, KelMatrix& X, int copyInputs);
/// Band counterpart of spdCholeskySubstitute by dpbtrs, with a factor from
/// spdBandMatrixCholeskyFactorization. Same copy rule and shapes. True when info == 0.
KELMATRIX_API bool spdBandCholeskySubstitute(KelMatrixBanded& U, KelMatrix& B, KelMatrix& X,
                                             int copyInputs);
/// Turns a factored A (from spdMatrixCholeskyFactorization) into the full symmetric inverse by
/// dpotri, then mirrors the upper triangle into the lower so both are equal bit for bit.
/// Copies only when copyInputs == 1. Returns info (k > 0: U(k-1, k-1) is zero); on failure
/// nothing is written back and nothing mirrored.
KELMATRIX_API int symmPositiveDefiniteInverse(KelMatrix& A, int copyInputs);
/// Solves U^T X = B (transpose) or U X = B by dtbtrs with an upper band U (kl = 0 storage,
/// n = U.rows, not cols). Copies U and B only when copyInputs == 1; otherwise the solution is
/// also written into the const B's own array. B must have exactly n rows. On success X is
/// n x nrhs. Returns info (k > 0: zero diagonal element k); X untouched on failure.
KELMATRIX_API int solveUpperTriangularBandSystem(const KelMatrixBanded& U, bool transpose,
                                                 const KelMatrix& B, KelMatrix& X, int copyInputs);

// ---- Least squares (dgels, dgelsy) ----

/// dgels with exactly these arguments; info is the caller's.
KELMATRIX_API void kel_dgels(const char* trans, const int& m, const int& n, const int& nrhs,
                             double* a, const int& lda, double* b, const int& ldb, double* work,
                             const int& lwork, int& info);
/// Full-rank least squares by dgels on copies of A and B. nrhs is X.cols, not B.cols: dimension
/// X (at least A.cols x nrhs) before the call; it is never re-dimensioned, and only its first
/// A.cols rows are written. B must have A.rows rows. False (X untouched) when A is rank
/// deficient.
KELMATRIX_API bool SolveLS(const KelMatrix& A, const KelMatrix& B, KelMatrix& X);
/// Minimum-norm least squares by dgelsy with column pivoting. A is overwritten by its complete
/// orthogonal factorization; B is not changed. jpvt (A.cols ints): non-zero entries fix columns
/// in front on entry; on success the 0-based source column of each pivoted column (on failure
/// as dgelsy left it, 1-based). rank gets the effective rank for threshold rcond; X becomes
/// A.cols x B.cols. Exact for one right-hand side; with several, B goes in and X comes out as
/// single blocks, not re-strided to max(rows, cols). False only for arguments dgelsy rejects.
KELMATRIX_API bool MinNormLeastSquares(KelMatrix& A, KelMatrix& B, int* jpvt, double rcond,
                                       int& rank, KelMatrix& X);

// ---- Symmetric eigenproblems (dspev, dsyev) ----

/// All eigenvalues (ascending, into the caller's array of A.cols doubles) and, when Z is not
/// null, the unit eigenvectors as Z's columns (Z re-dimensioned n x n), by dspev on the packed
/// upper triangle (n = A.cols). copyInputs != 0 packs into a private copy; 0 packs into A's own
/// array, destroying A. True when info == 0; on failure Z is untouched and the eigenvalue array
/// holds what dspev left there.
KELMATRIX_API bool EigenValuesS(const KelMatrix& A, double* eigenvalues, KelMatrix* Z,
                                int copyInputs);
/// Ascending eigenvalues into W's array and unit eigenvectors (columns) into Z's array by dsyev
/// (upper triangle, n = A.cols; A need not be definite). W (n x 1) and Z (n x n) must be
/// dimensioned by the caller; they are not re-dimensioned. Copies A only when copyInputs == 1;
/// otherwise A's array ends up holding the eigenvectors. Returns info; W and Z untouched on
/// failure.
KELMATRIX_API int spdmEigenproblem(const KelMatrix& A, KelMatrix& W, KelMatrix& Z, int copyInputs);

// ---- Residuals ----

/// ratio = ||B - A X||_1 / (||A||_1 ||X||_1 n eps) with n = A.rows and 1-norms of the matrices
/// (largest column sum), A read through its accessor: mirrored when flagged symmetric, only the
/// used triangle when flagged triangular alone. A backward-stable solve of A X = B gives a ratio
/// of order 1 (tests accept up to 30 or so). 0 when B equals A X exactly, infinite when the
/// denominator is 0 otherwise. Sums run in a fixed order (no BLAS). Returns KEL_PRODUCT_OK, or
/// KEL_PRODUCT_EMPTY (A has no storage) or KEL_PRODUCT_SHAPE (X.rows != A.cols, or B not
/// A.rows x X.cols); ratio is written only on success.
KELMATRIX_API int residualRatio(const KelMatrix& A, const KelMatrix& X, const KelMatrix& B,
                                double& ratio);

#endif
