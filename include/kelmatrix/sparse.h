// KELMATRIX sparse direct solver
// LSMsolver: A X = B for a large sparse matrix in compressed-row form, over MKL PARDISO.
//
// The solver drives PARDISO's analysis + factorization once, then any number of solves in
// batches of nrhs right-hand sides straight in the caller's arrays, then the release of
// PARDISO's memory. It also owns the library's thread-count policy. When the library is loaded
// it sets KMP_DUPLICATE_LIB_OK=TRUE in the process environment so that MKL's OpenMP runtime
// tolerates another copy already loaded in the host.
//
// The caller's duties, which the normal build does not check (the checked build does, and
// LSMsolver_check_csr() on request):
//  - ia (n+1 entries), ja and a use 1-based indices, each row's column indices sorted
//    ascending, and stay alive and unchanged from factor() until clear(): the solver borrows
//    them (PARDISO reads them again when solving), never copies or frees them;
//  - for the symmetric types (2 and -2) pass only the upper triangle and store every diagonal
//    entry (an explicit 0.0 where the matrix has none); for types 1 and 11 pass the whole
//    matrix (for type 1 its pattern must be symmetric);
//  - assignment and copy construction are shallow: both objects then share one PARDISO
//    handle. Clearing or destroying either releases PARDISO's memory once; the other then
//    refuses to solve or refactor (LSM_REFUSAL_RELEASED_BY_COPY) and its own clear() releases
//    nothing. Solvers move (std::vector growth, return by value keep the factorization);
//    element assignment in a container (erase, insert in the middle, sort) copies shallowly;
//  - a true result means PARDISO reported no error, not that the solution is accurate. By default
//    PARDISO's scaling and weighted matching stay off, so matrices with many zero or tiny
//    diagonal entries (KKT systems, some unsymmetric ones) may get perturbed pivots and poor or
//    even non-finite solutions: read diagnostics().perturbedPivots, check the residual where that
//    matters, and opt in to LSMsolver_settings::scalingAndMatching for such matrices.
//
// Additions beyond that fixed cycle, all opt-in (unused, the solver makes exactly the calls
// above with the same control parameters): set_settings() between init() and factor();
// refactor() for new values on the same pattern (symbolic analysis once, numeric many);
// diagnostics() after any call; LSMsolver_check_csr() to validate the arrays before they reach
// PARDISO, and LSMsolver_prepare_csr() to build them from 0-based or other-triangle input.
#ifndef KELMATRIX_SPARSE_H
#define KELMATRIX_SPARSE_H

#include <vector>

#include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace internal {
class SolverEngine;  // the engine calls both solvers share; not part of the interface
struct SolverMemory; // the record copies share of whether the engine's memory is held
} // namespace internal
} // namespace kelmatrix

/// Where a solver's cycle stands; the values are the designed state numbers.
enum class LSMsolver_state : int {
    Unset = -1,         ///< default-constructed (or moved from): init() and clear() before factor()
    Ready = 0,          ///< initialized or cleared: factor() may run
    RefactorFailed = 1, ///< a refactor() failed: the analysis is held, the factors are not
    Factored = 2,       ///< factored, not solved yet
    Solved = 3          ///< solved at least once
};

/// PARDISO's real matrix types; the values are PARDISO's mtype codes, passed unchanged.
enum LSMsolver_mattype : int {
    LSM_REAL_STRUCTURALLY_SYMMETRIC = 1,
    LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE = 2,
    LSM_REAL_SYMMETRIC_INDEFINITE = -2,
    LSM_REAL_UNSYMMETRIC = 11
};

/// PARDISO's fill-reducing orderings (its iparm[1] codes).
enum LSMsolver_ordering : int {
    LSM_ORDERING_MINIMUM_DEGREE = 0,
    LSM_ORDERING_NESTED_DISSECTION = 2, ///< METIS; what init() sets
    LSM_ORDERING_PARALLEL_NESTED_DISSECTION =
        3 ///< METIS with OpenMP; pays off when analysis dominates
};

