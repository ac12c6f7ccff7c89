// KELMATRIX native threads tests
// The opt-in setting, the team it sizes, and the library called from a user's own threads: the
// bits of every native routine do not depend on the count, and a call made inside a user's
// OpenMP region runs on its own thread. Links the static build to reach the team's internals.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "kelmatrix/band.h"
#include "kelmatrix/threads.h"
#include "parallel/team.h"
#include "test_util.h"

namespace {

using kelmatrix::internal::ignore_team_thresholds;
using kelmatrix::internal::run_team;
using kelmatrix::internal::share;
using kelmatrix::internal::team_size;

// Restores the serial default and the thresholds after each test.
class Threads : public testing::Test {
protected:
    void TearDown() override
    {
        kelmatrix_set_native_threads(1);
        ignore_team_thresholds(false);
    }
};

TEST_F(Threads, TheSettingTakesCountsInRangeAndRejectsOthersUnchanged)
{
    EXPECT_EQ(kelmatrix_set_native_threads(3), KEL_THREADS_OK);
    EXPECT_EQ(kelmatrix_native_threads(), 3);
    for (int bad : {-1, -1000, KEL_THREADS_MAX + 1}) {
        EXPECT_EQ(kelmatrix_set_native_threads(bad), KEL_THREADS_OUT_OF_RANGE) << bad;
        EXPECT_EQ(kelmatrix_native_threads(), 3) << bad;
    }
    for (int good : {0, 1, KEL_THREADS_MAX}) {
        EXPECT_EQ(kelmatrix_set_native_threads(good), KEL_THREADS_OK);
        EXPECT_EQ(kelmatrix_native_threads(), good);
    }
    const std::string ok = kelmatrix_native_threads_message(KEL_THREADS_OK),
                      range = kelmatrix_native_threads_message(KEL_THREADS_OUT_OF_RANGE),
                      unknown = kelmatrix_native_threads_message(7);
    EXPECT_EQ(ok, "ok");
    EXPECT_NE(range.find("1024"), std::string::npos) << range;
    EXPECT_EQ(unknown, "unknown status");
}

TEST_F(Threads, TheTeamFollowsTheSettingTheWorkAndAnEnclosingRegion)
{
    const double grain = 1000.0;
    kelmatrix_set_native_threads(1);
    EXPECT_EQ(team_size(1e12, grain), 1); // the default: serial whatever the work
    kelmatrix_set_native_threads(4);
    EXPECT_EQ(team_size(1e12, grain), 4);
    EXPECT_EQ(team_size(1999.0, grain), 1); // less than two grains: not worth a team
    EXPECT_EQ(team_size(2500.0, grain), 2);
    EXPECT_EQ(team_size(0.0, grain), 1);
    ignore_team_thresholds(true);
    EXPECT_EQ(team_size(3.0, grain), 3); // the tests' switch: units, not grains
    EXPECT_EQ(team_size(1.0, grain), 1);
    ignore_team_thresholds(false);
    kelmatrix_set_native_threads(0);
    EXPECT_EQ(team_size(1e12, grain), std::max(1, omp_get_max_threads()));

    // Inside a user's region, active or not, every call stays on its thread.
    kelmatrix_set_native_threads(4);
    std::vector<int> inside(3, -1);
#pragma omp parallel num_threads(3)
    inside[omp_get_thread_num()] = team_size(1e12, grain);
    for (int t = 0; t < 3; ++t)
        EXPECT_EQ(inside[t], 1) << t;
    int single = -1;
#pragma omp parallel num_threads(1)
    single = team_size(1e12, grain);
    EXPECT_EQ(single, 1);
}

TEST_F(Threads, ATeamRunsEachShareOnceOnThreadsOfItsOwn)
{
    for (int asked : {1, 2, 3, 4}) {
        std::mutex lock;
        std::multiset<int> shares;
        std::set<std::thread::id> ids;
        int given = 0;
        run_team(asked, [&](int t, int parts) {
            std::lock_guard<std::mutex> hold(lock);
            shares.insert(t);
            ids.insert(std::this_thread::get_id());
            given = parts;
        });
        EXPECT_EQ(given, asked); // no thread limit and no dynamic adjustment in the tests
        EXPECT_EQ(static_cast<int>(shares.size()), asked);
        EXPECT_EQ(static_cast<int>(ids.size()), asked) << "threads really ran side by side";
        for (int t = 0; t < asked; ++t)
            EXPECT_EQ(shares.count(t), 1u) << asked << " " << t;
    }
}

TEST_F(Threads, SharesAreContiguousCoverEveryItemAndKeepRunsOfTheUnit)
{
    for (int count = 0; count <= 40; ++count)
        for (int parts = 1; parts <= 5; ++parts)
            for (int unit : {1, 4}) {
                SCOPED_TRACE(testing::Message()
                             << "count " << count << " parts " << parts << " unit " << unit);
                int next = 0, nonempty = 0;
                for (int t = 0; t < parts; ++t) {
                    const std::pair<int, int> r = share(count, t, parts, unit);
                    ASSERT_EQ(r.first, next);
                    ASSERT_LE(r.first, r.second);
                    next = r.second;
                    nonempty += r.second > r.first;
                    if (count >= unit * parts && r.second < count) {
                        EXPECT_EQ((r.second - r.first) % unit, 0);
                    }
                }
                EXPECT_EQ(next, count);
                EXPECT_EQ(nonempty, std::min(count, parts)); // as even as the unit allows
            }
}

// Factor and solve a random SPD band system of order n and width bw with nrhs right-hand sides;
// the solution's storage.
std::vector<double> band_solution(int n, int bw, int nrhs, unsigned seed,
                                  kt::Dense* a_out = nullptr, kt::Dense* b_out = nullptr)
{
    std::mt19937_64 rng(seed);
    const kt::Dense a = kt::random_spd(rng, n, bw), b = kt::random_dense(rng, n, nrhs);
    KelMatrixBanded A;
    kt::to_band_upper(a, bw, A);
    KelMatrix B;
    kt::to_kel(b, B);
    EXPECT_EQ(Cholesky_factor(A, bw, 1e-12), n);
    Cholesky_subst(A, bw, B);
    if (a_out)
        *a_out = a;
    if (b_out)
        *b_out = b;
    return kt::snapshot(B);
}

TEST_F(Threads, ProblemsAboveTheThresholdsGiveTheSameBitsOnEveryCount)
{
    // Large enough that the measured thresholds let 2 to 4 threads in: many right-hand sides of
    // a narrow band, a border of 24 columns, and a Kronecker solve of 8 columns.
    const int n = 6000, bw = 8, nrhs = 24;
    kt::Dense a, b;
    const std::vector<double> serial = band_solution(n, bw, nrhs, 5, &a, &b);
    kt::Dense x(n, nrhs);
    x.v = serial;
    EXPECT_LT(kt::residual_ratio(a, x, b), 10.0);

    const int nb = 4000, m = 24, cbw = 3;
    auto cyclic = [&] {
        // A band block of width 3, dense border columns and corner, diagonally dominant.
        std::mt19937_64 r(6);
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        KelMatrixBordered C;
        EXPECT_EQ(C.DimensionBordered(nb + m, cbw, m), KEL_BORDERED_OK);
        for (int j = 0; j < nb + m; ++j) {
            for (int i = j >= nb ? 0 : std::max(0, j - cbw); i < j; ++i)
                C(i, j) = j >= nb ? 0.05 * u(r) : u(r);
            C(j, j) = 2.0 * cbw + 2.0 + (j >= nb ? 0.05 * nb : 0.0);
        }
        EXPECT_EQ(cyclic_Cholesky_factor(C, cbw, m, 1e-12), m);
        KelMatrix B;
        kt::to_kel(kt::random_dense(r, nb + m, 20), B);
        cyclic_Cholesky_subst(C, cbw, m, B);
        std::vector<double> out = kt::snapshot(C), sol = kt::snapshot(B);
        out.insert(out.end(), sol.begin(), sol.end());
        return out;
    };
    const int p = 200, q = 150;
    auto kronecker = [&] {
        std::mt19937_64 r(7);
        KelMatrixBanded U1, U2;
        kt::to_band_upper(kt::random_spd(r, p, 2), 2, U1);
        kt::to_band_upper(kt::random_spd(r, q, 3), 3, U2);
        Cholesky_factor(U1, 2, 1e-12);
        Cholesky_factor(U2, 3, 1e-12);
        KelMatrix X;
        kt::to_kel(kt::random_dense(r, p * q, 8), X);
        kronecker_lower_substitute(2, 3, U1, U2, X);
        kronecker_upper_substitute(2, 3, U1, U2, X);
        return kt::snapshot(X);
    };
    const std::vector<double> cyclic_serial = cyclic(), kronecker_serial = kronecker();
    for (int threads : {2, 3, 4}) {
        ASSERT_EQ(kelmatrix_set_native_threads(threads), KEL_THREADS_OK);
        ASSERT_GT(team_size(static_cast<double>(n) * (bw + 1) * nrhs, 1 << 17), 1)
            << "the band case must reach a team";
        EXPECT_TRUE(kt::same_bits(band_solution(n, bw, nrhs, 5), serial)) << threads;
        EXPECT_TRUE(kt::same_bits(cyclic(), cyclic_serial)) << threads;
        EXPECT_TRUE(kt::same_bits(kronecker(), kronecker_serial)) << threads;
    }
}

TEST_F(Threads, CallsInsideAUsersParallelRegionStayOnTheirThreadAndGiveTheSerialBits)
{
    const int problems = 6;
    std::vector<std::vector<double>> want(problems), got(problems);
    for (int k = 0; k < problems; ++k)
        want[k] = band_solution(300 + 10 * k, 1 + k, 9, 100 + k);
    kelmatrix_set_native_threads(4);
    ignore_team_thresholds(true); // every call would take a team if it could
#pragma omp parallel for num_threads(3) schedule(static, 1)
    for (int k = 0; k < problems; ++k)
        got[k] = band_solution(300 + 10 * k, 1 + k, 9, 100 + k);
    for (int k = 0; k < problems; ++k)
        EXPECT_TRUE(kt::same_bits(got[k], want[k])) << k;
}

// Several of the program's own threads (not OpenMP's) each calling with a team of its own.
TEST_F(Threads, ProgramThreadsEachWithATeamGiveTheSerialBits)
{
    const int callers = 3;
    std::vector<std::vector<double>> want(callers), got(callers);
    for (int k = 0; k < callers; ++k)
        want[k] = band_solution(400, 4 + k, 12, 200 + k);
    kelmatrix_set_native_threads(2);
    ignore_team_thresholds(true);
    std::vector<std::thread> threads;
    for (int k = 0; k < callers; ++k)
        threads.emplace_back([&, k] { got[k] = band_solution(400, 4 + k, 12, 200 + k); });
    for (std::thread& t : threads)
        t.join();
    for (int k = 0; k < callers; ++k)
        EXPECT_TRUE(kt::same_bits(got[k], want[k])) << k;
}

} // namespace
