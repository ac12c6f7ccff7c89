// KELMATRIX distributed sparse direct solver
// LSMclusterSolver: A X = B over MKL's cluster sparse solver, the matrix spread by rows over MPI.
//
// The life cycle is LSMsolver's, run by the same engine helper (sparse/solver_engine.h) with
// the same control table and settings; every engine call takes the fixed arguments maxfct = 1,
// mnum = 1, msglvl = 0, a dummy perm and the communicator's Fortran handle. What is added is
// agreement among the ranks: before a step, one reduction makes every rank refuse when any rank
// would (state, shapes, count); after each engine call, the error is reduced so that every rank
// sees the same one and takes the same branch of the step. The arrays are borrowed, never copied,
// and checked before each (re)factorization, since the engine crashes on malformed distributed
// input rather than reporting it: a problem on any rank is reported to all (error -1, the engine
// not called). Deliberate: a default- constructed solver communicates with nobody, so its refusals
// stay local.
#include <algorithm>
#include <cstring>
#include <vector>

#include "kelmatrix/sparse_mpi.h"
#include "matrix/mkl_bindings.h"
#include "sparse/matrix_type.h"
#include "sparse/solver_engine.h"

using namespace kelmatrix::internal;

static_assert(sizeof(MPI_Fint) == sizeof(int), "the engine takes the communicator as an int");

namespace {

// The cluster engine's own iparm entries.
constexpr int kIparmInputFormat = 39; // 0: all on the master rank; 2: A, b and x by row blocks
constexpr int kIparmDomainFirst = 40; // first row of this rank's block, 1-based
constexpr int kIparmDomainLast = 41;  // last row of this rank's block
constexpr int kFormatOnRoot = 0, kFormatDistributed = 2;

constexpr int kInputInconsistent = -1; // the engine's code for inconsistent input

// What each rank passes to init(), gathered so that every rank judges the same table.
enum InitField { kFirst, kLast, kOrder, kNrhs, kRefinement, kType, kHolds, kInitFields };

/// Why init() is refused, judged alike on every rank from the gathered table.
LSMsolver_refusal init_refusal(const std::vector<int>& all, int ranks, bool on_root)
{
    const int* root = all.data();
    if (root[kOrder] < 1 || root[kNrhs] < 1 || !known_type(root[kType]))
        return LSM_REFUSAL_BAD_ARGUMENTS;
    bool blocks = on_root || all[(ranks - 1) * kInitFields + kLast] == root[kOrder];
    for (int r = 0; r < ranks; ++r) {
        const int* mine = all.data() + r * kInitFields;
        if (mine[kHolds] != 0)
            return LSM_REFUSAL_HOLDS_FACTORIZATION;
        if (mine[kOrder] != root[kOrder] || mine[kNrhs] != root[kNrhs] ||
            mine[kRefinement] != root[kRefinement] || mine[kType] != root[kType])
            return LSM_REFUSAL_RANKS_DIFFER;
        const int expected_first = r == 0 ? 1 : all[(r - 1) * kInitFields + kLast] + 1;
        if (mine[kFirst] != expected_first || mine[kLast] < mine[kFirst]) // one row at least
            blocks = blocks && on_root;
    }
    return blocks ? LSM_REFUSAL_NONE : LSM_REFUSAL_BAD_ROW_BLOCKS;
}

} // namespace

LSMclusterSolver::LSMclusterSolver()
    : comm(MPI_COMM_NULL), n(0), first(0), last(-1), nrhs(0), ia(nullptr), ja(nullptr), a(nullptr),
      mtype(LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE), on_root(false), cycle(State::Unset),
      last_error(0), last_phase(0), memory(nullptr)
{
    // Filled only so that settings() and diagnostics() read defined values before init().
    SolverEngine::blank(*this);
}

LSMclusterSolver::LSMclusterSolver(LSMclusterSolver&& src) noexcept : LSMclusterSolver()
{
    const LSMclusterSolver unset;
    SolverEngine::copy_fields(*this, src);
    SolverEngine::copy_fields(src, unset);
    comm = src.comm;
    first = src.first;
    last = src.last;
    on_root = src.on_root;
    problem = src.problem;
    src.comm = MPI_COMM_NULL; // src now communicates with nobody, as default-constructed
    src.first = 0;
    src.last = -1;
    src.on_root = false;
    src.problem = LSMclusterSolver_input_problem();
}

LSMclusterSolver::LSMclusterSolver(MPI_Comm comm, int n, int firstRow, int lastRow, int* ia,
                                   int* ja, double* a, int nrhs, int maxRefinementSteps,
                                   LSMsolver_mattype mtype)
    : LSMclusterSolver()
{
    if (init(comm, n, firstRow, lastRow, ia, ja, a, nrhs, maxRefinementSteps, mtype))
        cycle = State::Ready;
}

