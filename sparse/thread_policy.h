// KELMATRIX sparse solver thread policy (internal)
// The thread count LSMsolver::init hands to PARDISO, decided by the library's one policy.
//
// Shared by the solver and the policy and not exported. The decision reads and writes the
// process-wide LSMsolver::mNumThreadsDefault without locking.
#ifndef KELMATRIX_THREAD_POLICY_H
#define KELMATRIX_THREAD_POLICY_H

namespace kelmatrix {
namespace internal {

/// The decided count if there is one (>= 1), else the count decided from OMP_NUM_THREADS.
int init_thread_count();

} // namespace internal
} // namespace kelmatrix

#endif
