// KELMATRIX sparse direct solver tests
// LSMsolver on real PARDISO: the call order it allows, the arguments and batches it hands over,
// the shared handle after assignment, and residuals on Laplacians and the collection's matrices.
//
// This executable defines its own `pardiso`, which the library's calls reach first; it records
// each call and forwards it to MKL's. Solutions are judged by ||B - A X||_1 / (||A||_1 ||X||_1 n
// eps) computed here with plain loops over the test's own compressed rows.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "interposers.h"
#include "kelmatrix/sparse.h"
#include "matrix_market.h"
#include "test_util.h"

namespace {

struct PardisoCall {
    int phase, nrhs, mtype, n, maxfct, mnum, msglvl;
    const void *a, *ia, *ja, *b, *x;
    std::vector<int> iparm; // as handed in
    const void* pt;         // the handle's address
    const void* handle;     // and its first word, as handed in
};

std::vector<PardisoCall> g_calls;
const auto mkl_pardiso = kt::next_definition(&pardiso, "pardiso");

} // namespace

void pardiso(void* pt, const int* maxfct, const int* mnum, const int* mtype, const int* phase,
             const int* n, const void* a, const int* ia, const int* ja, int* perm, const int* nrhs,
             int* iparm, const int* msglvl, void* b, void* x, int* error)
{
    g_calls.push_back({*phase, *nrhs, *mtype, *n, *maxfct, *mnum, *msglvl, a, ia, ja, b, x,
                       std::vector<int>(iparm, iparm + 64), pt, *static_cast<void**>(pt)});
    mkl_pardiso(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, msglvl, b, x,
                error);
}

namespace {

constexpr LSMsolver_mattype kSpd = LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE;

std::vector<int> phases()
{
    std::vector<int> p;
    for (const PardisoCall& c : g_calls)
        p.push_back(c.phase);
    return p;
}

/// Upper triangle of the 5-point Laplacian on an m x m grid.
kt::Csr laplacian(int m)
{
    std::vector<kt::Triplet> t;
    for (int k = 0; k < m * m; ++k) {
        t.push_back({k, k, 4.0});
        if (k % m + 1 < m)
            t.push_back({k, k + 1, -1.0});
        if (k + m < m * m)
            t.push_back({k, k + m, -1.0});
    }
    return kt::build_csr(m * m, t, true);
}

class LSMsolverTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_calls.clear();
        saved_threads = LSMsolver::mNumThreadsDefault;
    }
    // The thread count is process-wide: a test that decides one hands the old count back.
    void TearDown() override
    {
        if (LSMsolver::mNumThreadsDefault == saved_threads)
            return;
        LSMsolver::establish_numthreads(saved_threads > 0 ? saved_threads : 1);
        LSMsolver::mNumThreadsDefault = saved_threads;
    }
    /// Solves b's columns by the raw overload into solution: the residual ratio against A,
    /// infinite if the solve fails or changes b.
    double solve_ratio(LSMsolver& s, const kt::Csr& A, const kt::Dense& b)
    {
        std::vector<double> b_copy = b.v;
        solution.assign(b.v.size(), 0.0);
        return s.solve(b.cols, b_copy.data(), solution.data()) && b_copy == b.v
                   ? kt::residual_ratio(A, solution, b.v, b.cols)
                   : std::numeric_limits<double>::infinity();
    }
    int saved_threads = -1;
    std::vector<double> solution; // solve_ratio's last one
    std::mt19937_64 rng{kt::seed()};
    int ia1[2] = {1, 2}, ja1[1] = {1}; // the 1 x 1 system a1 x = b
    double a1[1] = {4.0};
};

