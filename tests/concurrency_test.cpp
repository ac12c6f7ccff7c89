// KELMATRIX concurrency tests
// Every family of the residual campaign (tests/campaign.cpp), the sparse solver included, from
// eight threads at once on distinct matrices, each case's outputs equal bit for bit to the same
// case run alone.
//
// The library keeps no state between calls apart from the misalignment and the sparse solver's
// thread count, both decided here before any thread starts, so concurrent calls on distinct
// matrices must not influence one another. Built with -DKELMATRIX_SANITIZE=thread (and MKL's
// sequential layer, which ThreadSanitizer can follow) this also proves the calls race-free.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "campaign.h"
#include "kelmatrix/sparse.h"
#include "test_util.h"

// MKL's PARDISO orders with METIS, which reseeds the C library's drand48 stream (srand48) in each
// analysis and then draws from it. That stream is one per process: concurrent analyses
// interleave their draws, get different orderings, and their solutions differ in the last bit.
// This executable keeps the stream per thread (glibc's generator and seeding), so that the
// comparison below sees only what the library itself shares between solvers.
namespace {
thread_local unsigned long long g_drand48 = 0x1234ABCD330Eull;
}

extern "C" __attribute__((visibility("default"))) void srand48(long seed) noexcept
{
    g_drand48 = (static_cast<unsigned long long>(seed) & 0xFFFFFFFFull) << 16 | 0x330E;
}

extern "C" __attribute__((visibility("default"))) double drand48() noexcept
{
    g_drand48 = (g_drand48 * 0x5DEECE66Dull + 0xB) & ((1ull << 48) - 1);
    return static_cast<double>(g_drand48) / static_cast<double>(1ull << 48);
}

namespace {

const int kThreads = 8;
const int kRounds = 3;

/// Runs body(t) on kThreads threads released together.
template <class Body> void on_threads(Body body)
{
    std::atomic<int> waiting{kThreads};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            --waiting;
            while (waiting.load() > 0)
                std::this_thread::yield();
            body(t);
        });
    for (std::thread& th : threads)
        th.join();
}

// Thread t runs case t of every family, starting at family t so that different families overlap.
TEST(Concurrency, EveryFamilyFromEightThreadsGivesTheSerialBits)
{
    SCOPED_TRACE(kt::seed_note());
    const int decided = LSMsolver::establish_numthreads(0); // from one thread, before the others
    const int families = kt::family_count();
    using Outputs = std::vector<std::vector<std::vector<double>>>; // [thread][family]
    Outputs want(kThreads, std::vector<std::vector<double>>(families));
    for (int t = 0; t < kThreads; ++t)
        for (int f = 0; f < families; ++f)
            want[t][f] = kt::run_case(f, kt::seed(), t);
    ASSERT_FALSE(HasFailure()) << "a case failed on its own";

    for (int round = 0; round < kRounds; ++round) {
        Outputs got(kThreads, std::vector<std::vector<double>>(families));
        on_threads([&](int t) {
            for (int k = 0; k < families; ++k) {
                const int f = (t + k) % families;
                got[t][f] = kt::run_case(f, kt::seed(), t);
            }
        });
        for (int t = 0; t < kThreads; ++t)
            for (int f = 0; f < families; ++f)
                EXPECT_TRUE(kt::same_bits(got[t][f], want[t][f]))
                    << kt::family_name(f) << ", thread " << t << ", round " << round;
    }
    EXPECT_EQ(LSMsolver::mNumThreadsDefault, decided); // the solvers only read it
}

} // namespace
