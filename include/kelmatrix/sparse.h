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
//  - ia (n+1 entries), ja and a use 1-based indices, each row's column indices sorted
//    ascending, and stay alive and unchanged from factor() until clear(): the solver borrows
//    them (PARDISO reads them again when solving), never copies or frees them;
//  - for the symmetric types (2 and -2) pass only the upper triangle and store every diagonal
//    entry (an explicit 0.0 where the matrix has none); for types 1 and 11 pass the whole
//    matrix (for type 1 its pattern must be symmetric);
//  - assignment and copy construction are shallow: both objects then share one PARDISO
//    handle, and clearing or destroying either releases PARDISO's memory for both. Before the
//    other one is used or destroyed, assign it an unfactored solver: its own clear() would
//    release the memory a second time;
//  - a true result means PARDISO reported no error, not that the solution is accurate. PARDISO's
//    scaling and weighted matching stay off, so matrices with many zero or tiny diagonal entries
//    (KKT systems, some unsymmetric ones) may get perturbed pivots and poor or even non-finite
//    solutions: check the residual where that matters.
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

/// Sparse direct solver over PARDISO for a matrix in 1-based compressed-row form borrowed from
/// the caller: factor once, solve any number of times in batches of nrhs, clear. Calls out of
/// order return false (see the file comment for the caller's duties).
class KELMATRIX_API LSMsolver {
public:
    /// No data and no parameters (state -1): call init() and clear(), in either order, before
    /// factor().
    LSMsolver();
    /// init() for a symmetric positive definite matrix (type 2); ready for factor() (state 0).
    /// nrhs >= 1 is the number of right-hand sides per PARDISO solve call; maxRefinementSteps
    /// bounds PARDISO's iterative refinement (0: PARDISO refines only after perturbing pivots).
    LSMsolver(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps);
    /// The same for the given type.
    LSMsolver(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
              LSMsolver_mattype mtype);
    /// clear(): releases PARDISO's memory if a factorization is held, shared copies included.
    ~LSMsolver();

    /// Deliberate: copies every field, PARDISO's handle included, so both objects share one
    /// factorization and clearing either releases it for both.
    LSMsolver& operator=(const LSMsolver& src);

    /// (Re)configures: borrows the arrays, sets the control parameters, decides the thread count
    /// as establish_numthreads(0) does, and starts a fresh PARDISO handle. Leaves the state as
    /// it is. False, changing nothing, when the solver holds a factorization (clear() first).
    bool init(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
              LSMsolver_mattype mtype);
    /// Analysis and numerical factorization. False when not freshly initialized or cleared, or
    /// when PARDISO reports an error (the state is then unchanged and factor() may be retried).
    bool factor();
    /// Solves every column of B into X (both n x cols, column-major; X is not re-dimensioned and
    /// B is not modified). False on a shape mismatch (X untouched) or a PARDISO error (X may
    /// then hold the batches that succeeded).
    bool solve(KelMatrix& B, KelMatrix& X);
    /// Solves count right-hand sides of length n stored one after another in b into x (n*count
    /// doubles each; nothing is checked). b is not modified. False before factor() or on a
    /// PARDISO error (x may then hold the batches that succeeded).
    bool solve(int count, double* b, double* x);
    /// Releases PARDISO's memory if a factorization is held; always true. Afterwards init() may
    /// borrow new arrays, and factor() may run again (also on changed values of the same arrays).
    bool clear();

    /// Decides the library's thread count and returns it. requested > 0 is taken as it stands
    /// (no cap) and handed to MKL when it changes. Otherwise a decided count is returned
    /// unchanged, or it is read from OMP_NUM_THREADS (1 when outside 1..20; the OpenMP runtime
    /// reads the variable itself, so MKL is not told), or, with the variable unset, it is 1 and
    /// MKL is told so.
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