// -1 (default) -> clear -> 0 -> factor -> 2 -> solve -> 3 -> clear -> 0; init only below 2;
// a refused call reaches no PARDISO phase and changes no state.
TEST_F(LSMsolverTest, CallsAreRefusedOutOfOrderWithoutReachingPardiso)
{
    double b = 8.0, x = 0.0, a9[1] = {9.0};
    {
        LSMsolver s;
        EXPECT_FALSE(s.factor() || s.solve(1, &b, &x));
        EXPECT_TRUE(s.init(1, ia1, ja1, a1, 1, 0, kSpd));
        EXPECT_FALSE(s.factor()); // init leaves -1: clear() is the way in
        EXPECT_TRUE(s.clear());
        EXPECT_TRUE(g_calls.empty());
        ASSERT_TRUE(s.factor());
        EXPECT_FALSE(s.factor() || s.init(1, ia1, ja1, a1, 1, 0, kSpd));
        ASSERT_TRUE(s.solve(1, &b, &x));
        EXPECT_EQ(x, 2.0);
        EXPECT_FALSE(s.factor() || s.init(1, ia1, ja1, a1, 1, 0, kSpd));
        EXPECT_TRUE(s.solve(1, &b, &x) && s.clear() && s.clear());
        EXPECT_FALSE(s.solve(1, &b, &x));
        b = 18.0; // new values on the same pattern: init and factor again
        EXPECT_TRUE(s.init(1, ia1, ja1, a9, 1, 0, kSpd) && s.factor() && s.solve(1, &b, &x));
        EXPECT_EQ(x, 2.0);
    }
    EXPECT_EQ(phases(), (std::vector<int>{12, 33, 33, -1, 12, 33, -1})); // the destructor clears

    g_calls.clear(); // a failed factorization keeps 0: the caller may fix the values and retry
    a1[0] = -4.0;
    LSMsolver s(1, ia1, ja1, a1, 1, 0);
    EXPECT_FALSE(s.factor() || s.solve(1, &b, &x));
    a1[0] = 4.0;
    b = 8.0;
    EXPECT_TRUE(s.factor() && s.solve(1, &b, &x));
    EXPECT_EQ(x, 2.0);
    EXPECT_EQ(phases(), (std::vector<int>{12, 12, 33}));
}

TEST_F(LSMsolverTest, EveryCallCarriesTheFixedArgumentsAndBorrowsTheArrays)
{
    SCOPED_TRACE(kt::seed_note());
    kt::Csr A = laplacian(6);
    ASSERT_EQ(LSMsolver::establish_numthreads(3), 3); // init hands the decided count on
    {
        LSMsolver s(A.n, A.ia.data(), A.ja.data(), A.a.data(), 3, 5);
        ASSERT_TRUE(s.factor());
        EXPECT_LT(solve_ratio(s, A, kt::random_dense(rng, A.n, 2)), 30.0);
    }
    ASSERT_EQ(phases(), (std::vector<int>{12, 33, -1}));
    for (const PardisoCall& c : g_calls) {
        EXPECT_EQ(std::vector<int>({c.maxfct, c.mnum, c.msglvl, c.mtype, c.n}),
                  std::vector<int>({1, 1, 0, 2, A.n}));
        EXPECT_TRUE(c.a == A.a.data() && c.ia == A.ia.data() && c.ja == A.ja.data());
    }
    std::vector<int> want(64, 0);
    want[0] = 1;
    want[1] = 2;
    want[2] = 3;
    want[7] = 5;
    want[9] = 13;
    EXPECT_EQ(g_calls[0].iparm, want);
}

