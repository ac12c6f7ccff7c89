// KELMATRIX binding to MKL (internal)
// The one place that declares the external numerical routines the library calls.
//
// Every BLAS/LAPACK routine is declared extern "C" with the by-reference Fortran interface:
// scalars by const int* / const double*, output arrays non-const, and one std::size_t hidden
// length per character argument at the end. MKL's unsuffixed names are used on purpose (dgesv,
// not dgesv_): a host that links the reference LAPACK first would capture the suffixed ones.
// Never include mkl.h, mkl_lapack.h or mkl_blas.h beside this header: they declare the same
// names without the hidden lengths.
#ifndef KELMATRIX_MKL_BINDINGS_H
#define KELMATRIX_MKL_BINDINGS_H

#include <cstddef>

#include "mkl_spblas.h" // the sparse BLAS (it declares no dense routine)
#include "mkl_types.h"

static_assert(sizeof(MKL_INT) == sizeof(int), "KELMATRIX binds MKL's LP64 interface (32-bit int)");

extern "C" {

// ---- BLAS ----
void dgemm(const char* transa, const char* transb, const int* m, const int* n, const int* k,
           const double* alpha, const double* a, const int* lda, const double* b, const int* ldb,
           const double* beta, double* c, const int* ldc, std::size_t transa_len,
           std::size_t transb_len);

// Sparse BLAS level 1: positions in indx are 1-based.
double ddoti(const int* nz, const double* x, const int* indx, const double* y);

// ---- LAPACK linear solve drivers ----
void dgesv(const int* n, const int* nrhs, double* a, const int* lda, int* ipiv, double* b,
           const int* ldb, int* info);
void dgbsv(const int* n, const int* kl, const int* ku, const int* nrhs, double* ab, const int* ldab,
           int* ipiv, double* b, const int* ldb, int* info);
void dposv(const char* uplo, const int* n, const int* nrhs, double* a, const int* lda, double* b,
           const int* ldb, int* info, std::size_t uplo_len);
void dpbsv(const char* uplo, const int* n, const int* kd, const int* nrhs, double* ab,
           const int* ldab, double* b, const int* ldb, int* info, std::size_t uplo_len);

// ---- LAPACK Cholesky family ----
void dpotrf(const char* uplo, const int* n, double* a, const int* lda, int* info,
            std::size_t uplo_len);
void dpbtrf(const char* uplo, const int* n, const int* kd, double* ab, const int* ldab, int* info,
            std::size_t uplo_len);
void dpotrs(const char* uplo, const int* n, const int* nrhs, const double* a, const int* lda,
            double* b, const int* ldb, int* info, std::size_t uplo_len);
void dpbtrs(const char* uplo, const int* n, const int* kd, const int* nrhs, const double* ab,
            const int* ldab, double* b, const int* ldb, int* info, std::size_t uplo_len);
void dpotri(const char* uplo, const int* n, double* a, const int* lda, int* info,
            std::size_t uplo_len);
void dtbtrs(const char* uplo, const char* trans, const char* diag, const int* n, const int* kd,
            const int* nrhs, const double* ab, const int* ldab, double* b, const int* ldb,
            int* info, std::size_t uplo_len, std::size_t trans_len, std::size_t diag_len);

// ---- LAPACK least squares ----
void dgels(const char* trans, const int* m, const int* n, const int* nrhs, double* a,
           const int* lda, double* b, const int* ldb, double* work, const int* lwork, int* info,
           std::size_t trans_len);
void dgelsy(const int* m, const int* n, const int* nrhs, double* a, const int* lda, double* b,
            const int* ldb, int* jpvt, const double* rcond, int* rank, double* work,
            const int* lwork, int* info);

// ---- LAPACK symmetric eigenproblems ----
void dspev(const char* jobz, const char* uplo, const int* n, double* ap, double* w, double* z,
           const int* ldz, double* work, int* info, std::size_t jobz_len, std::size_t uplo_len);
void dsyev(const char* jobz, const char* uplo, const int* n, double* a, const int* lda, double* w,
           double* work, const int* lwork, int* info, std::size_t jobz_len, std::size_t uplo_len);

// ---- PARDISO and MKL service ----
void pardiso(void* pt, const int* maxfct, const int* mnum, const int* mtype, const int* phase,
             const int* n, const void* a, const int* ia, const int* ja, int* perm, const int* nrhs,
             int* iparm, const int* msglvl, void* b, void* x, int* error);

// The cluster engine (libkelmatrix_mpi only): PARDISO's arguments plus the communicator as its
// Fortran handle (MPI_Comm_c2f), before the error. Resolved through MKL's BLACS layer for the MPI.
void cluster_sparse_solver(void* pt, const int* maxfct, const int* mnum, const int* mtype,
                           const int* phase, const int* n, const void* a, const int* ia,
                           const int* ja, int* perm, const int* nrhs, int* iparm, const int* msglvl,
                           void* b, void* x, const int* comm, int* error);

// MKL's by-reference thread-count entry (the count passed by address).
void mkl_set_num_threads(const int* nt);

} // extern "C"

// The hidden length passed for each character argument: every one of them is a single character.
constexpr std::size_t kCharLen = 1;

#endif