LSMclusterSolver::~LSMclusterSolver()
{
    clear();
}

bool LSMclusterSolver::init(MPI_Comm comm, int n, int firstRow, int lastRow, int* ia, int* ja,
                            double* a, int nrhs, int maxRefinementSteps, LSMsolver_mattype mtype)
{
    return configure(comm, n, firstRow, lastRow, ia, ja, a, nrhs, maxRefinementSteps, mtype, false);
}

bool LSMclusterSolver::init_on_root(MPI_Comm comm, int n, int* ia, int* ja, double* a, int nrhs,
                                    int maxRefinementSteps, LSMsolver_mattype mtype)
{
    return configure(comm, n, 0, -1, ia, ja, a, nrhs, maxRefinementSteps, mtype, true);
}

bool LSMclusterSolver::configure(MPI_Comm comm, int n, int firstRow, int lastRow, int* ia, int* ja,
                                 double* a, int nrhs, int maxRefinementSteps,
                                 LSMsolver_mattype mtype, bool on_root)
{
    if (!SolverEngine::admit(*this, comm == MPI_COMM_NULL ? LSM_REFUSAL_NO_COMMUNICATOR
                                                          : LSM_REFUSAL_NONE))
        return false;
    int rank = 0, ranks = 1;
    MPI_Comm_rank(comm, &rank);
    MPI_Comm_size(comm, &ranks);
    const int mine[kInitFields] = {
        firstRow, lastRow, n, nrhs, maxRefinementSteps, mtype, holds_factorization(cycle) ? 1 : 0};
    std::vector<int> all(static_cast<std::size_t>(kInitFields) * ranks);
    MPI_Allgather(mine, kInitFields, MPI_INT, all.data(), kInitFields, MPI_INT, comm);
    // The same verdict on every rank: all judged the same table.
    if (!SolverEngine::admit(*this, init_refusal(all, ranks, on_root)))
        return false;

    const int threads = LSMsolver::establish_numthreads(0);
    this->comm = comm; // borrowed: valid until clear()
    first = on_root ? (rank == 0 ? 1 : 0) : firstRow;
    last = on_root ? (rank == 0 ? n : -1) : lastRow;
    this->on_root = on_root;
    SolverEngine::adopt(*this, n, ia, ja, a, nrhs, maxRefinementSteps, mtype, threads);
    iparm[kIparmInputFormat] = on_root ? kFormatOnRoot : kFormatDistributed;
    iparm[kIparmDomainFirst] = on_root ? 0 : firstRow;
    iparm[kIparmDomainLast] = on_root ? 0 : lastRow;
    problem = LSMclusterSolver_input_problem();
    // Deliberate: the state is left as it was, as LSMsolver::init leaves it.
    return true;
}

LSMsolver_refusal LSMclusterSolver::agree(LSMsolver_refusal local) const
{
    if (comm == MPI_COMM_NULL) // never initialized: nobody to agree with
        return local;
    int agreed = local; // the greatest reason stands for all: any rank's refusal is every rank's
    MPI_Allreduce(MPI_IN_PLACE, &agreed, 1, MPI_INT, MPI_MAX, comm);
    return static_cast<LSMsolver_refusal>(agreed);
}

bool LSMclusterSolver::factor()
{
    return SolverEngine::factor(*this, agree(SolverEngine::factor_refusal(*this)));
}

bool LSMclusterSolver::refactor()
{
    return SolverEngine::refactor(*this, agree(SolverEngine::use_refusal(*this, false)));
}

bool LSMclusterSolver::set_settings(const LSMsolver_settings& settings)
{
    LSMsolver_refusal why = SolverEngine::settings_refusal(*this, settings);
    if (why == LSM_REFUSAL_NONE && settings.ordering == LSM_ORDERING_MINIMUM_DEGREE)
        why = LSM_REFUSAL_BAD_SETTINGS; // the engine has none
    if (comm != MPI_COMM_NULL) {        // every rank must pass rank 0's settings
        const int mine[4] = {settings.scalingAndMatching ? 1 : 0, settings.pivotPerturbation,
                             settings.ordering, settings.factorStatistics ? 1 : 0};
        int root[4];
        std::memcpy(root, mine, sizeof root);
        MPI_Bcast(root, 4, MPI_INT, 0, comm);
        if (why == LSM_REFUSAL_NONE && !std::equal(mine, mine + 4, root))
            why = LSM_REFUSAL_RANKS_DIFFER;
    }
    return SolverEngine::set(*this, settings, agree(why));
}

LSMsolver_settings LSMclusterSolver::settings() const
{
    return SolverEngine::settings(*this);
}

LSMsolver_diagnostics LSMclusterSolver::diagnostics() const
{
    return SolverEngine::diagnostics(*this);
}

LSMclusterSolver_input_problem LSMclusterSolver::input_problem() const
{
    return problem;
}

