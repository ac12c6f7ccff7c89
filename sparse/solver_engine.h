// KELMATRIX sparse solver engine (internal)
// The one place where a solver reaches its engine, shared by LSMsolver (PARDISO) and
// LSMclusterSolver (MKL's cluster engine): the call with the fixed arguments and its record, the
// cycle's steps bound to that call, the fields init() sets alike, and the settings and
// diagnostics both report.
//
// SolverEngine is a friend of both solvers and reads their fields by their common names; each
// front-end keeps only what is its own (the checked-build checks, and for the cluster solver the
// agreement among ranks and the input check). The engines take the same arguments in the same
// order, the cluster one adding its communicator before the error: entry() is the only code that
// differs, one overload a solver, each defined beside its front-end.
#ifndef KELMATRIX_SOLVER_ENGINE_H
#define KELMATRIX_SOLVER_ENGINE_H

#include <algorithm>
#include <cmath>
#include <cstring>

#include "kelmatrix/sparse.h"
#include "sparse/pardiso_controls.h"
#include "sparse/solver_cycle.h"

class LSMclusterSolver;

namespace kelmatrix {
namespace internal {

// Fixed engine arguments.
constexpr int kMaxfct = 1; // one factorization kept
constexpr int kMnum = 1;   // and it is the one used
constexpr int kMsglvl = 0; // no statistics printed

/// Shared by a factored solver and its copies: whether the engine still holds the memory of
/// their one factorization, and how many of them point here. Counted by hand, not by
/// std::shared_ptr, whose type information would leave the library among its exports.
struct SolverMemory {
    bool held;
    int owners;
};

/// The reason in words, fixed text.
inline const char* refusal_message(LSMsolver_refusal code)
{
    switch (code) {
    case LSM_REFUSAL_NONE:
        return "";
    case LSM_REFUSAL_NEEDS_CLEAR:
        return "a default-constructed solver (state -1) needs init() and clear() before factor()";
    case LSM_REFUSAL_HOLDS_FACTORIZATION:
        return "a factorization is held: clear() it (and init() again) first";
    case LSM_REFUSAL_NOT_FACTORED:
        return "no factorization is held: factor() first";
    case LSM_REFUSAL_REFACTOR_FAILED:
        return "the last refactor() failed: refactor() again or clear()";
    case LSM_REFUSAL_RELEASED_BY_COPY:
        return "a copy sharing this factorization has released its memory";
    case LSM_REFUSAL_NOT_INITIALISED:
        return "init() has not run on this solver";
    case LSM_REFUSAL_BAD_SETTINGS:
        return "a settings field is out of range, or the engine lacks that ordering";
    case LSM_REFUSAL_SHAPE:
        return "B and X must have the same shape, with the solver's row count, and count >= 0";
    case LSM_REFUSAL_NO_COMMUNICATOR:
        return "the communicator is MPI_COMM_NULL";
    case LSM_REFUSAL_BAD_ARGUMENTS:
        return "n and nrhs must be at least 1 and the type one of LSMsolver_mattype";
    case LSM_REFUSAL_BAD_ROW_BLOCKS:
        return "the row blocks must cover 1..n in rank order, each with one row at least";
    case LSM_REFUSAL_RANKS_DIFFER:
        return "the ranks passed different values (n, nrhs, refinement, type, settings or count)";
    case LSM_REFUSAL_NOT_FINITE:
        return "a solution entry is NaN or infinite";
    }
    return "unknown refusal";
}

/// NaN and infinite entries among the first `length` of x.
inline long long count_non_finite(const double* x, long long length)
{
    long long count = 0;
    for (long long i = 0; i < length; ++i)
        count += !std::isfinite(x[i]);
    return count;
}

class SolverEngine {
public:
    /// What the default constructors leave: no handle, nothing held or recorded, and the
    /// settings readable as defaults.
    template <class Solver> static void blank(Solver& s)
    {
        std::fill(s.iparm, s.iparm + kParamCount, 0);
        std::fill(s.pt, s.pt + kParamCount, nullptr);
        apply_settings(LSMsolver_settings(), s.iparm);
        s.memory = nullptr;
        s.initialised = false;
        s.refusal = LSM_REFUSAL_NONE;
        s.non_finite = 0;
    }

