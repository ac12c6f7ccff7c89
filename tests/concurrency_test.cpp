// KELMATRIX concurrency tests
// Every solver family from eight threads at once on distinct matrices, each result equal bit for
// bit to the same call made alone; sparse solvers in parallel once the thread count is decided.
//
// The library keeps no state between calls apart from the misalignment and the sparse solver's
// thread count, both decided here before any thread starts, so concurrent calls on distinct
// matrices must not influence one another. Built with -DKELMATRIX_SANITIZE=thread (and MKL's
// sequential layer, which ThreadSanitizer can follow) this also proves the calls race-free.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"
#include "kelmatrix/sparse.h"
#include "test_util.h"

namespace {

using kt::Dense;
using Result = std::vector<double>; // every output of a family, storage and return codes

const int kThreads = 8;

void put(Result& r, const KelGenericMatrix& m)
{
    r.insert(r.end(), m.GetElements(), m.GetElements() + m.GetStorageSize());
}

void put(Result& r, double v) { r.push_back(v); }

Dense symmetric(std::mt19937_64& rng, int n)
{
    Dense a = kt::random_dense(rng, n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < j; ++i)
            a(j, i) = a(i, j);
    return a;
}

} // namespace

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

// ---- one function per family: inputs from the seed, every output into the result ----

Result products_and_general_solves(std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const int n = 48;
    Result r;
    kt::KelOf A(kt::random_dense(rng, n, n)), B(kt::random_dense(rng, n, 5));
    KelMatrix C, X;
    ProductEx(0.5, A, B, true, false, 0.0, C);
    put(r, C);
    put(r, Solve(A, B, X));
    put(r, X);
    KelMatrixBanded G;
    G.Dimension(n, n, 3, 2);
    G.SetZero();
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - 2); i <= std::min(n - 1, j + 3); ++i)
            G(i, j) = A(i, j);
    put(r, Solve(G, B, X));
    put(r, X);
    KelSparseVector v(n);
    v.setAllElements(n, B.GetElements());
    put(r, v.multiply(C.GetElements()));
    return r;
}

Result spd_solves(std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const int n = 56, kd = 4;
    const Dense a = kt::random_spd(rng, n, kd), b = kt::random_dense(rng, n, 3);
    Result r;
    for (int copy : {1, 0}) {
        kt::KelOf A(a), B(b);
        KelMatrix X;
        put(r, SolveSP(A, B, X, copy));
        put(r, X);
        put(r, A);
        KelMatrixBanded Ab;
        kt::to_band_upper(a, kd, Ab);
        kt::to_kel(b, B);
        put(r, SolveBSP(Ab, B, X, copy));
        put(r, X);
        put(r, Ab);
    }
    return r;
}

Result cholesky_family(std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const int n = 40, kd = 3;
    const Dense a = kt::random_spd(rng, n, n - 1), b = kt::random_dense(rng, n, 4);
    Result r;
    kt::KelOf U(a), B(b);
    KelMatrix X, Y;
    put(r, spdMatrixCholeskyFactorization(U, 1));
    put(r, spdCholeskySubstitute(U, B, X, 1));
    put(r, X);
    put(r, symmPositiveDefiniteInverse(U, 1));
    put(r, U);
    KelMatrixBanded Ub;
    kt::to_band_upper(kt::random_spd(rng, n, kd), kd, Ub);
    put(r, spdBandMatrixCholeskyFactorization(Ub, 1));
    put(r, spdBandCholeskySubstitute(Ub, B, X, 1));
    put(r, X);
    put(r, solveUpperTriangularBandSystem(Ub, true, B, Y, 1));
    put(r, Y);
    return r;
}

Result least_squares_and_eigen(std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const int m = 50, n = 20;
    const Dense a = kt::random_dense(rng, m, n), b = kt::random_dense(rng, m, 1);
    Result r;
    kt::KelOf A(a), B(b), X(Dense(n, 1));
    put(r, SolveLS(A, B, X));
    put(r, X);
    std::vector<int> jpvt(n, 0);
    int rank = 0;
    KelMatrix Xm;
    put(r, MinNormLeastSquares(A, B, jpvt.data(), 1e-10, rank, Xm));
    put(r, rank);
    put(r, Xm);
    r.insert(r.end(), jpvt.begin(), jpvt.end());

    const int k = 36;
    kt::KelOf S(symmetric(rng, k));
    KelMatrix Z, W;
    std::vector<double> lambda(k);
    put(r, EigenValuesS(S, lambda.data(), &Z, 1));
    r.insert(r.end(), lambda.begin(), lambda.end());
    put(r, Z);
    W.Dimension(k, 1, -1, -1);
    Z.Dimension(k, k, -1, -1);
    put(r, spdmEigenproblem(S, W, Z, 1));
    put(r, W);
    put(r, Z);
    return r;
}

Result native_band_and_cyclic(std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const int n = 60, bw = 3, m = 2;
    Result r;
    KelMatrixBanded A;
    kt::to_band_upper(kt::random_spd(rng, n, bw), bw, A);
    kt::KelOf B(kt::random_dense(rng, n, 3));
    put(r, Cholesky_factor(A, bw, 1e-12));
    Cholesky_subst(A, bw, B);
    put(r, A);
    put(r, B);

    Dense c = kt::random_spd(rng, n, bw);
    for (int j = n - m; j < n; ++j) // a dense border, still diagonally dominant
        for (int i = 0; i < j; ++i)
            c(i, j) = c(j, i) = 0.01;
    for (int i = 0; i < n; ++i)
        c(i, i) += n * 0.01;
    kt::KelOf C(c), Bc(kt::random_dense(rng, n, 2));
    KelMatrix X;
    put(r, SolveBSP_Cyclic(C, Bc, n - m, 2 * bw + 1, X));
    put(r, X);
    put(r, cyclic_Cholesky_factor(C, bw, m, 1e-12));
    cyclic_Cholesky_subst(C, bw, m, Bc);
    put(r, C);
    put(r, Bc);
    return r;
}