// Columns are solved in groups of nrhs, then one group of the remaining columns, each straight
// in the caller's arrays, by both overloads; B is left unchanged.
TEST_F(LSMsolverTest, RightHandSidesAreSolvedInGroupsOfNrhs)
{
    SCOPED_TRACE(kt::seed_note());
    const struct {
        int cols, nrhs;
        std::vector<int> groups;
    } cases[] = {{5, 2, {2, 2, 1}}, {1, 4, {1}}, {6, 3, {3, 3}}};
    kt::Csr A = laplacian(15);
    for (const auto& tc : cases) {
        SCOPED_TRACE(testing::Message() << "cols " << tc.cols << " nrhs " << tc.nrhs);
        const kt::Dense b = kt::random_dense(rng, A.n, tc.cols);
        KelMatrix B, X;
        kt::to_kel(b, B);
        kt::to_kel(kt::Dense(A.n, tc.cols), X);
        std::vector<double> flat_b = b.v, flat_x(b.v.size());
        LSMsolver s(A.n, A.ia.data(), A.ja.data(), A.a.data(), tc.nrhs, 2);
        ASSERT_TRUE(s.factor());
        g_calls.clear();
        ASSERT_TRUE(s.solve(B, X));
        ASSERT_TRUE(s.solve(tc.cols, flat_b.data(), flat_x.data()));
        const std::size_t groups = tc.groups.size();
        ASSERT_EQ(g_calls.size(), 2 * groups);
        for (std::size_t k = 0, offset = 0; k < 2 * groups; ++k) {
            const PardisoCall& c = g_calls[k];
            offset = k % groups == 0 ? 0 : offset;
            EXPECT_TRUE(c.phase == 33 && c.nrhs == tc.groups[k % groups]) << k;
            EXPECT_EQ(c.b, (k < groups ? B.GetElements() : flat_b.data()) + offset) << k;
            EXPECT_EQ(c.x, (k < groups ? X.GetElements() : flat_x.data()) + offset) << k;
            offset += static_cast<std::size_t>(tc.groups[k % groups]) * A.n;
        }
        EXPECT_EQ(kt::snapshot(B), b.v);
        EXPECT_LT(kt::residual_ratio(A, kt::snapshot(X), b.v, tc.cols), 30.0);
        EXPECT_LT(kt::residual_ratio(A, flat_x, b.v, tc.cols), 30.0);

        // X must already have B's shape and B n rows: otherwise false before any PARDISO call.
        g_calls.clear();
        KelMatrix Bn, Xn, Xr, Xc;
        kt::to_kel(kt::Dense(A.n - 1, tc.cols), Bn);
        kt::to_kel(kt::Dense(A.n - 1, tc.cols, 0.5), Xn);
        kt::to_kel(kt::Dense(A.n + 1, tc.cols, 0.5), Xr);
        kt::to_kel(kt::Dense(A.n, tc.cols + 1, 0.5), Xc);
        EXPECT_FALSE(s.solve(Bn, Xn) || s.solve(B, Xr) || s.solve(B, Xc));
        EXPECT_TRUE(g_calls.empty());
        for (const KelMatrix* M : {&Xn, &Xr, &Xc})
            EXPECT_EQ(kt::snapshot(*M), std::vector<double>(M->GetStorageSize(), 0.5));
    }
}

// Assignment copies the factored state and PARDISO's handle: the copy solves with the
// original's factorization, and clearing it releases that factorization for both.
TEST_F(LSMsolverTest, AssignmentSharesTheFactorization)
{
    SCOPED_TRACE(kt::seed_note());
    kt::Csr A = laplacian(11);
    LSMsolver original(A.n, A.ia.data(), A.ja.data(), A.a.data(), 2, 2);
    ASSERT_TRUE(original.factor());
    {
        LSMsolver copy;
        copy = original;
        EXPECT_FALSE(copy.factor()); // already factored
        EXPECT_LT(solve_ratio(copy, A, kt::random_dense(rng, A.n, 2)), 30.0);
        EXPECT_TRUE(copy.clear());
    }
    {
        LSMsolver fresh(A.n, A.ia.data(), A.ja.data(), A.a.data(), 2, 2);
        original = fresh; // so that original's destructor does not release again
    }
    EXPECT_TRUE(original.factor() && original.clear()); // fresh's state 0 came along
    EXPECT_EQ(phases(), (std::vector<int>{12, 33, -1, 12, -1}));
}

// The factorization that fails intermittently under the wrong OpenMP runtime: every one of ten
// runs on two threads must succeed.
TEST_F(LSMsolverTest, LargeLaplacianOnTwoThreadsTenTimesInARow)
{
    SCOPED_TRACE(kt::seed_note());
    ASSERT_EQ(LSMsolver::establish_numthreads(2), 2);
    kt::Csr A = laplacian(201); // 40,401 unknowns
    const kt::Dense b = kt::random_dense(rng, A.n, 2);
    for (int run = 0; run < 10; ++run) {
        SCOPED_TRACE(run);
        LSMsolver s(A.n, A.ia.data(), A.ja.data(), A.a.data(), 2, 2);
        g_calls.clear();
        ASSERT_TRUE(s.factor());
        EXPECT_EQ(g_calls[0].iparm[2], 2);
        EXPECT_LT(solve_ratio(s, A, b), 30.0);
    }
}