/// Opt-in PARDISO controls, applied by LSMsolver::set_settings() between init() and factor().
/// The member initializers are exactly what init() sets, so a default-constructed value changes
/// nothing. Which matrices want what:
///  - scalingAndMatching: unsymmetric (11) and symmetric indefinite (-2) matrices with zero or
///    tiny diagonal entries: KKT and saddle-point systems, circuit and chemical-process
///    matrices. It permutes large entries onto the diagonal before factoring, so far fewer
///    pivots are perturbed. Meant for types 11 and -2; a positive definite matrix (type 2)
///    needs no pivoting help.
///  - pivotPerturbation: pivots smaller than 10^-p times the matrix norm are replaced by that
///    value. 13 suits types 1 and 11; 8 is PARDISO's own choice for -2. Smaller p perturbs more
///    pivots but keeps the factorization stable; refinement then repairs the solution.
///  - ordering: nested dissection for 2-D and 3-D meshes (least fill); minimum degree can be
///    faster to analyse on small or very irregular matrices; the parallel variant for large 3-D
///    problems on several threads.
///  - factorStatistics: asks PARDISO to count the factor's nonzeros (diagnostics().factorNonzeros).
struct LSMsolver_settings {
    bool scalingAndMatching = false; ///< PARDISO iparm[10] and iparm[12]
    int pivotPerturbation = 13;      ///< PARDISO iparm[9]; 1..20
    LSMsolver_ordering ordering = LSM_ORDERING_NESTED_DISSECTION; ///< PARDISO iparm[1]
    bool factorStatistics = false; ///< PARDISO iparm[17] = -1 on entry
};

/// Why a solver refused the last call, without reaching the engine (see
/// LSMsolver_diagnostics::refusal). A refused call changes nothing but this record.
enum LSMsolver_refusal : int {
    LSM_REFUSAL_NONE = 0,            ///< the last call was not refused
    LSM_REFUSAL_NEEDS_CLEAR,         ///< factor() on a default-constructed (or moved-from) solver
    LSM_REFUSAL_HOLDS_FACTORIZATION, ///< init(), factor() or set_settings() while factored
    LSM_REFUSAL_NOT_FACTORED,        ///< solve() or refactor() with no factorization
    LSM_REFUSAL_REFACTOR_FAILED,     ///< solve() after a failed refactor()
    LSM_REFUSAL_RELEASED_BY_COPY,    ///< solve() or refactor() after a copy released the memory
    LSM_REFUSAL_NOT_INITIALISED,     ///< set_settings() before this object's init()
    LSM_REFUSAL_BAD_SETTINGS,        ///< a settings field out of range, or an ordering not offered
    LSM_REFUSAL_SHAPE,               ///< solve(): B and X differ in shape or do not fit the order
    LSM_REFUSAL_NO_COMMUNICATOR,     ///< LSMclusterSolver: init with MPI_COMM_NULL
    LSM_REFUSAL_BAD_ARGUMENTS,       ///< LSMclusterSolver: n < 1, nrhs < 1 or an unknown type
    LSM_REFUSAL_BAD_ROW_BLOCKS,      ///< LSMclusterSolver: blocks not covering 1..n in rank order
    LSM_REFUSAL_RANKS_DIFFER,        ///< LSMclusterSolver: ranks passed different values
    LSM_REFUSAL_NOT_FINITE           ///< LSMclusterSolver: a solution entry is NaN or infinite
};

