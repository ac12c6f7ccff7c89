// KELMATRIX distributed sparse direct solver
// LSMclusterSolver: A X = B for a sparse matrix spread over the ranks of an MPI communicator by
// blocks of rows, over MKL's cluster sparse solver (the MPI engine of PARDISO's family).
//
// It lives in its own library, libkelmatrix_mpi (CMake: KelMatrix::kelmatrix_mpi, pkg-config:
// kelmatrix_mpi), so that libkelmatrix itself never depends on MPI. It follows LSMsolver
// (kelmatrix/sparse.h): the same life cycle (init, factor, refactor, solve in batches of nrhs,
// clear), the same states and refusals, the same fixed control parameters and engine phases, the
// same opt-in LSMsolver_settings and the same LSMsolver_diagnostics. Where the two differ:
//  - every member function that changes or uses the factorization (the constructor with
//    arguments, init, init_on_root, set_settings, factor, refactor, solve, clear and the
//    destructor) is collective: all ranks of the communicator call it, in the same order. Each
//    one agrees on its result among the ranks (the engine's error is reduced over all ranks after
//    every call, and a refusal on any rank is a refusal on all), so a false result is returned
//    on every rank and no rank is left waiting in MPI;
//  - init() takes the communicator and this rank's block of rows: rows firstRow..lastRow
//    (1-based, inclusive) of the n x n matrix as distributed compressed rows. ia holds
//    lastRow - firstRow + 2 entries with ia[0] = 1, ja the global 1-based column indices sorted
//    ascending within each row, a the values; for the symmetric types (2 and -2) only the upper
//    triangle, every diagonal entry stored. The blocks follow the ranks in order, each holds at
//    least one row, and together they cover 1..n without overlap;
//  - right-hand sides and solutions are distributed the same way: on each rank, each of the
//    count right-hand sides is this rank's lastRow - firstRow + 1 consecutive entries, so no rank
//    ever holds a whole vector;
//  - init_on_root() takes the matrix, right-hand sides and solutions whole on rank 0 (the other
//    ranks pass no arrays), for callers that assembled on one rank: the engine spreads the work;
//  - the input is checked before factor() and refactor() reach the engine, because the engine
//    does not validate distributed input (a malformed row on one rank crashes every rank): a
//    problem on any rank makes the call false on every rank with diagnostics().error = -1, and
//    input_problem() names the rank, the row and the rule. A passed check costs one pass over
//    each rank's rows;
//  - no copies: copy construction and assignment are deleted (a factorization belongs to the
//    ranks of one communicator); a solver moves (std::vector growth, return by value);
//  - a refused call records why (diagnostics().refusal), the same reason on every rank;
//  - the engine has no minimum-degree ordering: set_settings() refuses
//    LSM_ORDERING_MINIMUM_DEGREE;
//  - diagnostics(): the memory figures are this rank's own (the point of distributing), but on a
//    single rank the engine leaves them unreliable (read from unset memory); the error is the
//    agreed one; the pivot and refinement counts are the engine's, alike on all ranks;
//  - a true result from solve() means the engine reported no error and every solution entry on
//    every rank is finite (one reduction after the solve checks it). With more than one rank, a
//    type-2 matrix that is not positive definite can factor without an error and give non-finite
//    solutions (LSMsolver reports -4 there): solve() then returns false on every rank with
//    LSM_REFUSAL_NOT_FINITE, x holding what the engine wrote, and the state as it was. Use type
//    -2 when definiteness is not known.
//
// The caller's duties, which no build checks: the communicator and the borrowed arrays stay valid
// and unchanged from factor() until clear() (the engine reads them again); every rank passes the
// same n, nrhs, maxRefinementSteps, type and settings (init() and set_settings() refuse on every
// rank when they differ) and the same count to solve(); the solver is cleared or destroyed before
// MPI_Finalize. The thread count of each rank is LSMsolver's policy (establish_numthreads).
#ifndef KELMATRIX_SPARSE_MPI_H
#define KELMATRIX_SPARSE_MPI_H

#include <mpi.h>

#include "kelmatrix/export.h"
#include "kelmatrix/matrix.h"
#include "kelmatrix/sparse.h"

/// Where the last input check of LSMclusterSolver found a problem.
struct LSMclusterSolver_input_problem {
    int rank = -1;             ///< the lowest rank whose rows hold a problem; -1: none found
    LSMsolver_csr_check check; ///< that rank's first problem (rows global, positions local)
};

