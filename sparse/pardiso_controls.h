// KELMATRIX sparse solver controls (internal)
// The opt-in settings written into and read back from PARDISO's iparm, and the statistics
// PARDISO reports in it, shared by every solver that drives PARDISO's control array (the
// shared-memory engine and the MPI cluster one, which give these entries the same meanings).
//
// Only the entries named here are touched; every other entry keeps what init() set, so with
// default settings the array reaching the engine is the fixed table. Defined inline so that both
// libraries compile the same code without exporting any of it. The indices are PARDISO's
// (0-based, C layout).
#ifndef KELMATRIX_PARDISO_CONTROLS_H
#define KELMATRIX_PARDISO_CONTROLS_H

#include "kelmatrix/sparse.h"

namespace kelmatrix {
namespace internal {

// iparm entries, as PARDISO numbers them from 0.
constexpr int kIparmOrdering = 1;         // in: fill-reducing ordering
constexpr int kIparmRefinementDone = 6;   // out: iterative refinement steps performed
constexpr int kIparmPerturbation = 9;     // in: pivot perturbation exponent
constexpr int kIparmScaling = 10;         // in: scaling vectors
constexpr int kIparmMatching = 12;        // in: weighted matching
constexpr int kIparmPerturbedPivots = 13; // out: perturbed pivots
constexpr int kIparmPeakAnalysis = 14;    // out: peak memory of the analysis, KiB
constexpr int kIparmPermanent = 15;       // out: memory kept from the analysis, KiB
constexpr int kIparmFactorMemory = 16;    // out: memory of factorization and solve, KiB
constexpr int kIparmFactorNonzeros = 17;  // in < 0: report; out: nonzeros in the factor
constexpr int kIparmPositive = 21;        // out: positive eigenvalues (type -2)
constexpr int kIparmNegative = 22;        // out: negative eigenvalues (type -2)

constexpr int kMinPerturbation = 1, kMaxPerturbation = 20;

/// False, writing nothing, when a field is out of range.
inline bool settings_valid(const LSMsolver_settings& s)
{
    const bool known_ordering = s.ordering == LSM_ORDERING_MINIMUM_DEGREE ||
                                s.ordering == LSM_ORDERING_NESTED_DISSECTION ||
                                s.ordering == LSM_ORDERING_PARALLEL_NESTED_DISSECTION;
    return known_ordering && s.pivotPerturbation >= kMinPerturbation &&
           s.pivotPerturbation <= kMaxPerturbation;
}

/// Writes valid settings into iparm.
inline void apply_settings(const LSMsolver_settings& s, int* iparm)
{
    iparm[kIparmOrdering] = s.ordering;
    iparm[kIparmPerturbation] = s.pivotPerturbation;
    iparm[kIparmScaling] = s.scalingAndMatching ? 1 : 0;
    iparm[kIparmMatching] = s.scalingAndMatching ? 1 : 0;
    // PARDISO overwrites the entry with the count, so any nonzero value means "requested".
    iparm[kIparmFactorNonzeros] = s.factorStatistics ? -1 : 0;
}

/// The settings iparm now holds.
inline LSMsolver_settings settings_in(const int* iparm)
{
    LSMsolver_settings s;
    s.scalingAndMatching = iparm[kIparmScaling] != 0 && iparm[kIparmMatching] != 0;
    s.pivotPerturbation = iparm[kIparmPerturbation];
    s.ordering = static_cast<LSMsolver_ordering>(iparm[kIparmOrdering]);
    s.factorStatistics = iparm[kIparmFactorNonzeros] != 0;
    return s;
}

/// The statistics PARDISO left in iparm for a matrix of type mtype.
inline void read_statistics(const int* iparm, int mtype, LSMsolver_diagnostics& d)
{
    d.perturbedPivots = iparm[kIparmPerturbedPivots];
    d.refinementSteps = iparm[kIparmRefinementDone];
    const bool indefinite = mtype == LSM_REAL_SYMMETRIC_INDEFINITE;
    d.positiveEigenvalues = indefinite ? iparm[kIparmPositive] : -1;
    d.negativeEigenvalues = indefinite ? iparm[kIparmNegative] : -1;
    d.peakAnalysisMemoryKB = iparm[kIparmPeakAnalysis];
    d.peakFactorMemoryKB = iparm[kIparmPermanent] + iparm[kIparmFactorMemory];
    d.factorNonzeros = iparm[kIparmFactorNonzeros] > 0 ? iparm[kIparmFactorNonzeros] : -1;
}

} // namespace internal
} // namespace kelmatrix

#endif
