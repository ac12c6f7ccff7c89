// KELMATRIX sparse solver thread policy
// LSMsolver::establish_numthreads and the thread count LSMsolver::init decides.
//
// The process-wide count lives in LSMsolver::mNumThreadsDefault (-1: not decided yet). An
// explicit request is taken as it stands and handed to MKL's global setter (by reference)
// whenever it changes the count. Without one, OMP_NUM_THREADS decides: atoi of its value, and 1
// when that lies outside 1..20; MKL's setter is not called then, since MKL's OpenMP runtime reads
// the same variable itself. Only an unset variable makes the library call the setter with 1.
// Nothing is locked: decide the count from one thread before solvers run concurrently.
#include <cstdlib>

#include "kelmatrix/sparse.h"
#include "matrix/mkl_bindings.h"
#include "sparse/thread_policy.h"

int LSMsolver::mNumThreadsDefault = -1;

namespace {

// Deliberate: an environment value above this falls back to 1 thread while an explicit request
// has no bound at all; the OpenMP runtime sizes itself from the same variable.
constexpr int kMaxEnvironmentThreads = 20;

void set_mkl_threads(int count)
{
    mkl_set_num_threads(&count);
}

int thread_count_from_environment()
{
    const char* value = std::getenv("OMP_NUM_THREADS");
    if (value == nullptr) {
        LSMsolver::mNumThreadsDefault = 1;
        set_mkl_threads(1);
        return 1;
    }
    const int count = std::atoi(value);
    LSMsolver::mNumThreadsDefault = count;
    if (count < 1 || count > kMaxEnvironmentThreads) { // 1..20 accepted as read
        LSMsolver::mNumThreadsDefault = 1;
        return 1;
    }
    return count;
}

} // namespace

int kelmatrix::internal::init_thread_count()
{
    const int count = LSMsolver::mNumThreadsDefault;
    return count > 0 ? count : thread_count_from_environment();
}

int LSMsolver::establish_numthreads(int requested)
{
    if (requested > 0) {
        if (requested != mNumThreadsDefault) { // an unchanged count is not handed to MKL again
            mNumThreadsDefault = requested;
            set_mkl_threads(requested);
        }
        return mNumThreadsDefault;
    }
    if (mNumThreadsDefault >= 1)
        return mNumThreadsDefault;
    return thread_count_from_environment();
}
