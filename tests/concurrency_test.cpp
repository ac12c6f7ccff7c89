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

void add(Result& r, const KelGenericMatrix& m)
{
    r.insert(r.end(), m.GetElements(), m.GetElements() + m.GetStorageSize());
}
void add(Result& r, double v) { r.push_back(v); }
template <class T> void add(Result& r, const std::vector<T>& v) { r.insert(r.end(), v.begin(), v.end()); }

/// Appends return codes and outputs in order; the arguments are read after any call among them.
template <class... T> void put(Result& r, const T&... outputs) { (add(r, outputs), ...); }

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

// ---- one function per family: inputs from rng, every output into r ----

void products_and_general_solves(std::mt19937_64& rng, Result& r)
{
    const int n = 48;
    kt::KelOf A(kt::random_dense(rng, n, n)), B(kt::random_dense(rng, n, 5));
    KelMatrix C, X;
    ProductEx(0.5, A, B, true, false, 0.0, C);
    put(r, C, Solve(A, B, X), X);
    KelMatrixBanded G;
    G.Dimension(n, n, 3, 2);
    G.SetZero();
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - 2); i <= std::min(n - 1, j + 3); ++i)
            G(i, j) = A(i, j);
    put(r, Solve(G, B, X), X);
    KelSparseVector v(n);
    v.setAllElements(n, B.GetElements());
    put(r, v.multiply(C.GetElements()));
}

void spd_solves(std::mt19937_64& rng, Result& r)
{
    const int n = 56, kd = 4;
    const Dense a = kt::random_spd(rng, n, kd), b = kt::random_dense(rng, n, 3);
    for (int copy : {1, 0}) {
        kt::KelOf A(a), B(b), Bb(b);
        KelMatrixBanded Ab;
        kt::to_band_upper(a, kd, Ab);
        KelMatrix X, Xb;
        put(r, SolveSP(A, B, X, copy), X, A);
        put(r, SolveBSP(Ab, Bb, Xb, copy), Xb, Ab);
    }
}

void cholesky_family(std::mt19937_64& rng, Result& r)
{
    const int n = 40, kd = 3;
    kt::KelOf U(kt::random_spd(rng, n, n - 1)), B(kt::random_dense(rng, n, 4));
    KelMatrix X, Y;
    put(r, spdMatrixCholeskyFactorization(U, 1));
    put(r, spdCholeskySubstitute(U, B, X, 1), X);
    put(r, symmPositiveDefiniteInverse(U, 1), U);
    KelMatrixBanded Ub;
    kt::to_band_upper(kt::random_spd(rng, n, kd), kd, Ub);
    put(r, spdBandMatrixCholeskyFactorization(Ub, 1));
    put(r, spdBandCholeskySubstitute(Ub, B, X, 1), X);
    put(r, solveUpperTriangularBandSystem(Ub, true, B, Y, 1), Y);
}

void least_squares_and_eigen(std::mt19937_64& rng, Result& r)
{
    const int m = 50, n = 20, k = 36;
    kt::KelOf A(kt::random_dense(rng, m, n)), B(kt::random_dense(rng, m, 1)), X(Dense(n, 1));
    put(r, SolveLS(A, B, X), X);
    std::vector<int> jpvt(n, 0);
    int rank = 0;
    KelMatrix Xm, Z, W;
    put(r, MinNormLeastSquares(A, B, jpvt.data(), 1e-10, rank, Xm), rank, Xm, jpvt);

    kt::KelOf S(kt::random_spd(rng, k, k - 1));
    std::vector<double> lambda(k);
    put(r, EigenValuesS(S, lambda.data(), &Z, 1), lambda, Z);
    W.Dimension(k, 1, -1, -1);
    Z.Dimension(k, k, -1, -1);
    put(r, spdmEigenproblem(S, W, Z, 1), W, Z);
}

