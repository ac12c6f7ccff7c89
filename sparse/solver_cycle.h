// KELMATRIX sparse solver cycle (internal)
// The state machine, phase sequence, fixed control table and right-hand-side batching shared by
// every solver over PARDISO's engines (the shared-memory one and the MPI cluster one).
//
// A solver keeps its LSMsolver_state and supplies `call(phase, count, b, x)`, which makes one
// engine call and returns its error code. The steps here refuse calls out of order without reaching
// the engine, and never change the state on a failed call except where noted. Deliberate
// oddities: a failed factorization keeps the state at 0 so that it can be retried; the group of
// remaining right-hand sides is solved even after a failed full group, and its error decides.
#ifndef KELMATRIX_SOLVER_CYCLE_H
#define KELMATRIX_SOLVER_CYCLE_H

#include <algorithm>

#include "kelmatrix/sparse.h"

namespace kelmatrix {
namespace internal {

// Engine phases.
constexpr int kPhaseAnalyzeFactor = 12; // analysis, then numerical factorization
constexpr int kPhaseRefactor = 22;      // numerical factorization on the held analysis
constexpr int kPhaseSolveRefine = 33;   // forward/backward solve with iterative refinement
constexpr int kPhaseReleaseAll = -1;    // release all internal memory

using State = LSMsolver_state;

constexpr int kParamCount = 64; // entries of iparm and of the handle pt

/// The control table init() sets: our parameters, not the engine's defaults.
inline void fixed_iparm(int* iparm, int threads, int maxRefinementSteps)
{
    std::fill(iparm, iparm + kParamCount, 0);
    iparm[0] = 1;                  // our parameters, not the engine's defaults
    iparm[1] = 2;                  // fill-in reducing ordering: nested dissection (METIS)
    iparm[2] = threads;            // number of processors
    iparm[4] = 0;                  // no user permutation
    iparm[5] = 0;                  // solution written to x, b unchanged
    iparm[7] = maxRefinementSteps; // maximum iterative refinement steps
    iparm[9] = 13;                 // pivot perturbation 1e-13
}

/// init() and set_settings() only while no factorization is held.
inline bool holds_factorization(State state)
{
    return state > State::Ready;
}

// Which calls each state allows; the steps below refuse the others without reaching the engine.
// A solver over several processes asks these first, so that all of them refuse together.
inline bool may_factor(State state)
{
    return state == State::Ready;
}

inline bool may_refactor(State state)
{
    return state == State::Factored || state == State::Solved || state == State::RefactorFailed;
}

inline bool may_solve(State state)
{
    return state == State::Factored || state == State::Solved;
}

// The phases without right-hand sides still hand the engine the solver's nrhs, as it was given.

template <class Call> bool factor_step(State& state, int nrhs, Call&& call)
{
    if (!may_factor(state))
        return false;
    double dummy = 0.0;
    if (call(kPhaseAnalyzeFactor, nrhs, &dummy, &dummy) != 0)
        return false; // Deliberate: still ready, so factor() may be retried
    state = State::Factored;
    return true;
}

template <class Call> bool refactor_step(State& state, int nrhs, Call&& call)
{
    if (!may_refactor(state))
        return false;
    double dummy = 0.0;
    if (call(kPhaseRefactor, nrhs, &dummy, &dummy) != 0) {
        // The engine has overwritten the old factors in place: they must not be solved with,
        // but the analysis and its memory are still held, so clear() releases them.
        state = State::RefactorFailed;
        return false;
    }
    state = State::Factored;
    return true;
}

/// count right-hand sides of `stride` doubles each, one after another in b and x, solved in
/// groups of nrhs and then one group of the rest, straight in the caller's arrays.
template <class Call>
bool solve_steps(State& state, int count, int nrhs, long long stride, double* b, double* x,
                 Call&& call)
{
    if (!may_solve(state))
        return false;
    // Deliberate: nrhs == 0 is not guarded; the constructor and init() take it unchecked.
    const int full = count / nrhs, rest = count % nrhs;
    const long long batch_stride = static_cast<long long>(nrhs) * stride;

    int error = 0;
    for (int k = 0; k < full && error == 0; ++k)
        error = call(kPhaseSolveRefine, nrhs, b + k * batch_stride, x + k * batch_stride);
    if (rest > 0) // Deliberate: solved even after a failed group, and its error is the result
        error = call(kPhaseSolveRefine, rest, b + full * batch_stride, x + full * batch_stride);
    if (error != 0)
        return false;
    state = State::Solved;
    return true;
}

template <class Call> void clear_step(State& state, int nrhs, Call&& call)
{
    if (state > State::Ready) { // nothing held below: the engine is not called
        double dummy = 0.0;
        call(kPhaseReleaseAll, nrhs, &dummy, &dummy); // its error is of no use here
    }
    state = State::Ready;
}

} // namespace internal
} // namespace kelmatrix

#endif
