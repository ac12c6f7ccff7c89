// KELMATRIX native thread teams
// The setting of kelmatrix/threads.h and the team of parallel/team.h over the OpenMP runtime.
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "kelmatrix/threads.h"
#include "parallel/team.h"

namespace {

constexpr int kUnset = -1;
std::atomic<int> g_setting{kUnset};
std::atomic<bool> g_ignore_thresholds{false};

// KELMATRIX_NUM_THREADS as a count 0 .. KEL_THREADS_MAX, else 1 (the serial default).
int from_environment()
{
    const char* s = std::getenv("KELMATRIX_NUM_THREADS");
    if (!s || !*s)
        return 1;
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(s, &end, 10);
    if (errno != 0 || *end != '\0' || v < 0 || v > KEL_THREADS_MAX)
        return 1;
    return static_cast<int>(v);
}

int setting()
{
    int s = g_setting.load(std::memory_order_relaxed);
    if (s == kUnset) { // the first reader decides; a concurrent setter wins
        int expected = kUnset;
        g_setting.compare_exchange_strong(expected, from_environment());
        s = g_setting.load(std::memory_order_relaxed);
    }
    return s;
}

} // namespace

int kelmatrix_set_native_threads(int count)
{
    if (count < 0 || count > KEL_THREADS_MAX)
        return KEL_THREADS_OUT_OF_RANGE;
    g_setting.store(count, std::memory_order_relaxed);
    return KEL_THREADS_OK;
}

int kelmatrix_native_threads()
{
    return setting();
}

const char* kelmatrix_native_threads_message(int status)
{
    switch (status) {
    case KEL_THREADS_OK:
        return "ok";
    case KEL_THREADS_OUT_OF_RANGE:
        return "the thread count must lie in 0 .. KEL_THREADS_MAX (1024)";
    default:
        return "unknown status";
    }
}

namespace kelmatrix {
namespace internal {

int team_size(double work, double grain)
{
    int threads = setting();
    if (threads == 1)
        return 1;
    // Inside any enclosing region (a user's team, active or not) the call stays on its thread:
    // a team per caller thread would multiply the threads, and nested regions are off by
    // default in the runtime anyway.
    if (omp_get_level() > 0)
        return 1;
    if (threads == 0)
        threads = omp_get_max_threads();
    const double by_work =
        g_ignore_thresholds.load(std::memory_order_relaxed) ? work : work / grain;
    if (!(by_work >= 2.0))
        return 1;
    return by_work < threads ? static_cast<int>(by_work) : threads;
}

bool ignore_team_thresholds(bool ignore)
{
    return g_ignore_thresholds.exchange(ignore);
}

bool team_thresholds_ignored()
{
    return g_ignore_thresholds.load(std::memory_order_relaxed);
}

void run_team_raw(int threads, void (*body)(void*, int, int), void* context)
{
    if (threads <= 1)
        return body(context, 0, 1);
#pragma omp parallel num_threads(threads)
    body(context, omp_get_thread_num(), omp_get_num_threads());
}

std::pair<int, int> share(int count, int part, int parts, int unit)
{
    if (parts <= 1)
        return {0, count};
    // Runs of a multiple of unit items while each part still gets one unit; else single items.
    if (unit < 1 || count < unit * parts)
        unit = 1;
    const int units = (count + unit - 1) / unit;
    const int base = units / parts, extra = units % parts;
    const int first = part * base + std::min(part, extra);
    const int last = first + base + (part < extra ? 1 : 0);
    return {std::min(count, first * unit), std::min(count, last * unit)};
}

} // namespace internal
} // namespace kelmatrix