// Refactorization: new values on the same pattern go to PARDISO as phase 22 on the held handle
// and solve to the new matrix; it is refused unless a factorization is held, and a failed one
// leaves a solver that refuses to solve, may be refactored again, and is released by clear().
TEST_F(LSMsolverTest, RefactorReusesTheAnalysisForNewValues)
{
    SCOPED_TRACE(kt::seed_note());
    const kt::Csr A = laplacian(20);
    kt::Csr work = A;
    const kt::Dense b = kt::random_dense(rng, A.n, 2);
    std::uniform_real_distribution<double> jitter(0.0, 1.0);

    // MKL's own count of the bytes its allocator holds: what PARDISO keeps for the analysis
    // and factors must be given back by clear() even after a failed refactorization.
    using MemStat = long long (*)(int*);
    const auto mem_stat = reinterpret_cast<MemStat>(dlsym(RTLD_DEFAULT, "MKL_Mem_Stat"));
    ASSERT_NE(mem_stat, nullptr);
    auto mkl_bytes = [mem_stat] {
        int buffers = 0;
        return mem_stat(&buffers);
    };
    const long long base = mkl_bytes();
    LSMsolver s(A.n, work.ia.data(), work.ja.data(), work.a.data(), 2, 2);
    EXPECT_FALSE(s.refactor()); // ready, nothing factored
    ASSERT_TRUE(s.factor());
    EXPECT_LT(solve_ratio(s, A, b), 30.0);
    kt::Csr changed = A; // scaled, with a perturbed diagonal: still SPD
    for (int i = 0; i < A.n; ++i)
        for (int k = A.ia[i] - 1; k < A.ia[i + 1] - 1; ++k)
            changed.a[k] = 3.0 * A.a[k] + (A.ja[k] == i + 1 ? jitter(rng) : 0.0);
    work.a = changed.a; // same storage size: the borrowed pointer stays valid
    ASSERT_EQ(work.a.data(), g_calls[0].a);
    ASSERT_TRUE(s.refactor());
    EXPECT_FALSE(s.factor()); // refactor leads to state 2, not 0
    EXPECT_LT(solve_ratio(s, changed, b), 30.0);
    EXPECT_GT(kt::residual_ratio(A, solution, b.v, 2), 1e6); // not the old matrix's solution
    ASSERT_EQ(phases(), (std::vector<int>{12, 33, 22, 33}));
    EXPECT_EQ(g_calls[2].pt, g_calls[0].pt); // the handle the analysis filled, not a fresh one
    EXPECT_TRUE(g_calls[0].handle == nullptr && g_calls[2].handle != nullptr);
    EXPECT_EQ(g_calls[2].iparm[0], 1);

    // Indefinite values for a type-2 factorization: PARDISO reports a zero pivot.
    g_calls.clear();
    for (int i = 0; i < A.n; ++i)
        work.a[A.ia[i] - 1] = i == A.n / 2 ? -50.0 : work.a[A.ia[i] - 1];
    EXPECT_FALSE(s.refactor());
    EXPECT_NE(s.diagnostics().error, 0);
    EXPECT_EQ(s.diagnostics().lastPhase, 22);
    EXPECT_FALSE(s.factor() ||
                 s.init(A.n, work.ia.data(), work.ja.data(), work.a.data(), 2, 2, kSpd));
    EXPECT_EQ(solve_ratio(s, A, b), std::numeric_limits<double>::infinity()); // refused
    work.a = changed.a; // repaired values: the held analysis is still usable
    ASSERT_TRUE(s.refactor());
    EXPECT_LT(solve_ratio(s, changed, b), 30.0);
    for (int i = 0; i < A.n; ++i)
        work.a[A.ia[i] - 1] = i == 0 ? -50.0 : work.a[A.ia[i] - 1];
    EXPECT_FALSE(s.refactor());
    const long long held = mkl_bytes() - base;
    EXPECT_GT(held, 0);
    EXPECT_TRUE(s.clear());
    EXPECT_LT(mkl_bytes() - base, held / 2) << held; // the factors were released
    EXPECT_FALSE(s.refactor());
    EXPECT_EQ(solve_ratio(s, A, b), std::numeric_limits<double>::infinity());
    EXPECT_EQ(phases(), (std::vector<int>{22, 22, 33, 22, -1}));
}