Result kronecker(std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const int nA = 9, nB = 7, kd = 2;
    const Dense a = kt::random_spd(rng, nA, kd), b = kt::random_spd(rng, nB, kd);
    Result r;
    KelMatrixBanded A, B;
    kt::to_band_upper(a, kd, A);
    kt::to_band_upper(b, kd, B);
    kt::KelOf X(kt::random_dense(rng, nB, 3 * nA));
    put(r, Solve_Kronecker(A, B, X, true));
    put(r, X);

    Cholesky_factor(A, kd, 1e-12);
    Cholesky_factor(B, kd, 1e-12);
    kt::KelOf Y(kt::random_dense(rng, nA * nB, 2));
    kronecker_lower_substitute(kd, kd, A, B, Y);
    put(r, Y);
    kronecker_upper_substitute(kd, kd, A, B, Y);
    put(r, Y);
    return r;
}

struct Family {
    const char* name;
    Result (*run)(std::uint64_t);
};

const Family kFamilies[] = {{"products and general solves", products_and_general_solves},
                            {"SPD solves", spd_solves},
                            {"Cholesky family", cholesky_family},
                            {"least squares and eigenproblems", least_squares_and_eigen},
                            {"native band and cyclic", native_band_and_cyclic},
                            {"Kronecker", kronecker}};
const int kFamilyCount = sizeof(kFamilies) / sizeof(kFamilies[0]);

bool same_bits(const Result& a, const Result& b)
{
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), sizeof(double) * a.size()) == 0);
}

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

TEST(Concurrency, EveryFamilyFromEightThreadsGivesTheSerialBits)
{
    SCOPED_TRACE(kt::seed_note());
    auto seed_of = [](int t, int f) { return kt::seed() + 1000u * t + f; };
    std::vector<std::vector<Result>> want(kThreads, std::vector<Result>(kFamilyCount));
    for (int t = 0; t < kThreads; ++t)
        for (int f = 0; f < kFamilyCount; ++f)
            want[t][f] = kFamilies[f].run(seed_of(t, f));

    for (int round = 0; round < 10; ++round) {
        std::vector<std::vector<Result>> got(kThreads, std::vector<Result>(kFamilyCount));
        on_threads([&](int t) { // thread t starts at family t, so different families overlap
            for (int k = 0; k < kFamilyCount; ++k) {
                const int f = (t + k) % kFamilyCount;
                got[t][f] = kFamilies[f].run(seed_of(t, f));
            }
        });
        for (int t = 0; t < kThreads; ++t)
            for (int f = 0; f < kFamilyCount; ++f)
                EXPECT_TRUE(same_bits(got[t][f], want[t][f]))
                    << kFamilies[f].name << ", thread " << t << ", round " << round;
    }
}

// The 5-point Laplacian of a g x g grid, upper triangle, with a random positive diagonal shift.
struct Grid {
    int n = 0;
    std::vector<int> ia, ja;
    std::vector<double> a;
};

Grid grid(std::mt19937_64& rng, int g)
{
    std::uniform_real_distribution<double> shift(0.0, 1.0);
    Grid s;
    s.n = g * g;
    s.ia.push_back(1);
    for (int k = 0; k < s.n; ++k) {
        s.ja.push_back(k + 1);
        s.a.push_back(4.0 + shift(rng));
        if (k % g + 1 < g) {
            s.ja.push_back(k + 2);
            s.a.push_back(-1.0);
        }
        if (k + g < s.n) {
            s.ja.push_back(k + g + 1);
            s.a.push_back(-1.0);
        }
        s.ia.push_back(int(s.ja.size()) + 1);
    }
    return s;
}

Result sparse_solve(Grid& s, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    Result r;
    kt::KelOf B(kt::random_dense(rng, s.n, 5)), X(Dense(s.n, 5));
    LSMsolver solver(s.n, s.ia.data(), s.ja.data(), s.a.data(), 2, 1);
    put(r, solver.factor());
    put(r, solver.solve(B, X));
    put(r, X);
    return r;
}

TEST(Concurrency, SparseSolversInParallelOnceTheThreadCountIsDecided)
{
    SCOPED_TRACE(kt::seed_note());
    const int decided = LSMsolver::establish_numthreads(0); // from one thread, before the others
    ASSERT_GE(decided, 1);
    std::vector<Grid> grids;
    std::vector<Result> want;
    std::mt19937_64 rng(kt::seed());
    for (int t = 0; t < kThreads; ++t) {
        grids.push_back(grid(rng, 10 + t));
        want.push_back(sparse_solve(grids[t], kt::seed() + t));
        ASSERT_EQ(want[t][0], 1.0);
        ASSERT_EQ(want[t][1], 1.0);
    }
    for (int round = 0; round < 3; ++round) {
        std::vector<Result> got(kThreads);
        on_threads([&](int t) { got[t] = sparse_solve(grids[t], kt::seed() + t); });
        for (int t = 0; t < kThreads; ++t)
            EXPECT_TRUE(same_bits(got[t], want[t])) << "thread " << t << ", round " << round;
    }
    EXPECT_EQ(LSMsolver::mNumThreadsDefault, decided); // init only read it
}

} // namespace
