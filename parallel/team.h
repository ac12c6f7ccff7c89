// KELMATRIX native thread teams (internal)
// The one place the native routines ask for threads, and the one way they run on them.
//
// A routine sizes its team from its work (team_size), which is 1, and the routine runs exactly
// its serial code, unless the program opted in (kelmatrix/threads.h), the caller is not already
// inside an OpenMP parallel region, and the work is large enough for the extra threads to pay
// for waking. It then runs one body per thread (run_team), each on its own share of work that is
// independent of the others'; the shares never change the order of any element's operations.
// The team comes from the OpenMP runtime the library is linked with (libgomp, the runtime of
// MKL's GNU threading layer; LLVM's libomp in clang builds), so the library keeps no pool of
// its own.
#ifndef KELMATRIX_PARALLEL_TEAM_H
#define KELMATRIX_PARALLEL_TEAM_H

#include <atomic>
#include <thread>
#include <utility>

namespace kelmatrix {
namespace internal {

/// Threads for a job of `work` units when each thread needs `grain` units to gain from waking:
/// min(the setting, work / grain), at least 1; 1 when the setting is 1 or the caller is inside
/// an OpenMP parallel region. A routine whose threads must all run at once (they wait for each
/// other) passes its count to run_team as is and takes the count the body is given.
int team_size(double work, double grain);

/// For the tests: with true, team_size ignores the work (any job of 2 units or more gets the
/// setting's count), so that small cases run the parallel paths too. Returns the previous value.
bool ignore_team_thresholds(bool ignore);
/// Whether the tests asked so (for a routine's other size limits of the same kind).
bool team_thresholds_ignored();

/// Calls body(t, parts) once on each thread t = 0 .. parts - 1 of a team of at most `threads`
/// threads, and returns when all have returned; parts is the count the runtime gave (fewer than
/// asked only when OMP_THREAD_LIMIT or OMP_DYNAMIC says so). threads <= 1: body(0, 1) here.
void run_team_raw(int threads, void (*body)(void*, int, int), void* context);

template <class F> void run_team(int threads, F&& body)
{
    if (threads <= 1)
        return body(0, 1);
    run_team_raw(
        threads, [](void* c, int t, int parts) { (*static_cast<F*>(c))(t, parts); },
        static_cast<void*>(&body));
}

/// Waits until count >= value (acquire: what was written before the matching release is seen),
/// spinning briefly, then yielding the core (teams may be larger than the machine).
inline void wait_at_least(const std::atomic<int>& count, int value)
{
    for (int spins = 0; count.load(std::memory_order_acquire) < value; ++spins)
        if (spins >= 64)
            std::this_thread::yield();
}

/// All of a team's threads wait at wait(parts) until the last arrives (acquire and release:
/// what any of them wrote before is seen by all after). Spins briefly, then yields.
class SpinBarrier {
public:
    void wait(int parts)
    {
        const int generation = generation_.load(std::memory_order_acquire);
        if (arrived_.fetch_add(1, std::memory_order_acq_rel) + 1 == parts) {
            arrived_.store(0, std::memory_order_relaxed);
            generation_.fetch_add(1, std::memory_order_acq_rel);
            return;
        }
        for (int spins = 0; generation_.load(std::memory_order_acquire) == generation; ++spins)
            if (spins >= 64)
                std::this_thread::yield();
    }

private:
    std::atomic<int> arrived_{0}, generation_{0};
};

/// Share `part` of `parts` of the items 0 .. count - 1 in contiguous runs: [first, second).
/// Every run but the last holds a multiple of `unit` items when count allows; runs may be empty.
std::pair<int, int> share(int count, int part, int parts, int unit = 1);

} // namespace internal
} // namespace kelmatrix

#endif