// Opt-in settings reach PARDISO as exactly their iparm entries, only between init and factor,
// and init puts the fixed table back.
TEST_F(LSMsolverTest, SettingsReachPardisoAsTheirEntriesUntilInit)
{
    const kt::Csr A = laplacian(8);
    kt::Csr work = A;
    LSMsolver s(A.n, work.ia.data(), work.ja.data(), work.a.data(), 1, 0);
    const LSMsolver_settings defaults = s.settings();
    EXPECT_TRUE(!defaults.scalingAndMatching && defaults.pivotPerturbation == 13 &&
                defaults.ordering == LSM_ORDERING_NESTED_DISSECTION && !defaults.factorStatistics);
    LSMsolver_settings bad = defaults;
    bad.pivotPerturbation = 0;
    EXPECT_FALSE(s.set_settings(bad));
    bad = defaults;
    bad.ordering = static_cast<LSMsolver_ordering>(1);
    EXPECT_FALSE(s.set_settings(bad));

    LSMsolver_settings opt;
    opt.scalingAndMatching = true;
    opt.pivotPerturbation = 8;
    opt.ordering = LSM_ORDERING_MINIMUM_DEGREE;
    opt.factorStatistics = true;
    ASSERT_TRUE(s.factor() && s.clear()); // the fixed table first, for comparison
    ASSERT_TRUE(s.set_settings(opt) && s.factor());
    EXPECT_FALSE(s.set_settings(defaults)); // the analysis was made with opt
    const LSMsolver_settings held = s.settings();
    EXPECT_TRUE(held.scalingAndMatching && held.pivotPerturbation == 8 &&
                held.ordering == LSM_ORDERING_MINIMUM_DEGREE && held.factorStatistics);
    ASSERT_TRUE(s.clear() &&
                s.init(A.n, work.ia.data(), work.ja.data(), work.a.data(), 1, 0, kSpd) &&
                s.factor());
    ASSERT_EQ(phases(), (std::vector<int>{12, -1, 12, -1, 12}));
    // Ordering, perturbation, scaling, matching, statistics: the fixed table's entry, then opt's.
    const int entries[] = {1, 9, 10, 12, 17}, fixed[] = {2, 13, 0, 0, 0}, set[] = {0, 8, 1, 1, -1};
    for (int k = 0; k < 5; ++k)
        EXPECT_TRUE(g_calls[0].iparm[entries[k]] == fixed[k] &&
                    g_calls[2].iparm[entries[k]] == set[k])
            << "iparm[" << entries[k] << "]";
    EXPECT_EQ(g_calls[4].iparm, g_calls[0].iparm); // init restored every entry
}

