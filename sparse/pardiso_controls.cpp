// KELMATRIX sparse solver controls
// Maps LSMsolver_settings onto PARDISO's iparm entries and PARDISO's reported statistics onto
// LSMsolver_diagnostics; gives each PARDISO error code its fixed English meaning.
//
// Nothing here calls PARDISO or allocates. The iparm indices are PARDISO's (0-based, C layout).
#include "sparse/pardiso_controls.h"

namespace {

// iparm entries, as PARDISO numbers them from 0.
constexpr int kOrdering = 1;         // in: fill-reducing ordering
constexpr int kRefinementDone = 6;   // out: iterative refinement steps performed
constexpr int kPerturbation = 9;     // in: pivot perturbation exponent
constexpr int kScaling = 10;         // in: scaling vectors
constexpr int kMatching = 12;        // in: weighted matching
constexpr int kPerturbedPivots = 13; // out: perturbed pivots
constexpr int kPeakAnalysis = 14;    // out: peak memory of the analysis, KiB
constexpr int kPermanent = 15;       // out: memory kept from the analysis, KiB
constexpr int kFactorMemory = 16;    // out: memory of factorization and solve, KiB
constexpr int kFactorNonzeros = 17;  // in < 0: report; out: nonzeros in the factor
constexpr int kPositive = 21;        // out: positive eigenvalues (type -2)
constexpr int kNegative = 22;        // out: negative eigenvalues (type -2)

constexpr int kMinPerturbation = 1, kMaxPerturbation = 20;

} // namespace

namespace kelmatrix {
namespace internal {

bool settings_valid(const LSMsolver_settings& s)
{
    const bool known_ordering = s.ordering == LSM_ORDERING_MINIMUM_DEGREE ||
                                s.ordering == LSM_ORDERING_NESTED_DISSECTION ||
                                s.ordering == LSM_ORDERING_PARALLEL_NESTED_DISSECTION;
    return known_ordering && s.pivotPerturbation >= kMinPerturbation &&
           s.pivotPerturbation <= kMaxPerturbation;
}

void apply_settings(const LSMsolver_settings& s, int* iparm)
{
    iparm[kOrdering] = s.ordering;
    iparm[kPerturbation] = s.pivotPerturbation;
    iparm[kScaling] = s.scalingAndMatching ? 1 : 0;
    iparm[kMatching] = s.scalingAndMatching ? 1 : 0;
    // PARDISO overwrites the entry with the count, so any nonzero value means "requested".
    iparm[kFactorNonzeros] = s.factorStatistics ? -1 : 0;
}

LSMsolver_settings settings_in(const int* iparm)
{
    LSMsolver_settings s;
    s.scalingAndMatching = iparm[kScaling] != 0 && iparm[kMatching] != 0;
    s.pivotPerturbation = iparm[kPerturbation];
    s.ordering = static_cast<LSMsolver_ordering>(iparm[kOrdering]);
    s.factorStatistics = iparm[kFactorNonzeros] != 0;
    return s;
}

void read_statistics(const int* iparm, int mtype, LSMsolver_diagnostics& d)
{
    d.perturbedPivots = iparm[kPerturbedPivots];
    d.refinementSteps = iparm[kRefinementDone];
    const bool indefinite = mtype == LSM_REAL_SYMMETRIC_INDEFINITE;
    d.positiveEigenvalues = indefinite ? iparm[kPositive] : -1;
    d.negativeEigenvalues = indefinite ? iparm[kNegative] : -1;
    d.peakAnalysisMemoryKB = iparm[kPeakAnalysis];
    d.peakFactorMemoryKB = iparm[kPermanent] + iparm[kFactorMemory];
    d.factorNonzeros = iparm[kFactorNonzeros] > 0 ? iparm[kFactorNonzeros] : -1;
}

} // namespace internal
} // namespace kelmatrix

const char* LSMsolver_error_message(int error)
{
    switch (error) {
    case 0:
        return "no error";
    case -1:
        return "input inconsistent (indexing, ordering or type of the arrays)";
    case -2:
        return "not enough memory";
    case -3:
        return "reordering problem";
    case -4:
        return "zero pivot, numerical factorization or iterative refinement problem";
    case -5:
        return "unclassified (internal) error";
    case -6:
        return "reordering failed (nonsymmetric matrix given as symmetric)";
    case -7:
        return "diagonal matrix is singular";
    case -8:
        return "32-bit integer overflow";
    case -9:
        return "not enough memory for out-of-core";
    case -10:
        return "error opening out-of-core files";
    case -11:
        return "read/write error with out-of-core files";
    case -12:
        return "wrong integer size for this interface";
    case -13:
        return "interrupted";
    default:
        return "unknown PARDISO error";
    }
}