/// What PARDISO reported, read after any call (see LSMsolver::diagnostics()).
struct LSMsolver_diagnostics {
    int error = 0;           ///< PARDISO's error code of the last call that reached it; 0: none
    int lastPhase = 0;       ///< the PARDISO phase of that call (12, 22, 33, -1); 0: none yet
    int perturbedPivots = 0; ///< pivots PARDISO perturbed in the last (re)factorization
    int refinementSteps = 0; ///< iterative refinement steps of the last solve
    int positiveEigenvalues = -1;  ///< inertia after factoring type -2; -1 for other types
    int negativeEigenvalues = -1;  ///< inertia after factoring type -2; -1 for other types
    int peakAnalysisMemoryKB = 0;  ///< peak memory of the analysis, KiB
    int peakFactorMemoryKB = 0;    ///< memory held by the factorization and solve, KiB
    long long factorNonzeros = -1; ///< nonzeros in the factor; -1 unless factorStatistics is set
    LSMsolver_refusal refusal = LSM_REFUSAL_NONE; ///< why the last call was refused, if it was
    const char* refusalMessage = "";              ///< that reason in words (fixed text, never null)
    /// NaN or infinite entries in the solutions of the last solve() that reached the engine
    /// without an error (over all ranks for LSMclusterSolver); 0 before any.
    long long nonFiniteSolutions = 0;
};

/// A fixed English description of a PARDISO error code (0 included); never null.
KELMATRIX_API const char* LSMsolver_error_message(int error);

/// The first broken rule found by LSMsolver_check_csr(); LSM_CSR_OK when none.
enum LSMsolver_csr_problem : int {
    LSM_CSR_OK = 0,
    LSM_CSR_BAD_MATRIX_TYPE,       ///< mtype is not one of LSMsolver_mattype
    LSM_CSR_ORDER_BELOW_ONE,       ///< n < 1, or a negative nnz
    LSM_CSR_NULL_ARRAY,            ///< ia is null, or ja / a are null with nnz > 0
    LSM_CSR_NOT_ONE_BASED,         ///< ia[0] != 1 (LSMsolver_prepare_csr(): != base)
    LSM_CSR_ROW_POINTERS_DECREASE, ///< ia[row] < ia[row - 1]
    LSM_CSR_ROW_POINTERS_END,      ///< ia[n] != nnz + 1
    LSM_CSR_COLUMN_OUT_OF_RANGE,   ///< a column index outside 1..n
    LSM_CSR_DUPLICATE_COLUMN,      ///< a column repeated within a row
    LSM_CSR_COLUMNS_NOT_ASCENDING, ///< a row's columns not in ascending order
    LSM_CSR_BELOW_DIAGONAL,        ///< a lower-triangle entry for types 2 and -2
    LSM_CSR_MISSING_DIAGONAL,      ///< a diagonal entry not stored for types 2 and -2
    LSM_CSR_NONPOSITIVE_DIAGONAL,  ///< a diagonal value <= 0 for type 2
    LSM_CSR_NOT_FINITE,            ///< an infinite or NaN value
    LSM_CSR_BAD_BASE,              ///< LSMsolver_prepare_csr(): base is neither 0 nor 1
    LSM_CSR_OUTSIDE_TRIANGLE,  ///< LSMsolver_prepare_csr(): an entry outside the stated triangle
    LSM_CSR_BAD_ROW_RANGE,     ///< LSMsolver_check_csr_rows(): rows not within 1..n, or none
    LSM_CSR_ROW_OUT_OF_RANGE,  ///< LSMsolver_prepare_csr() from triplets: a row outside 1..n
    LSM_CSR_BAD_VECTORS,       ///< LSMsolver_multiply(): count < 0, or null or overlapping x, y
    LSM_CSR_SPARSE_BLAS_FAILED ///< LSMsolver_multiply(): MKL's sparse BLAS reported an error
};

/// The result of a check: the code, where (1-based row and 1-based position in ja/a; 0 where
/// the rule concerns the whole matrix or ia[0]) and the rule in words (fixed text, never
/// null, never printed by the library).
struct LSMsolver_csr_check {
    LSMsolver_csr_problem code = LSM_CSR_OK; ///< the first broken rule
    int row = 0; ///< its 1-based row (for ia[row] < ia[row - 1] that row, for ia[n] n); 0: none
    int position = 0;         ///< its 1-based index into ja and a; 0: none
    const char* message = ""; ///< the rule in words
};