// Diagnostics: the inertia of a symmetric indefinite matrix with known eigenvalues, the memory
// and factor statistics, and an error code with its meaning after a failure.
TEST_F(LSMsolverTest, DiagnosticsReportInertiaStatisticsAndErrors)
{
    // T - sigma I, T = tridiag(-1, 2, -1) of order n: eigenvalues 2 - 2 cos(k pi / (n + 1)) -
    // sigma, so the count below zero is known in closed form.
    const int n = 200;
    const double sigma = 1.3, pi = 3.14159265358979323846;
    std::vector<kt::Triplet> t;
    for (int i = 0; i < n; ++i) {
        t.push_back({i, i, 2.0 - sigma});
        if (i + 1 < n)
            t.push_back({i, i + 1, -1.0});
    }
    kt::Csr T = kt::build_csr(n, t, true);
    int negative = 0;
    for (int k = 1; k <= n; ++k)
        negative += 2.0 - 2.0 * std::cos(k * pi / (n + 1)) < sigma;
    ASSERT_GT(negative, 0);

    LSMsolver s;
    EXPECT_EQ(s.diagnostics().error, 0);
    EXPECT_EQ(s.diagnostics().lastPhase, 0);
    LSMsolver_settings stats;
    stats.factorStatistics = true;
    ASSERT_TRUE(
        s.init(n, T.ia.data(), T.ja.data(), T.a.data(), 1, 2, LSM_REAL_SYMMETRIC_INDEFINITE) &&
        s.clear() && s.set_settings(stats) && s.factor());
    LSMsolver_diagnostics d = s.diagnostics();
    EXPECT_EQ(d.negativeEigenvalues, negative);
    EXPECT_EQ(d.positiveEigenvalues, n - negative);
    EXPECT_TRUE(d.error == 0 && d.lastPhase == 12 && d.perturbedPivots == 0);
    EXPECT_GT(d.peakAnalysisMemoryKB, 0);
    EXPECT_GT(d.peakFactorMemoryKB, 0);
    // Never below the matrix's own triangle, never above a dense triangle.
    EXPECT_GE(d.factorNonzeros, static_cast<long long>(T.ja.size()));
    EXPECT_LE(d.factorNonzeros, static_cast<long long>(n) * (n + 1) / 2);
    EXPECT_LT(solve_ratio(s, T, kt::random_dense(rng, n, 1)), 30.0);
    EXPECT_GE(s.diagnostics().refinementSteps, 0);

    // The same values declared positive definite: PARDISO stops at a non-positive pivot.
    LSMsolver spd(n, T.ia.data(), T.ja.data(), T.a.data(), 1, 0);
    EXPECT_FALSE(spd.factor());
    d = spd.diagnostics();
    EXPECT_EQ(d.error, -4);
    EXPECT_EQ(d.lastPhase, 12);
    EXPECT_EQ(d.negativeEigenvalues, -1); // inertia only for type -2
    EXPECT_STREQ(LSMsolver_error_message(d.error),
                 "zero pivot, numerical factorization or iterative refinement problem");
    EXPECT_STREQ(LSMsolver_error_message(0), "no error");
    EXPECT_STREQ(LSMsolver_error_message(-99), "unknown PARDISO error");

    // A failed factorization leaves the solver ready: with the shift taken back in the borrowed
    // values (each upper row starts at its diagonal), the retry factors and solves, and the
    // destructor's clear() releases what the engine kept from the failed attempt.
    for (int i = 0; i < n; ++i)
        T.a[T.ia[i] - 1] += sigma;
    EXPECT_TRUE(spd.factor());
    EXPECT_LT(solve_ratio(spd, T, kt::random_dense(rng, n, 1)), 30.0);
}

// Every matrix of the collection, each with the type it is solved as. hangGlider_2, west0479 and
// bayer10 perturb hundreds to thousands of pivots with the fixed settings and do not recover;
// with scaling and weighted matching they solve. The data must be present: a missing file fails.
TEST_F(LSMsolverTest, CollectionMatricesSolveWithSmallResidual)
{
    SCOPED_TRACE(kt::seed_note());
    constexpr LSMsolver_mattype kInd = LSM_REAL_SYMMETRIC_INDEFINITE, kUns = LSM_REAL_UNSYMMETRIC;
    const struct {
        const char* file;
        LSMsolver_mattype mtype;
        bool hard; // needs scaling and weighted matching
    } matrices[] = {{"bcsstk01", kSpd, false},
                    {"494_bus", kSpd, false},
                    {"gr_30_30", kSpd, false},
                    {"1138_bus", kSpd, false},
                    {"bcsstk13", kSpd, false},
                    {"bcsstk15", kSpd, false},
                    {"fv1", kSpd, false},
                    {"olm1000", kUns, false},
                    {"watt_2", kUns, false},
                    {"sherman5", kUns, false},
                    {"tumorAntiAngiogenesis_2", kInd, false},
                    {"hangGlider_2", kInd, true},
                    {"west0479", kUns, true},
                    {"bayer10", kUns, true}};
    for (const auto& p : matrices) {
        const std::string path = std::string(KELMATRIX_TEST_MATRICES) + "/" + p.file + ".mtx";
        SCOPED_TRACE(path);
        kt::Coordinate coo;
        ASSERT_TRUE(kt::read_matrix_market(path, coo)); // missing data is a failure, not a skip
        ASSERT_EQ(coo.symmetric, p.mtype != kUns);
        const kt::Csr A = coo.symmetric ? kt::upper_csr(coo) : kt::full_csr(coo);
        const kt::Dense b = kt::random_dense(rng, A.n, 3);
        KelMatrix B, X;
        kt::to_kel(b, B);
        kt::to_kel(kt::Dense(A.n, 3), X);
        kt::Csr borrowed = A; // the solver may read but must not change the arrays
        LSMsolver s(A.n, borrowed.ia.data(), borrowed.ja.data(), borrowed.a.data(), 2, 5, p.mtype);
        if (p.hard) { // the fixed settings: PARDISO says true, the pivots say otherwise
            ASSERT_TRUE(s.factor());
            EXPECT_GT(s.diagnostics().perturbedPivots, 0);
            ASSERT_TRUE(s.clear());
            LSMsolver_settings robust;
            robust.scalingAndMatching = true;
            ASSERT_TRUE(s.set_settings(robust));
        }
        ASSERT_TRUE(s.factor() && s.solve(B, X));
        EXPECT_LT(kt::residual_ratio(A, kt::snapshot(X), b.v, 3), 30.0);
        EXPECT_TRUE(borrowed.ia == A.ia && borrowed.ja == A.ja && borrowed.a == A.a);
    }
}

