// KELMATRIX native thread thresholds (internal)
// Per routine, the work a thread must get before a team pays for itself (team_size's grain),
// in the routine's own unit of work. Measured on the 2-core development machine: waking a team
// of two takes about 5 us (the fastest of 100 wake-ups of sleeping threads; 1 us while they
// still spin), and the substitutions run at about 1 ns per term on one thread, so a team of two
// pays once each thread is handed some 10^4 terms. The grains are ten times that and more: on
// a loaded machine a wake-up can wait for a time slice, and a job too small to share is never
// worth the risk. A 12-point spline's solve (about 50 terms) is far below every one of them;
// bench_band's Threshold cases time the sizes around the substitutions' grain.
#ifndef KELMATRIX_PARALLEL_THRESHOLDS_H
#define KELMATRIX_PARALLEL_THRESHOLDS_H

#include <algorithm>

#include "parallel/team.h"

namespace kelmatrix {
namespace internal {

/// Band and dense-storage substitutions, cyclic solves: terms n (min(bw, n - 1) + 1) per
/// right-hand side, both passes.
constexpr double kSubstitutionGrain = 1 << 17;
/// Right-hand sides go to threads in runs of this many (the widest vector of the substitution
/// kernels' column blocks), and no thread gets fewer: every thread streams the whole factor
/// once per pass, so a thread with a lone column would cost more memory traffic than it saves.
constexpr int kColumnUnit = 4;

/// The team for a substitution of `columns` right-hand sides and `terms` terms in all.
inline int column_team(double terms, int columns)
{
    const int by_columns = columns / kColumnUnit;
    return by_columns > 1 ? std::min(team_size(terms, kSubstitutionGrain), by_columns) : 1;
}
/// Kronecker substitutions: terms p q (w1 + w2 + 2) per column of X.
constexpr double kKroneckerGrain = 1 << 17;
/// The cyclic factorization's border columns W = U11^-T A12 are a substitution (column_team);
/// its Schur products: terms nb per product of the complement's upper triangle.
constexpr double kBorderGrain = 1 << 17;

/// The factorizations: terms n bw^2 (twice the products), n^3 for the whole triangle.
constexpr double kFactorGrain = 1 << 22;
/// The wide-band wavefront from this width: every row hands its pivot and its column from one
/// core to another, measured at about 1.2 to 1.7 us a row on the 2-core machine, against 0.7 us
/// (bw 64) and 2.1 us (bw 128) of serial work a row; 2 threads were 0.45x and 0.77x at those
/// widths, 1.47x at bw 256 and 1.79x at bw 512.
constexpr int kMinTeamWidth = 192;
/// ... and up to this width, so that the threads' spread stays inside its flags' ring.
constexpr int kMaxTeamWidth = 8192;

} // namespace internal
} // namespace kelmatrix

#endif
