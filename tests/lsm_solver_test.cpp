// KELMATRIX sparse direct solver tests
// LSMsolver on real PARDISO: the call order it allows, the arguments and batches it hands over,
// and residuals on generated Laplacians and on the collection's real matrices.
//
// This executable defines its own `pardiso`, which the library's calls reach first; it records
// each call and forwards it to MKL's. Solutions are judged by ||B - A X||_1 / (||A||_1 ||X||_1 n
// eps) computed here with plain loops over the test's own compressed rows.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "kelmatrix/sparse.h"
#include "matrix_market.h"
#include "test_util.h"

namespace {

struct PardisoCall {
    int phase, nrhs, mtype, n, maxfct, mnum, msglvl, error;
    const void* a;
    const int* ia;
    const int* ja;
    const void* b;
    const void* x;
    std::vector<void*> pt_in, pt_out; // PARDISO's handle before and after the call
    std::vector<int> iparm;           // as handed in
};

std::vector<PardisoCall> g_calls;

} // namespace

extern "C" __attribute__((visibility("default"))) void
pardiso(void* pt, const int* maxfct, const int* mnum, const int* mtype, const int* phase,
        const int* n, const void* a, const int* ia, const int* ja, int* perm, const int* nrhs,
        int* iparm, const int* msglvl, void* b, void* x, int* error)
{
    using Pardiso = void (*)(void*, const int*, const int*, const int*, const int*, const int*,
                             const void*, const int*, const int*, int*, const int*, int*,
                             const int*, void*, void*, int*);
    static const Pardiso mkl_pardiso = reinterpret_cast<Pardiso>(dlsym(RTLD_NEXT, "pardiso"));
    void** handle = static_cast<void**>(pt);
    PardisoCall call{*phase, *nrhs, *mtype, *n, *maxfct, *mnum, *msglvl, 0, a, ia, ja, b, x,
                     std::vector<void*>(handle, handle + 64), {},
                     std::vector<int>(iparm, iparm + 64)};
    mkl_pardiso(pt, maxfct, mnum, mtype, phase, n, a, ia, ja, perm, nrhs, iparm, msglvl, b, x,
                error);
    call.error = *error;
    call.pt_out.assign(handle, handle + 64);
    g_calls.push_back(call);
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

/// Upper triangle of the 5-point (dims 2) or 7-point (dims 3) Laplacian on an m^dims grid.
kt::Csr laplacian(int dims, int m)
{
    const int n = dims == 2 ? m * m : m * m * m;
    std::vector<kt::Triplet> t;
    for (int k = 0; k < n; ++k) {
        t.push_back({k, k, 2.0 * dims});
        int stride = 1;
        for (int d = 0; d < dims; ++d, stride *= m)
            if ((k / stride) % m + 1 < m) // a neighbour in direction d exists
                t.push_back({k, k + stride, -1.0});
    }
    return kt::build_csr(n, t, true);
}

std::vector<double> random_columns(std::mt19937_64& rng, int n, int cols)
{
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> v(static_cast<std::size_t>(n) * cols);
    for (double& x : v)
        x = u(rng);
    return v;
}

void to_kel(const std::vector<double>& v, int rows, int cols, KelMatrix& M)
{
    M.Dimension(rows, cols, -1, -1);
    std::memcpy(M.GetElements(), v.data(), sizeof(double) * v.size());
}

std::vector<double> from_kel(const KelMatrix& M)
{
    const std::size_t size = static_cast<std::size_t>(M.GetRowDim()) * M.GetColDim();
    return std::vector<double>(M.GetElements(), M.GetElements() + size);
}

class LSMsolverTest : public ::testing::Test {
protected:
    void SetUp() override { g_calls.clear(); }
    // The 1 x 1 system 4 x = b.
    int ia1[2] = {1, 2}, ja1[1] = {1};
    double a1[1] = {4.0};
};

TEST_F(LSMsolverTest, CallsAreRefusedOutOfOrderWithoutReachingPardiso)
{
    double b = 8.0, x = 0.0;
    {
        LSMsolver s; // state -1
        EXPECT_FALSE(s.factor());
        EXPECT_FALSE(s.solve(1, &b, &x));
        EXPECT_TRUE(s.init(1, ia1, ja1, a1, 1, 0, kSpd));
        EXPECT_FALSE(s.factor()); // init leaves -1: clear() is the way in
        EXPECT_TRUE(s.clear());
        EXPECT_TRUE(g_calls.empty());

        ASSERT_TRUE(s.factor()); // 2
        EXPECT_FALSE(s.factor());
        EXPECT_FALSE(s.init(1, ia1, ja1, a1, 1, 0, kSpd));
        ASSERT_TRUE(s.solve(1, &b, &x)); // 3
        EXPECT_EQ(x, 2.0);
        EXPECT_FALSE(s.factor());
        EXPECT_FALSE(s.init(1, ia1, ja1, a1, 1, 0, kSpd));
        EXPECT_TRUE(s.solve(1, &b, &x));
        EXPECT_EQ(phases(), (std::vector<int>{12, 33, 33}));

        EXPECT_TRUE(s.clear()); // releases: 0
        EXPECT_TRUE(s.clear()); // nothing held any more
        EXPECT_FALSE(s.solve(1, &b, &x));
        EXPECT_EQ(phases(), (std::vector<int>{12, 33, 33, -1}));

        // New values on the same pattern: init and factor again, then the destructor releases.
        double a9[1] = {9.0};
        b = 18.0;
        EXPECT_TRUE(s.init(1, ia1, ja1, a9, 1, 0, kSpd));
        ASSERT_TRUE(s.factor());
        ASSERT_TRUE(s.solve(1, &b, &x));
        EXPECT_EQ(x, 2.0);
    }
    EXPECT_EQ(phases(), (std::vector<int>{12, 33, 33, -1, 12, 33, -1}));
    EXPECT_EQ(g_calls[4].a, g_calls[5].a);
    EXPECT_NE(g_calls[4].a, static_cast<const void*>(a1));
}

TEST_F(LSMsolverTest, FailedFactorizationLeavesTheSolverReadyForARetry)
{
    double negative[1] = {-4.0}; // not positive definite
    LSMsolver s(1, ia1, ja1, negative, 1, 0);
    EXPECT_FALSE(s.factor());
    ASSERT_EQ(g_calls.size(), 1u);
    EXPECT_NE(g_calls[0].error, 0);

    double b = 8.0, x = -7.0;
    EXPECT_FALSE(s.solve(1, &b, &x)); // still not factored
    EXPECT_EQ(x, -7.0);
    EXPECT_EQ(g_calls.size(), 1u);

    negative[0] = 4.0; // the caller fixes the values and retries
    ASSERT_TRUE(s.factor());
    ASSERT_TRUE(s.solve(1, &b, &x));
    EXPECT_EQ(x, 2.0);
}

TEST_F(LSMsolverTest, EveryCallCarriesTheFixedArgumentsAndBorrowsTheArrays)
{
    kt::Csr A = laplacian(2, 6);
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    std::vector<double> b = random_columns(rng, A.n, 2), x(b.size());
    {
        LSMsolver s(A.n, A.ia.data(), A.ja.data(), A.a.data(), 3, 5);
        ASSERT_TRUE(s.factor());
        ASSERT_TRUE(s.solve(2, b.data(), x.data()));
    }
    ASSERT_EQ(phases(), (std::vector<int>{12, 33, -1}));
    EXPECT_EQ(g_calls[0].pt_in, std::vector<void*>(64, nullptr)); // init zeroes the handle
    for (std::size_t k = 0; k < g_calls.size(); ++k) {
        const PardisoCall& c = g_calls[k];
        if (k > 0) { // the handle passes from call to call untouched
            EXPECT_EQ(c.pt_in, g_calls[k - 1].pt_out);
        }
        EXPECT_EQ(c.maxfct, 1);
        EXPECT_EQ(c.mnum, 1);
        EXPECT_EQ(c.msglvl, 0);
        EXPECT_EQ(c.mtype, 2);
        EXPECT_EQ(c.n, A.n);
        EXPECT_EQ(c.a, static_cast<const void*>(A.a.data()));
        EXPECT_EQ(c.ia, A.ia.data());
        EXPECT_EQ(c.ja, A.ja.data());
    }
    EXPECT_EQ(g_calls[0].b, g_calls[0].x); // the factor phase gets one dummy for both
    std::vector<int> want(64, 0);
    want[0] = 1;
    want[1] = 2;
    want[2] = LSMsolver::mNumThreadsDefault;
    want[7] = 5;
    want[9] = 13;
    EXPECT_EQ(g_calls[0].iparm, want);
    EXPECT_GE(want[2], 1);
    EXPECT_LT(kt::residual_ratio(A, x, b, 2), 30.0);
}

// Columns are solved in groups of nrhs, then one group of the remaining columns, each straight
// in the caller's arrays.
struct BatchCase {
    int dims, m, cols, nrhs;
    std::vector<int> groups;
};

// The recorded solve calls: one per group, each at its columns of b and x.
void expect_groups(const std::vector<int>& groups, int n, const double* b, const double* x)
{
    ASSERT_EQ(g_calls.size(), groups.size());
    std::size_t offset = 0;
    for (std::size_t k = 0; k < groups.size(); ++k) {
        EXPECT_EQ(g_calls[k].phase, 33);
        EXPECT_EQ(g_calls[k].nrhs, groups[k]);
        EXPECT_EQ(g_calls[k].b, static_cast<const void*>(b + offset));
        EXPECT_EQ(g_calls[k].x, static_cast<const void*>(x + offset));
        offset += static_cast<std::size_t>(groups[k]) * n;
    }
}

TEST_F(LSMsolverTest, RightHandSidesAreSolvedInGroupsOfNrhs)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const BatchCase cases[] = {
        {2, 12, 5, 2, {2, 2, 1}}, {2, 12, 1, 4, {1}},    {3, 6, 5, 2, {2, 2, 1}},
        {3, 6, 6, 3, {3, 3}},     {3, 7, 7, 3, {3, 3, 1}}, {2, 9, 3, 1, {1, 1, 1}},
    };
    for (const BatchCase& tc : cases) {
        SCOPED_TRACE("dims " + std::to_string(tc.dims) + ", m " + std::to_string(tc.m) +
                     ", cols " + std::to_string(tc.cols) + ", nrhs " + std::to_string(tc.nrhs));
        kt::Csr A = laplacian(tc.dims, tc.m);
        const std::vector<double> b = random_columns(rng, A.n, tc.cols);
        KelMatrix B, X;
        to_kel(b, A.n, tc.cols, B);
        to_kel(std::vector<double>(b.size(), 0.0), A.n, tc.cols, X);

        LSMsolver s(A.n, A.ia.data(), A.ja.data(), A.a.data(), tc.nrhs, 2);
        ASSERT_TRUE(s.factor());
        g_calls.clear();
        ASSERT_TRUE(s.solve(B, X));
        expect_groups(tc.groups, A.n, B.GetElements(), X.GetElements());
        EXPECT_EQ(from_kel(B), b);
        EXPECT_LT(kt::residual_ratio(A, from_kel(X), b, tc.cols), 30.0);

        // The flat-array overload batches the same way.
        std::vector<double> x(b.size(), 0.0), b_copy = b;
        g_calls.clear();
        ASSERT_TRUE(s.solve(tc.cols, b_copy.data(), x.data()));
        expect_groups(tc.groups, A.n, b_copy.data(), x.data());
        EXPECT_EQ(b_copy, b);
        EXPECT_LT(kt::residual_ratio(A, x, b, tc.cols), 30.0);
    }
}