int count_phase(int phase)
{
    int count = 0;
    for (const PardisoCall& c : g_calls)
        count += c.phase == phase;
    return count;
}

// Solvers as values: a vector of factored solvers grows by moving them, a solver returns by
// value, and however copies are made and released, PARDISO's memory is released exactly once
// and a copy left behind refuses instead of reaching it.
TEST_F(LSMsolverTest, MovesKeepTheFactorizationAndCopiesReleaseItOnce)
{
    SCOPED_TRACE(kt::seed_note());
    kt::Csr A = laplacian(7);
    const kt::Dense b = kt::random_dense(rng, A.n, 1);
    const auto factored = [&] {
        LSMsolver s(A.n, A.ia.data(), A.ja.data(), A.a.data(), 1, 0);
        EXPECT_TRUE(s.factor());
        return s; // moved (or elided): the factorization goes with it
    };
    {
        std::vector<LSMsolver> solvers;
        for (int k = 0; k < 6; ++k) // a capacity of 1, 2, 4, 8: three growths move them
            solvers.push_back(factored());
        for (LSMsolver& s : solvers)
            EXPECT_LT(solve_ratio(s, A, b), 30.0);
        EXPECT_EQ(count_phase(-1), 0);
        LSMsolver moved(std::move(solvers[0]));
        EXPECT_EQ(solvers[0].state(), LSMsolver_state::Unset);
        EXPECT_EQ(moved.state(), LSMsolver_state::Solved);
        EXPECT_LT(solve_ratio(moved, A, b), 30.0);
    }
    EXPECT_EQ(count_phase(12), 6);
    EXPECT_EQ(count_phase(-1), 6); // one each, none for the moved-from ones

    // Each order of release: the copy first, the original first, a copy of a copy, and the
    // designed detaching idiom. Every line releases once and the survivors refuse.
    g_calls.clear();
    LSMsolver s = factored();
    {
        LSMsolver t(s);
        EXPECT_LT(solve_ratio(t, A, b), 30.0);
    } // t released the factorization
    EXPECT_EQ(solve_ratio(s, A, b), std::numeric_limits<double>::infinity());
    EXPECT_EQ(s.diagnostics().refusal, LSM_REFUSAL_RELEASED_BY_COPY);
    EXPECT_FALSE(s.refactor());
    EXPECT_TRUE(s.clear() && s.clear());
    EXPECT_EQ(count_phase(-1), 1);

    g_calls.clear();
    LSMsolver t;
    s = factored();
    t = s;
    LSMsolver u(t);
    EXPECT_TRUE(s.clear());
    for (LSMsolver* copy : {&t, &u}) {
        EXPECT_EQ(solve_ratio(*copy, A, b), std::numeric_limits<double>::infinity());
        EXPECT_EQ(copy->diagnostics().refusal, LSM_REFUSAL_RELEASED_BY_COPY);
        EXPECT_EQ(copy->state(), LSMsolver_state::Factored); // the designed state is copied
    }
    EXPECT_TRUE(t.clear() && u.clear());
    EXPECT_EQ(count_phase(-1), 1);
    ASSERT_TRUE(s.init(A.n, A.ia.data(), A.ja.data(), A.a.data(), 1, 0, kSpd) && s.factor());
    t = s;
    s = LSMsolver(); // detached: t owns the factorization alone
    EXPECT_LT(solve_ratio(t, A, b), 30.0);
    EXPECT_TRUE(t.clear());
    EXPECT_EQ(count_phase(-1), 2);
}