void native_band_and_cyclic(std::mt19937_64& rng, Result& r)
{
    const int n = 60, bw = 3, m = 2;
    KelMatrixBanded A;
    kt::to_band_upper(kt::random_spd(rng, n, bw), bw, A);
    kt::KelOf B(kt::random_dense(rng, n, 3));
    put(r, Cholesky_factor(A, bw, 1e-12));
    Cholesky_subst(A, bw, B);
    put(r, A, B);

    // Dense and diagonally dominant: its band and border part is too.
    kt::KelOf C(kt::random_spd(rng, n, n - 1)), Bc(kt::random_dense(rng, n, 2));
    KelMatrix X;
    put(r, SolveBSP_Cyclic(C, Bc, n - m, 2 * bw + 1, X), X);
    put(r, cyclic_Cholesky_factor(C, bw, m, 1e-12));
    cyclic_Cholesky_subst(C, bw, m, Bc);
    put(r, C, Bc);
}

void kronecker(std::mt19937_64& rng, Result& r)
{
    const int nA = 9, nB = 7, kd = 2;
    KelMatrixBanded A, B;
    kt::to_band_upper(kt::random_spd(rng, nA, kd), kd, A);
    kt::to_band_upper(kt::random_spd(rng, nB, kd), kd, B);
    kt::KelOf X(kt::random_dense(rng, nB, 3 * nA)), Y(kt::random_dense(rng, nA * nB, 2));
    put(r, Solve_Kronecker(A, B, X, true), X);
    put(r, Cholesky_factor(A, kd, 1e-12));
    put(r, Cholesky_factor(B, kd, 1e-12));
    kronecker_lower_substitute(kd, kd, A, B, Y);
    put(r, Y);
    kronecker_upper_substitute(kd, kd, A, B, Y);
    put(r, Y);
}

struct Family {
    const char* name;
    void (*fill)(std::mt19937_64&, Result&);
    Result run(std::uint64_t seed) const
    {
        std::mt19937_64 rng(seed);
        Result r;
        fill(rng, r);
        return r;
    }
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

// The 5-point Laplacian of a g x g grid (upper triangle, a random positive diagonal shift)
// factored and solved: the return codes and the solution.
Result sparse_solve(int g, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const int n = g * g;
    std::vector<int> ia(1, 1), ja;
    std::vector<double> a;
    for (int k = 0; k < n; ++k) {
        ja.push_back(k + 1);
        a.push_back(4.0 + std::uniform_real_distribution<double>(0.0, 1.0)(rng));
        for (int neighbour : {k % g + 1 < g ? k + 1 : -1, k + g < n ? k + g : -1})
            if (neighbour >= 0) {
                ja.push_back(neighbour + 1);
                a.push_back(-1.0);
            }
        ia.push_back(int(ja.size()) + 1);
    }
    Result r;
    kt::KelOf B(kt::random_dense(rng, n, 5)), X(Dense(n, 5));
    LSMsolver solver(n, ia.data(), ja.data(), a.data(), 2, 1);
    put(r, solver.factor());
    put(r, solver.solve(B, X), X);
    return r;
}

TEST(Concurrency, SparseSolversInParallelOnceTheThreadCountIsDecided)
{
    SCOPED_TRACE(kt::seed_note());
    const int decided = LSMsolver::establish_numthreads(0); // from one thread, before the others
    ASSERT_GE(decided, 1);
    std::vector<Result> want;
    for (int t = 0; t < kThreads; ++t) {
        want.push_back(sparse_solve(10 + t, kt::seed() + t));
        ASSERT_EQ(want[t][0], 1.0);
        ASSERT_EQ(want[t][1], 1.0);
    }
    for (int round = 0; round < 3; ++round) {
        std::vector<Result> got(kThreads);
        on_threads([&](int t) { got[t] = sparse_solve(10 + t, kt::seed() + t); });
        for (int t = 0; t < kThreads; ++t)
            EXPECT_TRUE(same_bits(got[t], want[t])) << "thread " << t << ", round " << round;
    }
    EXPECT_EQ(LSMsolver::mNumThreadsDefault, decided); // init only read it
}

} // namespace