/// Validates the compressed rows (n, ia with n + 1 entries, ja and a with nnz entries) against
/// what LSMsolver requires for mtype, and returns the first problem in this order: the type and
/// sizes; ia as a whole (ia[0] == 1, non-decreasing, ia[n] == nnz + 1); then row by row, entry
/// by entry: column in 1..n, strictly ascending (a repeat is reported as a duplicate), for types
/// 2 and -2 no entry below the diagonal and, for type 2, a positive diagonal value, every value
/// finite; at the end of a row, for types 2 and -2, that its diagonal was stored. Reads each
/// entry at most once (O(n + nnz)), allocates nothing, writes nothing. Not checked: that a
/// type-1 pattern is symmetric (that needs a transpose, hence memory).
KELMATRIX_API LSMsolver_csr_check LSMsolver_check_csr(int n, const int* ia, const int* ja,
                                                      const double* a, int nnz,
                                                      LSMsolver_mattype mtype);

/// The same checks for one contiguous block of rows firstRow..lastRow (1-based, inclusive) of an
/// n x n matrix, as a distributed solver takes them from each process: ia holds
/// lastRow - firstRow + 2 entries with ia[0] == 1, ja the global 1-based column indices, and for
/// types 2 and -2 the block's part of the upper triangle (the diagonal of row r is column r).
/// Rows are reported by their global number, positions 1-based into this block's ja and a. A
/// block that does not lie within 1..n or holds no row is LSM_CSR_BAD_ROW_RANGE, checked after
/// the type and sizes. For firstRow = 1 and lastRow = n it is LSMsolver_check_csr().
KELMATRIX_API LSMsolver_csr_check LSMsolver_check_csr_rows(int n, int firstRow, int lastRow,
                                                           const int* ia, const int* ja,
                                                           const double* a, int nnz,
                                                           LSMsolver_mattype mtype);

/// The rule a problem code stands for: the same fixed text as LSMsolver_csr_check::message
/// ("unknown problem" for a value outside LSMsolver_csr_problem); never null.
KELMATRIX_API const char* LSMsolver_csr_rule(LSMsolver_csr_problem code);

/// Which part of the matrix compressed rows hold, for LSMsolver_prepare_csr().
enum LSMsolver_stored : int {
    LSM_STORED_FULL = 0,  ///< every nonzero
    LSM_STORED_UPPER = 1, ///< the upper triangle of a symmetric matrix (diagonal included)
    LSM_STORED_LOWER = 2  ///< the lower triangle of a symmetric matrix (diagonal included)
};

/// Compressed rows as LSMsolver takes them: 1-based, owned, to be borrowed by LSMsolver.
struct LSMsolver_csr {
    int n = 0;             ///< order
    std::vector<int> ia;   ///< n + 1 row starts, ia[0] = 1
    std::vector<int> ja;   ///< column indices, ascending within each row
    std::vector<double> a; ///< values, beside ja
};

/// Builds in out the arrays LSMsolver expects for mtype from compressed rows with indices
/// starting at base (0 or 1): columns sorted, repeated entries summed (in their input order),
/// for types 2 and -2 the upper triangle with every diagonal stored (0.0 where absent; a full
/// input keeps its upper triangle and ignores the other values, a lower one is transposed), for
/// types 1 and 11 the whole matrix (a triangle is mirrored). Returns the first structural
/// problem of the input (out then unchanged) or, once built, LSMsolver_check_csr() of the
/// result (non-finite values, a non-positive diagonal for type 2), which out then holds.
KELMATRIX_API LSMsolver_csr_check LSMsolver_prepare_csr(int n, const int* ia, const int* ja,
                                                        const double* a, int base,
                                                        LSMsolver_stored stored,
                                                        LSMsolver_mattype mtype,
                                                        LSMsolver_csr& out);