/// Distributed sparse direct solver over MKL's cluster sparse solver for a matrix in 1-based
/// compressed rows borrowed from the caller, spread over the ranks by blocks of rows (or whole on
/// rank 0): factor once, solve any number of times in batches of nrhs, clear. Calls out of order
/// return false on every rank (see the file comment for the differences from LSMsolver).
class KELMATRIX_MPI_API LSMclusterSolver {
public:
    /// No data and no parameters (state -1): call init() (or init_on_root()) and clear(), in
    /// either order, before factor(). Not collective.
    LSMclusterSolver();
    /// init() with the given block of rows; ready for factor() (state 0) when init() succeeds,
    /// else as default-constructed (state -1).
    LSMclusterSolver(MPI_Comm comm, int n, int firstRow, int lastRow, int* ia, int* ja, double* a,
                     int nrhs, int maxRefinementSteps, LSMsolver_mattype mtype);
    /// clear(): collective while a factorization is held.
    ~LSMclusterSolver();
    LSMclusterSolver(const LSMclusterSolver&) = delete;
    LSMclusterSolver& operator=(const LSMclusterSolver&) = delete;
    /// Takes src's factorization, handle, communicator and arrays; src is left as
    /// default-constructed (state -1), so destroying it communicates with nobody. Not
    /// collective: each rank moves its own solver.
    LSMclusterSolver(LSMclusterSolver&& src) noexcept;

    /// (Re)configures for this rank's rows firstRow..lastRow of the n x n matrix (see the file
    /// comment for the arrays): borrows the arrays and the communicator, sets the fixed control
    /// parameters (LSMsolver's) with the distributed format, decides the thread count as
    /// LSMsolver::establish_numthreads(0) does, and starts a fresh engine handle. nrhs >= 1 is
    /// the number of right-hand sides per engine solve call. Leaves the state as it is. False on
    /// every rank, changing nothing, when comm is MPI_COMM_NULL (on that rank), any rank holds a
    /// factorization, n < 1, nrhs < 1, the type is not an LSMsolver_mattype, the ranks pass
    /// different n, nrhs, maxRefinementSteps or type, or the blocks do not cover 1..n in rank
    /// order with at least one row each.
    bool init(MPI_Comm comm, int n, int firstRow, int lastRow, int* ia, int* ja, double* a,
              int nrhs, int maxRefinementSteps, LSMsolver_mattype mtype);
    /// The same with the whole matrix on rank 0 (ia with n + 1 entries, as LSMsolver takes it):
    /// the other ranks' ia, ja and a are not read (null is fine), and solve() reads b and writes
    /// x on rank 0 only (n doubles per right-hand side). False under the same conditions, blocks
    /// aside.
    bool init_on_root(MPI_Comm comm, int n, int* ia, int* ja, double* a, int nrhs,
                      int maxRefinementSteps, LSMsolver_mattype mtype);
    /// Input check, then analysis and numerical factorization. False on every rank when not
    /// freshly initialized or cleared on some rank, when the check finds a problem (error -1, the
    /// engine not called; see input_problem()) or when the engine reports an error; the state is
    /// then unchanged and factor() may be retried.
    bool factor();
    /// Numerical refactorization with the values now in the borrowed a (same ia, ja, blocks and
    /// type), reusing the analysis of factor(), after the same input check: phase 22 on the same
    /// handle with the settings in force at factor(). Allowed in states 1, 2 and 3; leads to
    /// state 2. On failure (a check problem included) the state is 1: solve() refuses until a
    /// refactor() succeeds, and clear() still releases the engine's memory.
    bool refactor();
    /// Solves count right-hand sides stored one after another in b into x: on each rank its
    /// rows of each (lastRow - firstRow + 1 doubles), or with init_on_root() n doubles each on
    /// rank 0 and nothing elsewhere (b and x may be null there). b is not modified. count must be
    /// the same on every rank. False on every rank before factor(), on differing counts or a
    /// negative one (x untouched), on an engine error (x may then hold the batches that
    /// succeeded) or when any rank's solutions hold a NaN or an infinity (x as written).
    bool solve(int count, double* b, double* x);
    /// The same with B and X holding this rank's rows (all n on rank 0 with init_on_root(), any
    /// row count elsewhere) by count = B's columns, column-major; X is not re-dimensioned. False
    /// on every rank when any rank's B and X differ in shape or hold the wrong row count (X
    /// untouched), or as above.
    bool solve(KelMatrix& B, KelMatrix& X);
    /// Applies the opt-in settings for the next factor(); init() resets them to the defaults.
    /// False on every rank, changing nothing, before init() has run on this object, when a
    /// factorization is held, a field is out of range (as for LSMsolver, and
    /// LSM_ORDERING_MINIMUM_DEGREE, which the engine lacks) or the ranks pass different
    /// settings.
    bool set_settings(const LSMsolver_settings& settings);
    /// Where this rank's cycle stands (the same on every rank after each collective call).
    LSMsolver_state state() const;
    /// The settings now in force (after init(), before any set_settings(): the defaults).
    LSMsolver_settings settings() const;
    /// The agreed error and phase of the last call that reached the engine (or was refused by
    /// the input check: error -1), and the statistics of the last analysis, factorization and
    /// solve; the memory figures are this rank's. The refusal of the last call is the same on
    /// every rank (MPI_COMM_NULL and the calls of a default-constructed solver refuse alone);
    /// nonFiniteSolutions counts over all ranks. Readable in every state; not collective.
    LSMsolver_diagnostics diagnostics() const;
    /// What the last input check found (rank -1 and LSM_CSR_OK when it passed or none ran since
    /// init()); the same on every rank. Not collective.
    LSMclusterSolver_input_problem input_problem() const;
    /// Releases the engine's memory if a factorization is held; always true. Afterwards init()
    /// may borrow new arrays, and factor() may run again.
    bool clear();

