// KELMATRIX sparse direct solver
// LSMsolver: A X = B over PARDISO (analysis + factorization, batched solves, release).
//
// Every PARDISO call goes through call_pardiso with the fixed arguments maxfct = 1, mnum = 1,
// msglvl = 0 and a dummy perm. The matrix arrays ia, ja, a are borrowed from the caller for the
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

#include "kelmatrix/sparse.h"
#include "matrix/mkl_bindings.h"
#include "sparse/pardiso_controls.h"
#include "sparse/solver_cycle.h"
#include "sparse/sparse_checks.h"
#include "sparse/thread_policy.h"

using namespace kelmatrix::internal;

namespace {

// Fixed pardiso arguments.
constexpr int kMaxfct = 1; // one factorization kept
constexpr int kMnum = 1;   // and it is the one used
constexpr int kMsglvl = 0; // no statistics printed

} // namespace

LSMsolver::LSMsolver()
    : n(0), nrhs(0), ia(nullptr), ja(nullptr), a(nullptr),
      mtype(LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE), state(kStateDefault), last_error(0),
      last_phase(0)
{
    // init() sets both arrays before PARDISO can see them; they are filled here only so that
    // settings() and diagnostics() read defined values before the first init().
    std::fill(iparm, iparm + kParamCount, 0);
    std::fill(pt, pt + kParamCount, nullptr);
    apply_settings(LSMsolver_settings(), iparm);
}

LSMsolver::LSMsolver(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps)
    : LSMsolver(n, ia, ja, a, nrhs, maxRefinementSteps, LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE)
{
}

LSMsolver::LSMsolver(int n, int* ia, int* ja, double* a, int nrhs, int maxRefinementSteps,
                     LSMsolver_mattype mtype)
    : n(n), nrhs(nrhs), ia(ia), ja(ja), a(a), mtype(mtype), state(kStateReady), last_error(0),
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
    state = src.state;
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
    if (holds_factorization(state)) // a held factorization must be cleared first
        return false;
    const int threads = init_thread_count();

    this->n = n;
    this->nrhs = nrhs;
    this->ia = ia; // borrowed: alive and unchanged until clear()
    this->ja = ja; // borrowed
    this->a = a;   // borrowed
    this->mtype = mtype;

    fixed_iparm(iparm, threads, maxRefinementSteps);

    std::fill(pt, pt + kParamCount, nullptr); // a fresh handle: PARDISO requires all zeros
    last_error = 0;
    last_phase = 0;
    // Deliberate: the state is left as it was, so a default-constructed solver still needs
    // clear() before factor().
    return true;
}

bool LSMsolver::factor()
{
    KELMATRIX_CHECK(solver_matrix("LSMsolver::factor", may_factor(state), n, ia, ja, a, mtype));
    const auto engine = [this](int phase, int count, double* b, double* x) {
        return call_pardiso(phase, count, b, x);
    };
    return factor_step(state, nrhs, engine);
}

bool LSMsolver::refactor()
{
    KELMATRIX_CHECK(solver_matrix("LSMsolver::refactor", may_refactor(state), n, ia, ja, a, mtype));
    const auto engine = [this](int phase, int count, double* b, double* x) {
        return call_pardiso(phase, count, b, x);
    };
    return refactor_step(state, nrhs, engine);
}

bool LSMsolver::set_settings(const LSMsolver_settings& settings)
{
    if (holds_factorization(state) || !settings_valid(settings))
        return false; // a held analysis was made with the settings in force
    apply_settings(settings, iparm);
    return true;
}

LSMsolver_settings LSMsolver::settings() const
{
    return settings_in(iparm);
}

LSMsolver_diagnostics LSMsolver::diagnostics() const
{
    LSMsolver_diagnostics d;
    d.error = last_error;
    d.lastPhase = last_phase;
    read_statistics(iparm, mtype, d);
    return d;
}

bool LSMsolver::solve(KelMatrix& B, KelMatrix& X)
{
    KELMATRIX_CHECK(solver_solve(may_solve(state), n, B, X));
    if (!may_solve(state))
        return false;
    // Deliberate: X must already have B's shape; it is never re-dimensioned.
    if (B.GetColDim() != X.GetColDim() || B.GetRowDim() != X.GetRowDim() || B.GetRowDim() != n)
        return false;
    // Columns of B and X are n doubles apart, as in the flat arrays of the other overload.
    return solve(B.GetColDim(), B.GetElements(), X.GetElements());
}

bool LSMsolver::solve(int count, double* b, double* x)
{
    KELMATRIX_CHECK(solver_solve(may_solve(state), n, count, b, x));
    const auto engine = [this](int phase, int count, double* b, double* x) {
        return call_pardiso(phase, count, b, x);
    };
    return solve_steps(state, count, nrhs, n, b, x, engine);
}

bool LSMsolver::clear()
{
    const auto engine = [this](int phase, int count, double* b, double* x) {
        return call_pardiso(phase, count, b, x);
    };
    clear_step(state, nrhs, engine); // Deliberate: pt keeps its stale entries; init() zeroes them
    return true;
}

int LSMsolver::call_pardiso(int phase, int count, double* b, double* x)
{
    const int matrix_type = mtype;
    int perm = 0; // never read: iparm[4] = 0
    int error = 0;
    pardiso(pt, &kMaxfct, &kMnum, &matrix_type, &phase, &n, a, ia, ja, &perm, &count, iparm,
            &kMsglvl, b, x, &error);
    last_error = error;
    last_phase = phase;
    return error;
}
