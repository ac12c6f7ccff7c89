// KELMATRIX sparse direct solver
// LSMsolver: A X = B for a large sparse matrix in compressed-row form, over MKL PARDISO.
//
// The solver drives PARDISO's analysis + factorization once, then any number of solves in
// batches of nrhs right-hand sides straight in the caller's arrays, then the release of
// PARDISO's memory. It also owns the library's thread-count policy. When the library is loaded
// it sets KMP_DUPLICATE_LIB_OK=TRUE in the process environment so that MKL's OpenMP runtime
// tolerates another copy already loaded in the host.
//
// The caller's duties, which nothing checks:
//  - ia (n+1 entries), ja and a use 1-based indices and stay alive and unchanged from factor()
//    until clear(): the solver borrows them, never copies or frees them;
//  - for the symmetric types (2, -2, and 1 which is structurally symmetric) pass only the upper
//    triangle, each row's column indices sorted ascending, and store every diagonal entry
//    (an explicit 0.0 where the matrix has none);
//  - assignment is shallow: both objects then share one PARDISO handle, and clearing or
//    destroying either releases PARDISO's memory for both.
#ifndef KELMATRIX_SPARSE_H
#define KELMATRIX_SPARSE_H

#include "kelmatrix/matrix.h"

/// PARDISO's real matrix types; the values are PARDISO's mtype codes, passed unchanged.
enum LSMsolver_mattype : int {
    LSM_REAL_STRUCTURALLY_SYMMETRIC = 1,
    LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE = 2,
    LSM_REAL_SYMMETRIC_INDEFINITE = -2,
    LSM_REAL_UNSYMMETRIC = 11
};

class KELMATRIX_API LSMsolver {
public:
    /// No data; state -1: call clear() then init() before factor().
    LSMsolver();
    /// Borrows the arrays and configures for a symmetric positive definite matrix (type 2).
    LSMsolver(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps);
    /// Borrows the arrays and configures for the given type.
    LSMsolver(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
              LSMsolver_mattype mtype);
    /// clear().
    ~LSMsolver();

    /// Deliberate: copies every field, PARDISO's handle included, so both objects share one
    /// factorization and clearing either releases it for both.
    LSMsolver& operator=(const LSMsolver& src);

    /// (Re)configures: borrows the arrays, sets the control parameters, decides the thread count.
    /// False, changing nothing, when the solver holds a factorization (clear() first).
    bool init(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
              LSMsolver_mattype mtype);
    /// Analysis and numerical factorization. False when not freshly initialized or cleared, or
    /// when PARDISO reports an error (the state is then unchanged and factor() may be retried).
    bool factor();
    /// Solves every column of B into X (both n x cols, column-major; X is not re-dimensioned and
    /// B is not modified). False on a shape mismatch (X untouched) or a PARDISO error (X may
    /// then hold the batches that succeeded).
    bool solve(KelMatrix& B, KelMatrix& X);
    /// Solves count right-hand sides of length n stored one after another in b into x.
    bool solve(int count, double* b, double* x);
    /// Releases PARDISO's memory if held; always true.
    bool clear();

    /// Decides the library's thread count. requested > 0 is taken as it stands (no cap) and
    /// handed to MKL when it changes. Otherwise a decided count is returned unchanged, or it is
    /// read from OMP_NUM_THREADS (1 when unset or outside 1..20).
    static int establish_numthreads(int requested);
    /// The decided thread count; -1 until decided. Process-wide and not synchronised.
    static int mNumThreadsDefault;

private:
    KELMATRIX_LOCAL int call_pardiso(int phase, int count, double* b, double* x);

    int n;
    int nrhs;
    int* ia; // borrowed from the caller
    int* ja; // borrowed from the caller
    double* a; // borrowed from the caller
    LSMsolver_mattype mtype;
    int state;
    int iparm[64];
    void* pt[64];
};

#endif
