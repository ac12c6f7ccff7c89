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

#include "kelmatrix/sparse.h"
#include "matrix/mkl_bindings.h"
#include "sparse/solver_engine.h"
#include "sparse/sparse_checks.h"
#include "sparse/thread_policy.h"

using namespace kelmatrix::internal;

LSMsolver::LSMsolver()
    : n(0), nrhs(0), ia(nullptr), ja(nullptr), a(nullptr),
      mtype(LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE), cycle(State::Unset), last_error(0),
      last_phase(0), memory(nullptr), initialised(false), refusal(LSM_REFUSAL_NONE), non_finite(0)
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
      last_phase(0), memory(nullptr), initialised(false), refusal(LSM_REFUSAL_NONE), non_finite(0)
{
    init(n, ia, ja, a, nrhs, maxRefinementSteps, mtype);
}

LSMsolver::~LSMsolver()
{
    clear();
}

LSMsolver::LSMsolver(const LSMsolver& src) : LSMsolver()
{
    *this = src;
}

LSMsolver::LSMsolver(LSMsolver&& src) noexcept : LSMsolver()
{
    *this = src;
    src = LSMsolver(); // the temporary is in state -1: destroying it releases nothing
}

LSMsolver& LSMsolver::operator=(const LSMsolver& src)
{
    // Deliberate: a bit-for-bit copy, PARDISO's handle included. Both objects then drive one
    // factorization and share the record of whether its memory is held, so whichever releases
    // it second finds it released; a factorization held here before is not released.
    SolverEngine::copy_fields(*this, src);
    return *this;
}

bool LSMsolver::init(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
                     LSMsolver_mattype mtype)
{
    KELMATRIX_CHECK(solver_init(n, nrhs));
    const bool holds = holds_factorization(cycle); // a held factorization must be cleared first
    if (!SolverEngine::admit(*this, holds ? LSM_REFUSAL_HOLDS_FACTORIZATION : LSM_REFUSAL_NONE))
        return false;
    const int threads = init_thread_count();
    SolverEngine::adopt(*this, n, ia, ja, a, nrhs, maxRefinementSteps, mtype, threads);
    // Deliberate: the state is left as it was, so a default-constructed solver still needs
    // clear() before factor().
    return true;
}

bool LSMsolver::factor()
{
    const LSMsolver_refusal why = SolverEngine::factor_refusal(*this);
    KELMATRIX_CHECK(
        solver_matrix("LSMsolver::factor", why == LSM_REFUSAL_NONE, n, ia, ja, a, mtype));
    return SolverEngine::factor(*this, why);
}

bool LSMsolver::refactor()
{
    const LSMsolver_refusal why = SolverEngine::use_refusal(*this, false);
    KELMATRIX_CHECK(
        solver_matrix("LSMsolver::refactor", why == LSM_REFUSAL_NONE, n, ia, ja, a, mtype));
    return SolverEngine::refactor(*this, why);
}

bool LSMsolver::set_settings(const LSMsolver_settings& settings)
{
    return SolverEngine::set(*this, settings, SolverEngine::settings_refusal(*this, settings));
}

LSMsolver_state LSMsolver::state() const
{
    return cycle;
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
    const LSMsolver_refusal why = SolverEngine::use_refusal(*this, true);
    KELMATRIX_CHECK(solver_solve(why == LSM_REFUSAL_NONE, n, B, X));
    if (!SolverEngine::admit(*this, why))
        return false;
    // Deliberate: X must already have B's shape; it is never re-dimensioned.
    if (B.GetColDim() != X.GetColDim() || B.GetRowDim() != X.GetRowDim() || B.GetRowDim() != n)
        return SolverEngine::admit(*this, LSM_REFUSAL_SHAPE);
    // Columns of B and X are n doubles apart, as in the flat arrays of the other overload.
    return solve(B.GetColDim(), B.GetElements(), X.GetElements());
}

bool LSMsolver::solve(int count, double* b, double* x)
{
    const LSMsolver_refusal why = SolverEngine::use_refusal(*this, true);
    KELMATRIX_CHECK(solver_solve(why == LSM_REFUSAL_NONE, n, count, b, x));
    return SolverEngine::solve(*this, why, count, n, b, x);
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