    /// Copies every field both solvers have, the handle and the shared record included.
    template <class Solver> static void copy_fields(Solver& dst, const Solver& src)
    {
        dst.n = src.n;
        dst.nrhs = src.nrhs;
        dst.ia = src.ia;
        dst.ja = src.ja;
        dst.a = src.a;
        dst.mtype = src.mtype;
        dst.cycle = src.cycle;
        std::memcpy(dst.iparm, src.iparm, sizeof dst.iparm);
        std::memcpy(dst.pt, src.pt, sizeof dst.pt);
        dst.last_error = src.last_error;
        dst.last_phase = src.last_phase;
        share(dst, src.memory);
        dst.initialised = src.initialised;
        dst.refusal = src.refusal;
        dst.non_finite = src.non_finite;
    }

    /// Records the reason of a refused call (LSM_REFUSAL_NONE: the call goes ahead) and returns
    /// whether the call may go ahead.
    template <class Solver> static bool admit(Solver& s, LSMsolver_refusal why)
    {
        s.refusal = why;
        return why == LSM_REFUSAL_NONE;
    }

    // The reasons each call is refused for, from this object's state alone.
    template <class Solver> static LSMsolver_refusal factor_refusal(const Solver& s)
    {
        if (s.cycle == State::Unset)
            return LSM_REFUSAL_NEEDS_CLEAR;
        return may_factor(s.cycle) ? LSM_REFUSAL_NONE : LSM_REFUSAL_HOLDS_FACTORIZATION;
    }

    template <class Solver> static LSMsolver_refusal use_refusal(const Solver& s, bool solving)
    {
        if (solving && s.cycle == State::RefactorFailed)
            return LSM_REFUSAL_REFACTOR_FAILED;
        if (!may_refactor(s.cycle))
            return LSM_REFUSAL_NOT_FACTORED;
        return held(s) ? LSM_REFUSAL_NONE : LSM_REFUSAL_RELEASED_BY_COPY;
    }

    template <class Solver>
    static LSMsolver_refusal settings_refusal(const Solver& s, const LSMsolver_settings& settings)
    {
        if (!s.initialised)
            return LSM_REFUSAL_NOT_INITIALISED;
        if (holds_factorization(s.cycle)) // the held analysis was made with the settings in force
            return LSM_REFUSAL_HOLDS_FACTORIZATION;
        return settings_valid(settings) ? LSM_REFUSAL_NONE : LSM_REFUSAL_BAD_SETTINGS;
    }

    /// What init() sets alike in both solvers: the borrowed arrays, the fixed control table and a
    /// fresh handle (the engine requires all zeros). The state is left as it is.
    template <class Solver>
    static void adopt(Solver& s, int n, int* ia, int* ja, double* a, int nrhs,
                      int maxRefinementSteps, LSMsolver_mattype mtype, int threads)
    {
        s.n = n;
        s.nrhs = nrhs;
        s.ia = ia; // borrowed: alive and unchanged until clear()
        s.ja = ja; // borrowed
        s.a = a;   // borrowed
        s.mtype = mtype;
        fixed_iparm(s.iparm, threads, maxRefinementSteps);
        std::fill(s.pt, s.pt + kParamCount, nullptr);
        s.last_error = 0;
        s.last_phase = 0;
        share(s, nullptr); // nothing held: init() runs only then
        s.initialised = true;
    }