bool LSMclusterSolver::solve(KelMatrix& B, KelMatrix& X)
{
    const int rows = last - first + 1; // 0: a rank that holds no rows (init_on_root)
    // Deliberate: X must already have B's shape; it is never re-dimensioned.
    const bool shapes = B.GetColDim() == X.GetColDim() && B.GetRowDim() == X.GetRowDim() &&
                        (rows == 0 || B.GetRowDim() == rows);
    return solve_agreed(shapes, B.GetColDim(), B.GetElements(), X.GetElements());
}

bool LSMclusterSolver::solve(int count, double* b, double* x)
{
    return solve_agreed(true, count, b, x);
}

bool LSMclusterSolver::solve_agreed(bool local_ok, int count, double* b, double* x)
{
    // One reduction agrees on the reason (the greatest, negated), and on the count (its least
    // and, negated, its greatest value over the ranks).
    LSMsolver_refusal why = SolverEngine::use_refusal(*this, true);
    if (why == LSM_REFUSAL_NONE && (!local_ok || count < 0))
        why = LSM_REFUSAL_SHAPE;
    const bool ok = why == LSM_REFUSAL_NONE;
    int agreed[3] = {-static_cast<int>(why), ok ? count : 0, ok ? -count : 0};
    if (comm != MPI_COMM_NULL)
        MPI_Allreduce(MPI_IN_PLACE, agreed, 3, MPI_INT, MPI_MIN, comm);
    why = static_cast<LSMsolver_refusal>(-agreed[0]);
    if (why == LSM_REFUSAL_NONE && agreed[1] != -agreed[2])
        why = LSM_REFUSAL_RANKS_DIFFER;
    // Each right-hand side is this rank's rows of it: none on the ranks that hold no rows.
    const LSMsolver_state before = cycle;
    if (!SolverEngine::solve(*this, why, count, last - first + 1, b, x))
        return false;
    // One more reduction: a solution with a NaN or an infinity on any rank is refused on all.
    MPI_Allreduce(MPI_IN_PLACE, &non_finite, 1, MPI_LONG_LONG, MPI_SUM, comm);
    if (non_finite == 0)
        return true;
    cycle = before; // a refused call leaves the state as it was
    return SolverEngine::admit(*this, LSM_REFUSAL_NOT_FINITE);
}

bool LSMclusterSolver::clear()
{
    SolverEngine::clear(*this);
    return true;
}

LSMsolver_state LSMclusterSolver::state() const
{
    return cycle;
}

int LSMclusterSolver::first_row() const
{
    return first;
}

int LSMclusterSolver::last_row() const
{
    return last;
}

int LSMclusterSolver::check_input()
{
    int rank = 0, ranks = 1;
    MPI_Comm_rank(comm, &rank);
    MPI_Comm_size(comm, &ranks);
    LSMsolver_csr_check local; // the ranks that hold no rows have nothing to check
    const int rows = last - first + 1;
    if (rows > 0) {
        const int nnz = ia != nullptr ? ia[rows] - 1 : 0;
        local = LSMsolver_check_csr_rows(n, first, last, ia, ja, a, nnz, mtype);
    }
    // The lowest rank with a problem tells the others what it found.
    int culprit = local.code == LSM_CSR_OK ? ranks : rank;
    MPI_Allreduce(MPI_IN_PLACE, &culprit, 1, MPI_INT, MPI_MIN, comm);
    problem = LSMclusterSolver_input_problem();
    if (culprit == ranks)
        return 0;
    int found[3] = {local.code, local.row, local.position};
    MPI_Bcast(found, 3, MPI_INT, culprit, comm);
    const LSMsolver_csr_problem code = static_cast<LSMsolver_csr_problem>(found[0]);
    problem.rank = culprit;
    problem.check = {code, found[1], found[2], LSMsolver_csr_rule(code)};
    return kInputInconsistent; // recorded as the engine would: its code for bad input
}

void SolverEngine::entry(LSMclusterSolver& s, const int& mtype, int& phase, int& perm, int& count,
                         double* b, double* x, int& error)
{
    // The input is checked before every (re)factorization, which the engine would crash on.
    if (phase == kPhaseAnalyzeFactor || phase == kPhaseRefactor) {
        error = s.check_input();
        if (error != 0)
            return;
    }
    const int fortran_comm = MPI_Comm_c2f(s.comm);
    cluster_sparse_solver(s.pt, &kMaxfct, &kMnum, &mtype, &phase, &s.n, s.a, s.ia, s.ja, &perm,
                          &count, s.iparm, &kMsglvl, b, x, &fortran_comm, &error);
    // The least code stands for all: any rank's error is every rank's.
    MPI_Allreduce(MPI_IN_PLACE, &error, 1, MPI_INT, MPI_MIN, s.comm);
}