TEST_F(LSMsolverTest, ShapeMismatchLeavesXUntouched)
{
    kt::Csr A = laplacian(2, 5);
    LSMsolver s(A.n, A.ia.data(), A.ja.data(), A.a.data(), 2, 1);
    ASSERT_TRUE(s.factor());
    g_calls.clear();
    struct Shapes {
        int b_rows, b_cols, x_rows, x_cols;
    };
    const Shapes cases[] = {{A.n, 3, A.n + 1, 3},
                            {A.n, 3, A.n - 1, 3},
                            {A.n, 3, A.n, 2},
                            {A.n - 1, 3, A.n - 1, 3}, // agreeing with each other, not with n
                            {A.n + 1, 1, A.n + 1, 1}};
    for (const Shapes& sh : cases) {
        KelMatrix B, X;
        B.Dimension(sh.b_rows, sh.b_cols, -1, -1);
        B.SetZero();
        X.Dimension(sh.x_rows, sh.x_cols, -1, -1);
        for (long long k = 0; k < X.GetStorageSize(); ++k)
            X.GetElements()[k] = 0.5 * k;
        const std::vector<double> before = kt::snapshot(X);
        EXPECT_FALSE(s.solve(B, X));
        EXPECT_EQ(X.GetRowDim(), sh.x_rows);
        EXPECT_EQ(X.GetColDim(), sh.x_cols);
        EXPECT_EQ(kt::snapshot(X), before);
    }
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(LSMsolverTest, AssignmentSharesTheFactorization)
{
    kt::Csr A = laplacian(3, 5);
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const std::vector<double> b = random_columns(rng, A.n, 2);
    std::vector<double> x(b.size(), 0.0);

    LSMsolver original(A.n, A.ia.data(), A.ja.data(), A.a.data(), 2, 2);
    ASSERT_TRUE(original.factor());
    const std::vector<void*> handle = g_calls.back().pt_out;
    {
        LSMsolver copy;
        copy = original;
        EXPECT_FALSE(copy.factor()); // the factored state came along
        std::vector<double> b_copy = b;
        ASSERT_TRUE(copy.solve(2, b_copy.data(), x.data()));
        EXPECT_EQ(g_calls.back().pt_in, handle);
        EXPECT_LT(kt::residual_ratio(A, x, b, 2), 30.0);
        const std::vector<void*> after_solve = g_calls.back().pt_out;
        EXPECT_TRUE(copy.clear()); // releases the one factorization both refer to
        EXPECT_EQ(g_calls.back().phase, -1);
        EXPECT_EQ(g_calls.back().pt_in, after_solve);
    }
    // original still believes it holds the released factorization: hand it a fresh, unfactored
    // solver's fields so that its destructor does not release again.
    const std::size_t calls = g_calls.size();
    {
        LSMsolver fresh(A.n, A.ia.data(), A.ja.data(), A.a.data(), 2, 2);
        original = fresh;
    }
    EXPECT_TRUE(original.factor()); // state 0 came along
    EXPECT_TRUE(original.clear());
    EXPECT_EQ(g_calls.size(), calls + 2);
}

TEST_F(LSMsolverTest, StructurallySymmetricTypeTakesTheWholeMatrix)
{
    // Convection-diffusion on a 20 x 20 grid: symmetric pattern, unsymmetric values.
    const int m = 20, n = m * m;
    std::vector<kt::Triplet> t;
    for (int k = 0; k < n; ++k) {
        const int i = k % m, j = k / m;
        t.push_back({k, k, 4.0});
        if (i > 0) t.push_back({k, k - 1, -1.3});
        if (i + 1 < m) t.push_back({k, k + 1, -0.7});
        if (j > 0) t.push_back({k, k - m, -1.2});
        if (j + 1 < m) t.push_back({k, k + m, -0.8});
    }
    kt::Csr A = kt::build_csr(n, t, false);
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const std::vector<double> b = random_columns(rng, n, 3);
    std::vector<double> x(b.size());
    LSMsolver s(n, A.ia.data(), A.ja.data(), A.a.data(), 3, 2, LSM_REAL_STRUCTURALLY_SYMMETRIC);
    ASSERT_TRUE(s.factor());
    ASSERT_TRUE(s.solve(3, std::vector<double>(b).data(), x.data()));
    EXPECT_LT(kt::residual_ratio(A, x, b, 3), 30.0);
}

// The factorization that fails intermittently under the wrong OpenMP runtime: every one of ten
// runs on two threads must succeed.
TEST_F(LSMsolverTest, LargeLaplacianOnTwoThreadsTenTimesInARow)
{
    ASSERT_EQ(LSMsolver::establish_numthreads(2), 2);
    kt::Csr A = laplacian(2, 201); // 40,401 unknowns
    ASSERT_GE(A.n, 40000);
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const std::vector<double> b = random_columns(rng, A.n, 2);
    for (int run = 0; run < 10; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        std::vector<double> x(b.size(), 0.0), b_copy = b;
        LSMsolver s(A.n, A.ia.data(), A.ja.data(), A.a.data(), 2, 2);
        g_calls.clear();
        ASSERT_TRUE(s.factor());
        EXPECT_EQ(g_calls[0].iparm[2], 2);
        ASSERT_TRUE(s.solve(2, b_copy.data(), x.data()));
        EXPECT_LT(kt::residual_ratio(A, x, b, 2), 30.0);
    }
}

// ---- the collection's real matrices ----

struct RealMatrix {
    const char* file;
    LSMsolver_mattype mtype;
};

std::string matrix_dir()
{
    return KELMATRIX_TEST_MATRICES;
}

class RealMatrices : public ::testing::TestWithParam<RealMatrix> {};

TEST_P(RealMatrices, SolveWithSmallResidual)
{
    const RealMatrix& p = GetParam();
    const std::string path = matrix_dir() + "/" + p.file;
    if (!std::ifstream(path))
        GTEST_SKIP() << path << " is not present";
    kt::Coordinate coo;
    ASSERT_TRUE(kt::read_matrix_market(path, coo));
    ASSERT_EQ(coo.symmetric, p.mtype != LSM_REAL_UNSYMMETRIC);
    const kt::Csr A = coo.symmetric ? kt::upper_csr(coo) : kt::full_csr(coo);

    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int cols = 3;
    const std::vector<double> b = random_columns(rng, A.n, cols);
    KelMatrix B, X;
    to_kel(b, A.n, cols, B);
    to_kel(std::vector<double>(b.size(), 0.0), A.n, cols, X);

    kt::Csr borrowed = A; // the solver may read but must not change the arrays
    LSMsolver s(A.n, borrowed.ia.data(), borrowed.ja.data(), borrowed.a.data(), 2, 5, p.mtype);
    ASSERT_TRUE(s.factor());
    ASSERT_TRUE(s.solve(B, X));
    EXPECT_LT(kt::residual_ratio(A, from_kel(X), b, cols), 30.0);
    EXPECT_EQ(borrowed.ia, A.ia);
    EXPECT_EQ(borrowed.ja, A.ja);
    EXPECT_EQ(borrowed.a, A.a);
}

// hangGlider_2, west0479 and bayer10 are left out: with PARDISO's scaling and weighted matching
// off, as init leaves them, their factorizations perturb hundreds to thousands of pivots and
// refinement does not recover (an error, or non-finite solutions reported as success).
INSTANTIATE_TEST_SUITE_P(
    Collection, RealMatrices,
    ::testing::Values(RealMatrix{"bcsstk01.mtx", kSpd}, RealMatrix{"494_bus.mtx", kSpd},
                      RealMatrix{"gr_30_30.mtx", kSpd}, RealMatrix{"1138_bus.mtx", kSpd},
                      RealMatrix{"bcsstk13.mtx", kSpd}, RealMatrix{"bcsstk15.mtx", kSpd},
                      RealMatrix{"fv1.mtx", kSpd},
                      RealMatrix{"tumorAntiAngiogenesis_2.mtx", LSM_REAL_SYMMETRIC_INDEFINITE},
                      RealMatrix{"olm1000.mtx", LSM_REAL_UNSYMMETRIC},
                      RealMatrix{"watt_2.mtx", LSM_REAL_UNSYMMETRIC},
                      RealMatrix{"sherman5.mtx", LSM_REAL_UNSYMMETRIC}),
    [](const ::testing::TestParamInfo<RealMatrix>& info) {
        std::string name = info.param.file;
        name = name.substr(0, name.find('.'));
        for (char& c : name)
            if (!std::isalnum(static_cast<unsigned char>(c)))
                c = '_';
        return name;
    });

// The reader's own contract, on a file written here.
TEST(MatrixMarket, SymmetricIntegerFileBecomesSortedUpperRowsWithEveryDiagonal)
{
    const std::string path = ::testing::TempDir() + "kel_mm_reader.mtx";
    {
        std::ofstream out(path);
        out << "%%MatrixMarket matrix coordinate integer symmetric\n% comment\n3 3 4\n"
               "3 1 -2\n1 1 5\n3 2 7\n3 3 1\n";
    }
    kt::Coordinate coo;
    ASSERT_TRUE(kt::read_matrix_market(path, coo));
    const kt::Csr A = kt::upper_csr(coo); // row 2's diagonal is absent from the file
    EXPECT_EQ(A.ia, (std::vector<int>{1, 3, 5, 6}));
    EXPECT_EQ(A.ja, (std::vector<int>{1, 3, 2, 3, 3}));
    EXPECT_EQ(A.a, (std::vector<double>{5, -2, 0, 7, 1}));
    EXPECT_EQ(kt::multiply(A, {1, 1, 1}, 1), (std::vector<double>{3, 7, 6}));
    std::remove(path.c_str());
}

} // namespace