    /// factor() once `why` is agreed; a success starts a new record of held memory, which
    /// copies made from now on share.
    template <class Solver> static bool factor(Solver& s, LSMsolver_refusal why)
    {
        if (!admit(s, why) || !factor_step(s.cycle, s.nrhs, bound(s)))
            return false;
        share(s, nullptr);
        s.memory = new SolverMemory{true, 1};
        return true;
    }

    template <class Solver> static bool refactor(Solver& s, LSMsolver_refusal why)
    {
        return admit(s, why) && refactor_step(s.cycle, s.nrhs, bound(s));
    }

    /// count right-hand sides of `stride` doubles each (see solve_steps), then the count of
    /// this process's non-finite solution entries after a success.
    template <class Solver>
    static bool solve(Solver& s, LSMsolver_refusal why, int count, long long stride, double* b,
                      double* x)
    {
        s.non_finite = 0;
        if (!admit(s, why) || !solve_steps(s.cycle, count, s.nrhs, stride, b, x, bound(s)))
            return false;
        s.non_finite = count_non_finite(x, count * stride);
        return true;
    }

    /// Releases the memory unless a copy already has. Deliberate: pt keeps its stale entries;
    /// init() zeroes them.
    template <class Solver> static void clear(Solver& s)
    {
        admit(s, LSM_REFUSAL_NONE);
        if (holds_factorization(s.cycle) && !held(s))
            s.cycle = State::Ready; // released through a copy: nothing to release twice
        else if (holds_factorization(s.cycle))
            s.memory->held = false; // every copy now refuses to use it
        clear_step(s.cycle, s.nrhs, bound(s));
        share(s, nullptr);
    }

    /// Applies the settings once `why` is agreed.
    template <class Solver>
    static bool set(Solver& s, const LSMsolver_settings& settings, LSMsolver_refusal why)
    {
        if (admit(s, why))
            apply_settings(settings, s.iparm);
        return why == LSM_REFUSAL_NONE;
    }

    template <class Solver> static LSMsolver_settings settings(const Solver& s)
    {
        return settings_in(s.iparm);
    }

    template <class Solver> static LSMsolver_diagnostics diagnostics(const Solver& s)
    {
        LSMsolver_diagnostics d;
        d.error = s.last_error;
        d.lastPhase = s.last_phase;
        read_statistics(s.iparm, s.mtype, d);
        d.refusal = s.refusal;
        d.refusalMessage = refusal_message(s.refusal);
        d.nonFiniteSolutions = s.non_finite;
        return d;
    }

private:
    template <class Solver> static bool held(const Solver& s)
    {
        return s.memory != nullptr && s.memory->held;
    }

    /// Points s at record (which may be s's own), leaving the one it pointed at, which goes
    /// when nobody points at it any more.
    template <class Solver> static void share(Solver& s, SolverMemory* record)
    {
        if (record != nullptr)
            ++record->owners;
        if (s.memory != nullptr && --s.memory->owners == 0)
            delete s.memory;
        s.memory = record;
    }

    /// The one engine call: the fixed arguments, a dummy perm, the error zeroed before the call
    /// and recorded with the phase after it.
    template <class Solver> static int call(Solver& s, int phase, int count, double* b, double* x)
    {
        const int matrix_type = s.mtype;
        int perm = 0; // never read: iparm[4] = 0
        int error = 0;
        entry(s, matrix_type, phase, perm, count, b, x, error);
        s.last_error = error;
        s.last_phase = phase;
        return error;
    }

    template <class Solver> static auto bound(Solver& s)
    {
        return [&s](int phase, int count, double* b, double* x) {
            return call(s, phase, count, b, x);
        };
    }

    // The engines' entries, each defined beside its front-end.
    static void entry(LSMsolver& s, const int& mtype, int& phase, int& perm, int& count, double* b,
                      double* x, int& error);
    static void entry(LSMclusterSolver& s, const int& mtype, int& phase, int& perm, int& count,
                      double* b, double* x, int& error);
};

} // namespace internal
} // namespace kelmatrix

#endif