/// The same from nnz triplets (rows[k], cols[k], a[k]) with indices starting at base, in any
/// order, repeats summed in their input order; stored says which part they hold, as above.
/// Checked before anything is built: nnz >= 0 (else LSM_CSR_ORDER_BELOW_ONE), non-null arrays when
/// nnz > 0, each row and column in range (LSM_CSR_ROW_OUT_OF_RANGE, LSM_CSR_COLUMN_OUT_OF_RANGE)
/// and inside the stated triangle; a problem reports the triplet's 1-based position k + 1 and,
/// for a column or triangle problem, its 1-based row. Then as above.
KELMATRIX_API LSMsolver_csr_check LSMsolver_prepare_csr(int n, int nnz, const int* rows,
                                                        const int* cols, const double* a, int base,
                                                        LSMsolver_stored stored,
                                                        LSMsolver_mattype mtype,
                                                        LSMsolver_csr& out);

/// y = A x for count vectors of n doubles each (one after another in x and y) and the compressed
/// rows LSMsolver takes for mtype: for types 2 and -2 the upper triangle stands for the whole
/// symmetric matrix, for types 1 and 11 the rows are the whole matrix. The arrays are first
/// judged by LSMsolver_check_csr() (nnz = ia[n] - 1), so malformed input never reaches MKL's
/// sparse BLAS, which computes the product (its rounding may differ with MKL's thread count).
/// Returns that check's problem, or LSM_CSR_BAD_VECTORS (count < 0, x or y null with count > 0,
/// x == y), or LSM_CSR_SPARSE_BLAS_FAILED; y is written only when the result is LSM_CSR_OK.
KELMATRIX_API LSMsolver_csr_check LSMsolver_multiply(int n, const int* ia, const int* ja,
                                                     const double* a, LSMsolver_mattype mtype,
                                                     int count, const double* x, double* y);