    /// This rank's first row (1-based; 1 on rank 0 and 0 elsewhere after init_on_root(); 0
    /// before any init()).
    int first_row() const;
    /// This rank's last row (1-based; n on rank 0 and -1 elsewhere after init_on_root(); -1
    /// before any init()).
    int last_row() const;

private:
    KELMATRIX_LOCAL bool configure(MPI_Comm comm, int n, int firstRow, int lastRow, int* ia,
                                   int* ja, double* a, int nrhs, int maxRefinementSteps,
                                   LSMsolver_mattype mtype, bool on_root);
    KELMATRIX_LOCAL LSMsolver_refusal agree(LSMsolver_refusal local) const;
    KELMATRIX_LOCAL bool solve_agreed(bool local_ok, int count, double* b, double* x);
    KELMATRIX_LOCAL int check_input();
    friend class kelmatrix::internal::SolverEngine;

    MPI_Comm comm;
    int n;
    int first, last; // this rank's rows, 1-based
    int nrhs;
    int* ia;   // borrowed from the caller
    int* ja;   // borrowed from the caller
    double* a; // borrowed from the caller
    LSMsolver_mattype mtype;
    bool on_root; // matrix and vectors whole on rank 0
    LSMsolver_state cycle;
    int iparm[64];
    void* pt[64];
    int last_error; // agreed error of the last call that reached the engine
    int last_phase; // and that call's phase
    LSMclusterSolver_input_problem problem;
    kelmatrix::internal::SolverMemory* memory; // is the engine's memory held? (never shared)
    bool initialised;                          // init() has run on this object
    LSMsolver_refusal refusal; // why the last call was refused, agreed among the ranks
    long long non_finite;      // non-finite entries in the last solutions, over all ranks
};

/// The block of rows rank `rank` of `ranks` takes when n rows are split evenly in rank order, as
/// init() takes blocks: firstRow..lastRow, 1-based, the first n % ranks ranks one row more than
/// the others. False, writing nothing, when ranks < 1, rank is outside 0..ranks-1 or n < ranks
/// (a rank would hold no row, which init() refuses). Not collective; no MPI call.
KELMATRIX_MPI_API bool LSMclusterSolver_split_rows(int n, int ranks, int rank, int& firstRow,
                                                   int& lastRow);

/// Collective: gathers count distributed vectors, on each rank its rows firstRow..lastRow of
/// each one after another (as LSMclusterSolver::solve() writes x), into whole on rank 0 (n
/// doubles a vector, one after another); whole is not touched elsewhere and may be null there.
/// False on every rank, whole untouched, when comm is MPI_COMM_NULL (on that rank alone), the
/// blocks do not cover 1..n in rank order with one row each at least, the ranks pass different
/// n or count, count < 0, or part (count > 0) or rank 0's whole is null.
KELMATRIX_MPI_API bool LSMclusterSolver_gather(MPI_Comm comm, int n, int firstRow, int lastRow,
                                               int count, const double* part, double* whole);

#endif
