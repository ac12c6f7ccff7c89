// KELMATRIX sparse solver controls (internal)
// The opt-in settings written into and read back from PARDISO's iparm, and the statistics
// PARDISO reports in it, shared by every solver that drives PARDISO's control array.
//
// Only the entries named here are touched; every other entry keeps what init() set, so with
// default settings the array reaching PARDISO is the fixed table.
#ifndef KELMATRIX_PARDISO_CONTROLS_H
#define KELMATRIX_PARDISO_CONTROLS_H

#include "kelmatrix/sparse.h"

namespace kelmatrix {
namespace internal {

/// False, writing nothing, when a field is out of range.
bool settings_valid(const LSMsolver_settings& settings);
/// Writes valid settings into iparm.
void apply_settings(const LSMsolver_settings& settings, int* iparm);
/// The settings iparm now holds.
LSMsolver_settings settings_in(const int* iparm);
/// The statistics PARDISO left in iparm for a matrix of type mtype.
void read_statistics(const int* iparm, int mtype, LSMsolver_diagnostics& d);

} // namespace internal
} // namespace kelmatrix

#endif