// Every refusal of LSMsolver records its reason; the next call that goes ahead clears it.
TEST_F(LSMsolverTest, EachRefusalRecordsItsReason)
{
    double b[2] = {8.0, 4.0}, sol[2] = {0.0, 0.0};
    const auto reason = [](const LSMsolver& s) { return s.diagnostics().refusal; };
    LSMsolver s;
    LSMsolver_settings bad;
    bad.pivotPerturbation = 0;
    EXPECT_FALSE(s.set_settings(LSMsolver_settings()));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NOT_INITIALISED); // the state is -1 before and after init
    EXPECT_TRUE(s.init(1, ia1, ja1, a1, 1, 0, kSpd) && s.set_settings(LSMsolver_settings()));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NONE);
    EXPECT_FALSE(s.factor());
    EXPECT_EQ(reason(s), LSM_REFUSAL_NEEDS_CLEAR);
    EXPECT_NE(std::string(s.diagnostics().refusalMessage).find("clear()"), std::string::npos);
    EXPECT_FALSE(s.set_settings(bad));
    EXPECT_EQ(reason(s), LSM_REFUSAL_BAD_SETTINGS);
    EXPECT_TRUE(s.clear());
    EXPECT_FALSE(s.solve(1, b, sol));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NOT_FACTORED);
    EXPECT_FALSE(s.refactor());
    EXPECT_EQ(reason(s), LSM_REFUSAL_NOT_FACTORED);
    ASSERT_TRUE(s.factor());
    for (int call = 0; call < 3; ++call) {
        const bool refused = call == 0   ? s.factor()
                             : call == 1 ? s.init(1, ia1, ja1, a1, 1, 0, kSpd)
                                         : s.set_settings(LSMsolver_settings());
        EXPECT_FALSE(refused);
        EXPECT_EQ(reason(s), LSM_REFUSAL_HOLDS_FACTORIZATION) << call;
    }
    KelMatrix B, X;
    kt::to_kel(kt::Dense(1, 2, 8.0), B);
    kt::to_kel(kt::Dense(1, 3, 0.0), X);
    EXPECT_FALSE(s.solve(B, X));
    EXPECT_EQ(reason(s), LSM_REFUSAL_SHAPE);
    EXPECT_EQ(s.state(), LSMsolver_state::Factored);
    a1[0] = -4.0; // a type-2 refactorization of a negative value fails
    EXPECT_FALSE(s.refactor());
    EXPECT_EQ(reason(s), LSM_REFUSAL_NONE); // refused by PARDISO, not by the solver
    EXPECT_NE(s.diagnostics().error, 0);
    EXPECT_EQ(s.state(), LSMsolver_state::RefactorFailed);
    EXPECT_FALSE(s.solve(1, b, sol));
    EXPECT_EQ(reason(s), LSM_REFUSAL_REFACTOR_FAILED);
    a1[0] = 4.0;
    ASSERT_TRUE(s.refactor() && s.solve(2, b, sol));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NONE);
    EXPECT_EQ(s.state(), LSMsolver_state::Solved);
    EXPECT_TRUE(sol[0] == 2.0 && sol[1] == 1.0);
    EXPECT_EQ(s.diagnostics().nonFiniteSolutions, 0);

    // A NaN right-hand side: the designed result stands, the count tells.
    double nan_b[2] = {std::numeric_limits<double>::quiet_NaN(), 4.0};
    const bool solved = s.solve(2, nan_b, sol);
    const long long non_finite = !std::isfinite(sol[0]) + !std::isfinite(sol[1]);
    EXPECT_EQ(s.diagnostics().nonFiniteSolutions, solved ? non_finite : 0);
    EXPECT_TRUE(!solved || non_finite > 0);
}

} // namespace
