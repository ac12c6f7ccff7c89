// KELMATRIX native thread thresholds (internal)
// Per routine, the work a thread must get before a team pays for itself (team_size's grain),
// in the routine's own unit of work, measured with bench_band's threshold cases (the smallest
// size at which 2 threads are not slower than 1, on a 2-core machine) and then doubled, so that
// the smallest jobs, a 12-point spline's solve included, never wake a team.
#ifndef KELMATRIX_PARALLEL_THRESHOLDS_H
#define KELMATRIX_PARALLEL_THRESHOLDS_H

namespace kelmatrix {
namespace internal {

/// Band and dense-storage substitutions, cyclic solves: terms n (min(bw, n - 1) + 1) per
/// right-hand side, both passes.
constexpr double kSubstitutionGrain = 1 << 17;
/// Right-hand sides go to threads in runs of this many (the widest vector of the substitution
/// kernels' column blocks), so that no thread is left a lone column where a run would fit.
constexpr int kColumnUnit = 4;
/// Kronecker substitutions: terms p q (w1 + w2 + 2) per column of X.
constexpr double kKroneckerGrain = 1 << 17;
/// The cyclic factorization's border: terms nb (bw + 1) per border column (W = U11^-T A12), and
/// nb per product of the Schur complement's upper triangle.
constexpr double kBorderGrain = 1 << 17;

/// The wide-band factorization (widths above the ring kernel's): terms n bw^2 (twice the
/// products); up to kMaxTeamWidth, so that the threads' spread stays inside its flags' ring.
constexpr double kFactorGrain = 1 << 22;
constexpr int kMaxTeamWidth = 8192;

} // namespace internal
} // namespace kelmatrix

#endif