/// ratio = ||B - A X||_1 / (||A||_1 ||X||_1 n eps) for count solutions x of A x = b (n doubles
/// each, one after another), with 1-norms of the n x count matrices (largest column sum) and
/// A X by LSMsolver_multiply(): what to check after LSMsolver::solve(). A backward-stable
/// solution gives a ratio of order 1 (tests accept up to 30 or so); 0 when b equals A x
/// exactly, infinite when the denominator is 0 otherwise. Returns LSMsolver_multiply()'s
/// result (b null counts as LSM_CSR_BAD_VECTORS); ratio is written only on LSM_CSR_OK.
KELMATRIX_API LSMsolver_csr_check LSMsolver_residual_ratio(int n, const int* ia, const int* ja,
                                                           const double* a, LSMsolver_mattype mtype,
                                                           int count, const double* x,
                                                           const double* b, double& ratio);

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
    /// clear(): releases PARDISO's memory if a factorization is held and no copy released it.
    ~LSMsolver();

    /// Deliberate: copies every field, PARDISO's handle included, as operator= does.
    LSMsolver(const LSMsolver& src);
    /// Takes src's factorization, handle and arrays; src is left as default-constructed (state
    /// -1, handle zeroed), so destroying it releases nothing. What std::vector's growth and
    /// return by value use.
    LSMsolver(LSMsolver&& src) noexcept;
    /// Deliberate: copies every field, PARDISO's handle included, so both objects share one
    /// factorization and the record of whether its memory is held: after either is cleared or
    /// destroyed, solve() and refactor() on the other return false (LSM_REFUSAL_RELEASED_BY_COPY)
    /// without touching the released memory, and its clear() releases nothing again. A
    /// factorization held here before is not released. Assignment from a temporary copies too
    /// (there is no move assignment): `t = s; s = LSMsolver();` detaches s, leaving t the owner.
    /// So in a container, growth moves elements while erase, insert and sort assign them.
    /// Copies share the record without locking: use them from one thread at a time, as one
    /// factorization.
    LSMsolver& operator=(const LSMsolver& src);

    /// (Re)configures: borrows the arrays, sets the control parameters, decides the thread count
    /// as establish_numthreads(0) does, and starts a fresh PARDISO handle. Leaves the state as
    /// it is. False, changing nothing, when the solver holds a factorization (clear() first).
    bool init(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
              LSMsolver_mattype mtype);
    /// Analysis and numerical factorization. False when not freshly initialized or cleared, or
    /// when PARDISO reports an error (the state is then unchanged and factor() may be retried).
    /// PARDISO may keep memory from a failed attempt on the handle; clear() does not call it in
    /// that state, so retry factor() (for example with corrected values), whose success
    /// clear() then releases with everything else.
    bool factor();
    /// Solves every column of B into X (both n x cols, column-major; X is not re-dimensioned and
    /// B is not modified). False on a shape mismatch (X untouched) or a PARDISO error (X may
    /// then hold the batches that succeeded).
    bool solve(KelMatrix& B, KelMatrix& X);
    /// Solves count right-hand sides of length n stored one after another in b into x (n*count
    /// doubles each; the normal build checks nothing). b is not modified. x must not be b: PARDISO
    /// reads b while it writes x, and solving in place gives wrong solutions for n > 1 (the
    /// checked build reports it). False before factor() or on a
    /// PARDISO error (x may then hold the batches that succeeded).
    /// Batching is PARDISO's matter: its first solve with nrhs > 1 after a factorization pays
    /// a one-off set-up, small batches (8) are no faster than single calls on one thread, large
    /// ones (32) are; iterative refinement (maxRefinementSteps > 0) makes every solve several
    /// times dearer and pays only when pivots were perturbed.
    bool solve(int count, double* b, double* x);
    /// Numerical refactorization with the values now in the borrowed a (same ia, ja, n and
    /// type), reusing the analysis of factor(): PARDISO phase 22 on the same handle, with the
    /// settings in force at factor(). Allowed after a successful factor() (states 2 and 3) and
    /// after a failed refactor(); leads to state 2. On failure (see diagnostics().error) the
    /// old factors are gone: solve() refuses until a refactor() succeeds, and clear() (or the
    /// destructor) still releases PARDISO's memory. False, reaching no PARDISO phase, in any
    /// other state.
    bool refactor();
    /// Applies the opt-in settings for the next factor(); init() resets them to the defaults.
    /// False, changing nothing, before init() has run on this object (or a copy's source), when a
    /// factorization is held (clear() and init() first) or a field is out of range (an ordering
    /// not in LSMsolver_ordering, pivotPerturbation outside 1..20).
    bool set_settings(const LSMsolver_settings& settings);
    /// Where the cycle stands (the designed state numbers; see LSMsolver_state).
    LSMsolver_state state() const;
    /// The settings now in force (after init(), before any set_settings(): the defaults).
    LSMsolver_settings settings() const;
    /// What PARDISO reported: the error and phase of the last call that reached it, and the
    /// statistics of the last analysis, factorization and solve; why the last call was refused,
    /// if it was (every call but clear() may refuse, and each one that is not clears the
    /// record); the count of non-finite solution entries, which leaves solve()'s result as it is.
    /// Readable in every state; the statistics persist until init() resets them.
    LSMsolver_diagnostics diagnostics() const;

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
    friend class kelmatrix::internal::SolverEngine;

    int n;
    int nrhs;
    int* ia;   // borrowed from the caller
    int* ja;   // borrowed from the caller
    double* a; // borrowed from the caller
    LSMsolver_mattype mtype;
    LSMsolver_state cycle; // the designed state
    int iparm[64];
    void* pt[64];
    int last_error;                            // PARDISO's error of the last call that reached it
    int last_phase;                            // and that call's phase
    kelmatrix::internal::SolverMemory* memory; // shared by copies: is the memory still held?
    bool initialised;                          // init() has run on this object
    LSMsolver_refusal refusal;                 // why the last call was refused
    long long non_finite;                      // non-finite entries in the last solutions
};

#endif
