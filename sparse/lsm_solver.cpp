// KELMATRIX sparse direct solver
// LSMsolver: A X = B over PARDISO (analysis + factorization, batched solves, release).
//
// Every PARDISO call goes through the engine shared with the distributed solver
// (sparse/solver_engine.h) with the fixed arguments maxfct = 1, mnum = 1, msglvl = 0 and a dummy
// perm. The matrix arrays ia, ja, a are borrowed from the caller for the
// solver's whole life and never copied, freed or checked. A small state machine refuses calls
// out of order, and a failed call never changes the state. Right-hand sides are solved in groups
// of nrhs columns (then one group of the remaining columns) straight in the caller's arrays; b
// is left unchanged and x receives the solutions. Failures are reported by the bool result only;
// after a failed solve x may hold the groups that succeeded. Deliberate oddities: assignment
// shares PARDISO's handle, the remaining group is solved even after a failed full group, and a
// failed factorization keeps the state at 0 so that it can be retried.
//
// Opt-in additions: refactor() runs phase 22 on the held analysis; a failed one leaves state 1,
// in which solve() refuses and clear() still releases. set_settings() rewrites only the iparm
// entries it names. Every call that reaches PARDISO records its error and phase for
// diagnostics().
#include <algorithm>
#include <cstring>

#include "checks/checks.h"
#include "kelmatrix/sparse.h"
#include "matrix/mkl_bindings.h"
#include "sparse/solver_engine.h"
#include "sparse/thread_policy.h"

using namespace kelmatrix::internal;

LSMsolver::LSMsolver()
    : n(0), nrhs(0), ia(nullptr), ja(nullptr), a(nullptr),
      mtype(LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE), cycle(State::Unset), last_error(0), last_phase(0)
{
    // init() sets both arrays before PARDISO can see them; they are filled here only so that
    // settings() and diagnostics() read defined values before the first init().
    SolverEngine::blank(*this);
}

LSMsolver::LSMsolver(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps)
    : LSMsolver(n, ia, ja, a, nrhs, maxRefinementSteps, LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE)
{
}

LSMsolver::LSMsolver(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
                     LSMsolver_mattype mtype)
    : n(n), nrhs(nrhs), ia(ia), ja(ja), a(a), mtype(mtype), cycle(State::Ready), last_error(0),
      last_phase(0)
{
    init(n, ia, ja, a, nrhs, maxRefinementSteps, mtype);
}

LSMsolver::~LSMsolver()
{
    clear();
}

LSMsolver& LSMsolver::operator=(const LSMsolver& src)
{
    // Deliberate: a bit-for-bit copy, PARDISO's handle included. Both objects then drive one
    // factorization, and clearing either releases it for both; a factorization held here before
    // is not released.
    n = src.n;
    nrhs = src.nrhs;
    ia = src.ia;
    ja = src.ja;
    a = src.a;
    mtype = src.mtype;
    cycle = src.cycle;
    std::memcpy(iparm, src.iparm, sizeof iparm);
    std::memcpy(pt, src.pt, sizeof pt);
    last_error = src.last_error;
    last_phase = src.last_phase;
    return *this;
}

bool LSMsolver::init(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
                     LSMsolver_mattype mtype)
{
    KELMATRIX_CHECK(solver_init(n, nrhs));
    if (holds_factorization(cycle)) // a held factorization must be cleared first
        return false;
    const int threads = init_thread_count();
    SolverEngine::adopt(*this, n, ia, ja, a, nrhs, maxRefinementSteps, mtype, threads);
    // Deliberate: the state is left as it was, so a default-constructed solver still needs
    // clear() before factor().
    return true;
}

bool LSMsolver::factor()
{
    KELMATRIX_CHECK(solver_matrix("LSMsolver::factor", may_factor(cycle), n, ia, ja, a, mtype));
    return SolverEngine::factor(*this);
}

bool LSMsolver::refactor()
{
    KELMATRIX_CHECK(solver_matrix("LSMsolver::refactor", may_refactor(cycle), n, ia, ja, a, mtype));
    return SolverEngine::refactor(*this);
}

bool LSMsolver::set_settings(const LSMsolver_settings& settings)
{
    return SolverEngine::set(*this, settings, SolverEngine::may_set(*this, settings));
}

LSMsolver_settings LSMsolver::settings() const
{
    return SolverEngine::settings(*this);
}

LSMsolver_diagnostics LSMsolver::diagnostics() const
{
    return SolverEngine::diagnostics(*this);
}

bool LSMsolver::solve(KelMatrix& B, KelMatrix& X)
{
    KELMATRIX_CHECK(solver_solve(may_solve(cycle), n, B, X));
    if (!may_solve(cycle))
        return false;
    // Deliberate: X must already have B's shape; it is never re-dimensioned.
    if (B.GetColDim() != X.GetColDim() || B.GetRowDim() != X.GetRowDim() || B.GetRowDim() != n)
        return false;
    // Columns of B and X are n doubles apart, as in the flat arrays of the other overload.
    return solve(B.GetColDim(), B.GetElements(), X.GetElements());
}

bool LSMsolver::solve(int count, double* b, double* x)
{
    KELMATRIX_CHECK(solver_solve(may_solve(cycle), n, count, b, x));
    return SolverEngine::solve(*this, count, n, b, x);
}

bool LSMsolver::clear()
{
    SolverEngine::clear(*this);
    return true;
}

void SolverEngine::entry(LSMsolver& s, const int& mtype, int& phase, int& perm, int& count,
                         double* b, double* x, int& error)
{
    pardiso(s.pt, &kMaxfct, &kMnum, &mtype, &phase, &s.n, s.a, s.ia, s.ja, &perm, &count, s.iparm,
            &kMsglvl, b, x, &error);
}
