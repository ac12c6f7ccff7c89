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

class SolverEngine {
public:
    /// What the default constructors leave: no handle, and the settings readable as defaults.
    template <class Solver> static void blank(Solver& s)
    {
        std::fill(s.iparm, s.iparm + kParamCount, 0);
        std::fill(s.pt, s.pt + kParamCount, nullptr);
        apply_settings(LSMsolver_settings(), s.iparm);
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
    }

    template <class Solver> static bool factor(Solver& s)
    {
        return factor_step(s.cycle, s.nrhs, bound(s));
    }

    template <class Solver> static bool refactor(Solver& s)
    {
        return refactor_step(s.cycle, s.nrhs, bound(s));
    }

    /// count right-hand sides of `stride` doubles each (see solve_steps).
    template <class Solver>
    static bool solve(Solver& s, int count, long long stride, double* b, double* x)
    {
        return solve_steps(s.cycle, count, s.nrhs, stride, b, x, bound(s));
    }

    /// Deliberate: pt keeps its stale entries; init() zeroes them.
    template <class Solver> static void clear(Solver& s) { clear_step(s.cycle, s.nrhs, bound(s)); }

    /// Whether settings may be applied: not while a factorization is held (the held analysis was
    /// made with the settings in force), nor with a field out of range.
    template <class Solver> static bool may_set(const Solver& s, const LSMsolver_settings& settings)
    {
        return !holds_factorization(s.cycle) && settings_valid(settings);
    }

    /// Applies the settings when `allowed`; returns `allowed`.
    template <class Solver>
    static bool set(Solver& s, const LSMsolver_settings& settings, bool allowed)
    {
        if (allowed)
            apply_settings(settings, s.iparm);
        return allowed;
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
        return d;
    }

private:
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
