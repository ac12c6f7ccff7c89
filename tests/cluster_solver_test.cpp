// KELMATRIX distributed sparse solver tests (run under mpiexec on 1 and 2 ranks)
// LSMclusterSolver on MKL's cluster engine: Laplacians and the collection's matrices split by
// rows (evenly, and with one rank holding a single row) or whole on rank 0, refactorization with
// new values, the call order it allows, and refusals and failures agreed by every rank.
//
// Every rank builds the whole test matrix (to check against it) but hands the solver only its
// own rows. Solutions are gathered and judged by ||B - A X||_1 / (||A||_1 ||X||_1 n eps) and by
// 2-norm residuals, computed here with plain loops. The executable has its own main: MPI is
// initialized around GoogleTest, rank 0 prints the usual report, other ranks print failures only.
#include <gtest/gtest.h>
#include <mpi.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "kelmatrix/sparse_mpi.h"
#include "matrix_market.h"
#include "test_util.h"

namespace {

int g_rank = 0, g_ranks = 1;
constexpr LSMsolver_mattype kSpd = LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE;
constexpr LSMsolver_mattype kInd = LSM_REAL_SYMMETRIC_INDEFINITE, kUns = LSM_REAL_UNSYMMETRIC;

/// Upper triangle of the 7-point Laplacian (diagonal 6) on an m x m x m grid.
kt::Csr laplacian3d(int m)
{
    const int n = m * m * m;
    std::vector<kt::Triplet> t;
    for (int k = 0; k < n; ++k) {
        t.push_back({k, k, 6.0});
        if (k % m + 1 < m)
            t.push_back({k, k + 1, -1.0});
        if (k / m % m + 1 < m)
            t.push_back({k, k + m, -1.0});
        if (k + m * m < n)
            t.push_back({k, k + m * m, -1.0});
    }
    return kt::build_csr(n, t, true);
}

/// One rank's rows first..last (1-based) of A, as the solver takes them.
struct Block {
    int first = 1, last = 0;
    std::vector<int> ia, ja;
    std::vector<double> a;
    int rows() const { return last - first + 1; }
};

Block rows_of(const kt::Csr& A, int first, int last)
{
    Block b;
    b.first = first;
    b.last = last;
    const int begin = A.ia[first - 1], end = A.ia[last];
    for (int r = first - 1; r <= last; ++r)
        b.ia.push_back(A.ia[r] - begin + 1);
    b.ja.assign(A.ja.begin() + (begin - 1), A.ja.begin() + (end - 1));
    b.a.assign(A.a.begin() + (begin - 1), A.a.begin() + (end - 1));
    return b;
}

enum Split { kEven, kSingleRowFirst, kSingleRowLast };

/// This rank's rows of an n-row matrix: even blocks, or one rank (the first or the last) with
/// a single row and the others sharing the rest evenly.
Block my_rows(const kt::Csr& A, Split split)
{
    const int n = A.n, p = g_ranks, r = g_rank;
    if (p == 1 || split == kEven)
        return rows_of(A, r * static_cast<long long>(n) / p + 1,
                       (r + 1) * static_cast<long long>(n) / p);
    const int single = split == kSingleRowFirst ? 0 : p - 1;
    const int offset = split == kSingleRowFirst ? 1 : 0, rest = n - 1, q = r - offset;
    if (r == single)
        return rows_of(A, split == kSingleRowFirst ? 1 : n, split == kSingleRowFirst ? 1 : n);
    return rows_of(A, offset + q * static_cast<long long>(rest) / (p - 1) + 1,
                   offset + (q + 1) * static_cast<long long>(rest) / (p - 1));
}

/// This rank's rows of each of cols columns of length n.
std::vector<double> local_part(const std::vector<double>& full, int n, int cols, const Block& b)
{
    std::vector<double> part;
    for (int c = 0; c < cols; ++c)
        part.insert(part.end(), full.begin() + c * n + b.first - 1, full.begin() + c * n + b.last);
    return part;
}

/// Every rank's rows of each column put back at their global rows, on every rank.
std::vector<double> gathered(const std::vector<double>& part, int n, int cols, const Block& b)
{
    std::vector<int> counts(g_ranks), starts(g_ranks);
    const int mine = b.rows(), start = b.first - 1;
    MPI_Allgather(&mine, 1, MPI_INT, counts.data(), 1, MPI_INT, MPI_COMM_WORLD);
    MPI_Allgather(&start, 1, MPI_INT, starts.data(), 1, MPI_INT, MPI_COMM_WORLD);
    std::vector<double> full(static_cast<std::size_t>(n) * cols);
    for (int c = 0; c < cols; ++c)
        MPI_Allgatherv(part.data() + c * mine, mine, MPI_DOUBLE, full.data() + c * n, counts.data(),
                       starts.data(), MPI_DOUBLE, MPI_COMM_WORLD);
    return full;
}

/// r = b - A x for one column (A's mirrored triangle included), plain loops.
std::vector<double> residual(const kt::Csr& A, const double* x, const double* b)
{
    std::vector<double> r(b, b + A.n);
    for (int i = 0; i < A.n; ++i)
        for (int k = A.ia[i] - 1; k < A.ia[i + 1] - 1; ++k) {
            const int j = A.ja[k] - 1;
            r[i] -= A.a[k] * x[j];
            if (A.upper_only && j != i)
                r[j] -= A.a[k] * x[i];
        }
    return r;
}

double norm2(const std::vector<double>& v)
{
    double s = 0.0;
    for (double e : v)
        s += e * e;
    return std::sqrt(s);
}

/// Solves A X = B (cols columns) split by rows or whole on rank 0; the gathered X on every rank,
/// empty when a call failed (on every rank: the results are agreed).
std::vector<double> solve_split(const kt::Csr& A, LSMsolver_mattype mtype, bool hard,
                                const std::vector<double>& b, int cols, Split split, bool on_root)
{
    kt::Csr whole = A; // init_on_root: read on rank 0 only
    Block mine = my_rows(A, split);
    LSMclusterSolver s;
    const bool configured = on_root
                                ? s.init_on_root(MPI_COMM_WORLD, A.n, whole.ia.data(),
                                                 whole.ja.data(), whole.a.data(), 2, 5, mtype)
                                : s.init(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(),
                                         mine.ja.data(), mine.a.data(), 2, 5, mtype);
    LSMsolver_settings robust;
    robust.scalingAndMatching = true;
    if (!configured || !s.clear() || (hard && !s.set_settings(robust)) || !s.factor())
        return {};
    if (on_root) {
        std::vector<double> b_copy = b, x(b.size());
        if (!s.solve(cols, g_rank == 0 ? b_copy.data() : nullptr, g_rank == 0 ? x.data() : nullptr))
            return {};
        EXPECT_TRUE(g_rank != 0 || b_copy == b); // b is read, not written
        MPI_Bcast(x.data(), static_cast<int>(x.size()), MPI_DOUBLE, 0, MPI_COMM_WORLD);
        return x;
    }
    std::vector<double> b_part = local_part(b, A.n, cols, mine), x_part(b_part.size());
    if (!s.solve(cols, b_part.data(), x_part.data()))
        return {};
    return gathered(x_part, A.n, cols, mine);
}

class LSMclusterSolverTest : public ::testing::Test {
protected:
    std::mt19937_64 rng{kt::seed()}; // the same seed on every rank: the same right-hand sides
};

// Split by rows, 3 right-hand sides in batches of 2: a backward-stable solution, and LSMsolver's
// on the whole matrix within what the two residuals allow: ||x1 - x2||_2 <= (||r1||_2 +
// ||r2||_2 + the rounding of the residuals themselves) / lambda_min, with lambda_min of the 7-
// point Laplacian in closed form and ||A||_2 <= 12.
TEST_F(LSMclusterSolverTest, LaplacianSplitByRowsAgreesWithLSMsolver)
{
    SCOPED_TRACE(kt::seed_note());
    const int m = 14, cols = 3;
    kt::Csr A = laplacian3d(m);
    const std::vector<double> b = kt::random_dense(rng, A.n, cols).v;
    const std::vector<double> x = solve_split(A, kSpd, false, b, cols, kEven, false);
    ASSERT_EQ(x.size(), b.size());
    EXPECT_LT(kt::residual_ratio(A, x, b, cols), 30.0);

    std::vector<double> b_copy = b, y(b.size());
    LSMsolver reference(A.n, A.ia.data(), A.ja.data(), A.a.data(), 2, 5);
    ASSERT_TRUE(reference.factor() && reference.solve(cols, b_copy.data(), y.data()));
    const double pi = 3.14159265358979323846, eps = std::numeric_limits<double>::epsilon();
    const double lambda_min = 12.0 * std::pow(std::sin(pi / (2.0 * (m + 1))), 2);
    for (int c = 0; c < cols; ++c) {
        const double* xc = x.data() + c * A.n;
        const double* yc = y.data() + c * A.n;
        std::vector<double> diff(xc, xc + A.n);
        for (int i = 0; i < A.n; ++i)
            diff[i] -= yc[i];
        const std::vector<double> x_only(xc, xc + A.n);
        const double rounding = 2.0 * 8.0 * eps * 12.0 * norm2(x_only);
        const double bound = (norm2(residual(A, xc, b.data() + c * A.n)) +
                              norm2(residual(A, yc, b.data() + c * A.n)) + rounding) /
                             lambda_min;
        EXPECT_LE(norm2(diff), bound) << "column " << c;
    }
}

// Every rank's memory share is reported; the distributed factor is held by all of them.
TEST_F(LSMclusterSolverTest, DiagnosticsAreAgreedAndMemoryIsPerRank)
{
    kt::Csr A = laplacian3d(10);
    Block mine = my_rows(A, kEven);
    LSMclusterSolver s(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(), mine.ja.data(),
                       mine.a.data(), 1, 0, kSpd);
    EXPECT_EQ(s.first_row(), mine.first);
    EXPECT_EQ(s.last_row(), mine.last);
    ASSERT_TRUE(s.factor());
    const LSMsolver_diagnostics d = s.diagnostics();
    EXPECT_EQ(d.error, 0);
    EXPECT_EQ(d.lastPhase, 12);
    // On a single rank the engine reads its memory figures from unset memory (they change with
    // glibc's MALLOC_PERTURB_, and come out negative under AddressSanitizer): checked on two.
    if (g_ranks > 1) {
        EXPECT_GT(d.peakFactorMemoryKB, 0);
    }
    int pivots[2] = {d.perturbedPivots, -d.perturbedPivots};
    MPI_Allreduce(MPI_IN_PLACE, pivots, 2, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
    EXPECT_EQ(pivots[0], -pivots[1]); // the same count on every rank
}

// Every matrix kind of the collection split across the ranks (even blocks, or whole on rank 0
// for every other one); the hard ones with scaling and weighted matching, as for LSMsolver.
TEST_F(LSMclusterSolverTest, CollectionMatricesSplitAcrossRanks)
{
    SCOPED_TRACE(kt::seed_note());
    const struct {
        const char* file;
        LSMsolver_mattype mtype;
        bool hard;
    } matrices[] = {{"bcsstk13", kSpd, false},
                    {"1138_bus", kSpd, false},
                    {"tumorAntiAngiogenesis_2", kInd, false},
                    {"hangGlider_2", kInd, true},
                    {"sherman5", kUns, false},
                    {"watt_2", kUns, false},
                    {"west0479", kUns, true},
                    {"bayer10", kUns, true}};
    bool on_root = false;
    for (const auto& p : matrices) {
        const std::string path = std::string(KELMATRIX_TEST_MATRICES) + "/" + p.file + ".mtx";
        SCOPED_TRACE(path + (on_root ? " (whole on rank 0)" : " (split by rows)"));
        kt::Coordinate coo;
        ASSERT_TRUE(kt::read_matrix_market(path, coo)); // missing data is a failure, not a skip
        const kt::Csr A = coo.symmetric ? kt::upper_csr(coo) : kt::full_csr(coo);
        const std::vector<double> b = kt::random_dense(rng, A.n, 2).v;
        const std::vector<double> x = solve_split(A, p.mtype, p.hard, b, 2, kEven, on_root);
        ASSERT_EQ(x.size(), b.size());
        EXPECT_LT(kt::residual_ratio(A, x, b, 2), 30.0);
        on_root = !on_root;
    }
}

// One rank holding a single row (first or last), on an SPD and an unsymmetric matrix.
TEST_F(LSMclusterSolverTest, UnevenSplitsWithASingleRow)
{
    SCOPED_TRACE(kt::seed_note());
    kt::Coordinate coo;
    ASSERT_TRUE(kt::read_matrix_market(std::string(KELMATRIX_TEST_MATRICES) + "/olm1000.mtx", coo));
    const kt::Csr cases[] = {laplacian3d(9), kt::full_csr(coo)};
    for (const kt::Csr& A : cases)
        for (Split split : {kSingleRowFirst, kSingleRowLast}) {
            SCOPED_TRACE(A.upper_only ? "Laplacian" : "olm1000");
            const std::vector<double> b = kt::random_dense(rng, A.n, 1).v;
            const std::vector<double> x =
                solve_split(A, A.upper_only ? kSpd : kUns, false, b, 1, split, false);
            ASSERT_EQ(x.size(), b.size());
            EXPECT_LT(kt::residual_ratio(A, x, b, 1), 30.0);
        }
}

// -1 -> clear -> 0 -> factor -> 2 -> solve -> 3 -> clear -> 0, as LSMsolver; every refusal is
// returned on every rank and changes nothing.
TEST_F(LSMclusterSolverTest, CallsAreRefusedOutOfOrderOnEveryRank)
{
    kt::Csr A = laplacian3d(6);
    Block mine = my_rows(A, kEven);
    const int rows = mine.rows();
    std::vector<double> b(rows, 1.0), x(rows, 0.0);
    LSMclusterSolver s; // not initialized: refuses without communicating
    EXPECT_FALSE(s.factor() || s.refactor() || s.solve(1, b.data(), x.data()));
    ASSERT_TRUE(s.init(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(), mine.ja.data(),
                       mine.a.data(), 1, 0, kSpd));
    EXPECT_FALSE(s.factor()); // init leaves -1: clear() is the way in
    EXPECT_TRUE(s.clear());
    EXPECT_FALSE(s.refactor() || s.solve(1, b.data(), x.data()));
    LSMsolver_settings md;
    md.ordering = LSM_ORDERING_MINIMUM_DEGREE; // valid for LSMsolver, absent from the engine
    LSMsolver_settings mixed;
    mixed.pivotPerturbation = g_rank == 0 ? 13 : 8; // ranks disagree (one rank: they agree)
    EXPECT_FALSE(s.set_settings(md));
    EXPECT_EQ(s.set_settings(mixed), g_ranks == 1);
    ASSERT_TRUE(s.factor());
    EXPECT_FALSE(s.factor() || s.set_settings(LSMsolver_settings()));
    EXPECT_FALSE(s.init(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(), mine.ja.data(),
                        mine.a.data(), 1, 0, kSpd));
    // A count that differs between ranks, a negative one, and a shape wrong on the last rank only.
    EXPECT_EQ(s.solve(g_rank == 0 ? 1 : 0, b.data(), x.data()), g_ranks == 1);
    EXPECT_FALSE(s.solve(-1, b.data(), x.data()));
    KelMatrix B, X;
    B.Dimension(rows, 1, -1, -1);
    X.Dimension(g_rank == g_ranks - 1 ? rows + 1 : rows, 1, -1, -1);
    X.SetZero();
    EXPECT_FALSE(s.solve(B, X));
    EXPECT_EQ(X(0, 0), 0.0); // untouched
    EXPECT_TRUE(s.solve(1, b.data(), x.data()) && s.refactor() && s.solve(1, b.data(), x.data()));
    EXPECT_TRUE(s.clear() && s.clear());
    EXPECT_FALSE(s.solve(1, b.data(), x.data()) || s.refactor());

    // Blocks that do not cover 1..n in rank order, or disagreeing orders, are refused by all.
    LSMclusterSolver t;
    const int gap = mine.first + (g_rank > 0 ? 1 : 0);
    EXPECT_EQ(t.init(MPI_COMM_WORLD, A.n, gap, mine.last, mine.ia.data(), mine.ja.data(),
                     mine.a.data(), 1, 0, kSpd),
              g_ranks == 1);
    EXPECT_FALSE(t.init(MPI_COMM_WORLD, A.n, mine.first, mine.last - (g_rank == g_ranks - 1),
                        mine.ia.data(), mine.ja.data(), mine.a.data(), 1, 0, kSpd));
    EXPECT_EQ(t.init(MPI_COMM_WORLD, A.n + g_rank, mine.first, mine.last, mine.ia.data(),
                     mine.ja.data(), mine.a.data(), 1, 0, kSpd),
              g_ranks == 1);
    EXPECT_FALSE(t.init(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(), mine.ja.data(),
                        mine.a.data(), 0, 0, kSpd)); // nrhs < 1
    EXPECT_FALSE(t.init(MPI_COMM_NULL, A.n, mine.first, mine.last, mine.ia.data(), mine.ja.data(),
                        mine.a.data(), 1, 0, kSpd));
}

// New values on the same pattern: refactor() and the residual against the new matrix. Then a
// non-finite value on the last rank only: refactor() is false on every rank, solve() refuses,
// and a refactor() with the value repaired recovers.
TEST_F(LSMclusterSolverTest, RefactorWithNewValues)
{
    SCOPED_TRACE(kt::seed_note());
    kt::Csr A = laplacian3d(8);
    Block mine = my_rows(A, kSingleRowFirst);
    const std::vector<double> b = kt::random_dense(rng, A.n, 1).v;
    std::vector<double> b_part = local_part(b, A.n, 1, mine), x_part(b_part.size());
    LSMclusterSolver s(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(), mine.ja.data(),
                       mine.a.data(), 1, 2, kSpd);
    ASSERT_TRUE(s.factor() && s.solve(1, b_part.data(), x_part.data()));
    // Halved, plus 1 on the diagonal (each row's first entry): in this rank's rows and the copy.
    const auto new_values = [](std::vector<double>& a, const std::vector<int>& ia) {
        for (double& v : a)
            v *= 0.5;
        for (std::size_t r = 0; r + 1 < ia.size(); ++r)
            a[ia[r] - 1] += 1.0;
    };
    new_values(mine.a, mine.ia);
    new_values(A.a, A.ia);
    ASSERT_TRUE(s.refactor() && s.solve(1, b_part.data(), x_part.data()));
    EXPECT_EQ(s.diagnostics().lastPhase, 33);
    EXPECT_LT(kt::residual_ratio(A, gathered(x_part, A.n, 1, mine), b, 1), 30.0);

    const double saved = mine.a.back();
    if (g_rank == g_ranks - 1)
        mine.a.back() = std::nan("");
    EXPECT_FALSE(s.refactor());
    EXPECT_EQ(s.diagnostics().error, -1);
    EXPECT_EQ(s.diagnostics().lastPhase, 22);
    EXPECT_EQ(s.input_problem().rank, g_ranks - 1);
    EXPECT_EQ(s.input_problem().check.code, LSM_CSR_NOT_FINITE);
    EXPECT_FALSE(s.solve(1, b_part.data(), x_part.data())); // state 1
    mine.a.back() = saved;
    EXPECT_TRUE(s.refactor() && s.solve(1, b_part.data(), x_part.data()));
    EXPECT_EQ(s.input_problem().rank, -1);
    EXPECT_LT(kt::residual_ratio(A, gathered(x_part, A.n, 1, mine), b, 1), 30.0);
}

// Malformed rows on one rank only would crash the engine on every rank: factor() is false on
// every rank instead, names the rank, row and rule, keeps state 0, and succeeds once repaired.
TEST_F(LSMclusterSolverTest, FailedFactorizationIsFalseOnEveryRank)
{
    kt::Csr A = laplacian3d(5);
    Block mine = my_rows(A, kEven);
    const int culprit = g_ranks - 1, row = mine.last - 1, position = mine.ia[mine.rows() - 2];
    LSMclusterSolver s(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(), mine.ja.data(),
                       mine.a.data(), 1, 0, kSpd);
    const int saved = mine.ja[position - 1];
    if (g_rank == culprit)
        mine.ja[position - 1] = A.n + 7; // the diagonal of that row: a column beyond n
    EXPECT_FALSE(s.factor());
    int culprit_row = row; // as the culprit numbers it
    MPI_Bcast(&culprit_row, 1, MPI_INT, culprit, MPI_COMM_WORLD);
    const LSMclusterSolver_input_problem p = s.input_problem();
    EXPECT_EQ(p.rank, culprit);
    EXPECT_EQ(p.check.code, LSM_CSR_COLUMN_OUT_OF_RANGE);
    EXPECT_EQ(p.check.row, culprit_row);
    EXPECT_STREQ(p.check.message, "column index outside 1..n");
    EXPECT_EQ(s.diagnostics().error, -1);
    mine.ja[position - 1] = saved;
    std::vector<double> b(mine.rows(), 1.0), x(mine.rows());
    EXPECT_TRUE(s.factor() && s.solve(1, b.data(), x.data())); // still 0: retried

    // The same with the matrix whole on rank 0: row 1's columns out of order there.
    kt::Csr whole = A;
    whole.ja[1] = g_rank == 0 ? 1 : whole.ja[1];
    whole.ja[0] = g_rank == 0 ? 2 : whole.ja[0]; // row 1: columns 2, 1
    LSMclusterSolver r;
    ASSERT_TRUE(r.init_on_root(MPI_COMM_WORLD, A.n, whole.ia.data(), whole.ja.data(),
                               whole.a.data(), 1, 0, kSpd) &&
                r.clear());
    EXPECT_FALSE(r.factor());
    EXPECT_EQ(r.input_problem().rank, 0);
    EXPECT_EQ(r.input_problem().check.code, LSM_CSR_COLUMNS_NOT_ASCENDING);
    EXPECT_EQ(r.input_problem().check.row, 1);
}

// Every refusal records its reason, the same on every rank, and the next accepted call clears it.
TEST_F(LSMclusterSolverTest, EachRefusalRecordsItsReasonOnEveryRank)
{
    kt::Csr A = laplacian3d(5);
    Block mine = my_rows(A, kEven);
    std::vector<double> b(mine.rows(), 1.0), x(mine.rows(), 0.0);
    const auto init = [&](LSMclusterSolver& s, MPI_Comm comm, int n, int first, int last,
                          int nrhs) {
        return s.init(comm, n, first, last, mine.ia.data(), mine.ja.data(), mine.a.data(), nrhs, 0,
                      kSpd);
    };
    const auto reason = [](const LSMclusterSolver& s) { return s.diagnostics().refusal; };
    LSMclusterSolver s;
    EXPECT_FALSE(s.set_settings(LSMsolver_settings()));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NOT_INITIALISED);
    EXPECT_FALSE(init(s, MPI_COMM_NULL, A.n, mine.first, mine.last, 1));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NO_COMMUNICATOR);
    EXPECT_FALSE(init(s, MPI_COMM_WORLD, A.n, mine.first, mine.last, 0));
    EXPECT_EQ(reason(s), LSM_REFUSAL_BAD_ARGUMENTS);
    // Rank 1 overlaps rank 0's last row (one rank: a block past n).
    EXPECT_FALSE(init(s, MPI_COMM_WORLD, A.n, g_rank == 0 ? 1 : mine.first - 1,
                      g_ranks == 1 ? A.n + 1 : mine.last, 1));
    EXPECT_EQ(reason(s), LSM_REFUSAL_BAD_ROW_BLOCKS);
    if (g_ranks > 1) {
        EXPECT_FALSE(init(s, MPI_COMM_WORLD, A.n, mine.first, mine.last, 1 + g_rank));
        EXPECT_EQ(reason(s), LSM_REFUSAL_RANKS_DIFFER);
    }
    ASSERT_TRUE(init(s, MPI_COMM_WORLD, A.n, mine.first, mine.last, 1));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NONE);
    EXPECT_FALSE(s.factor());
    EXPECT_EQ(reason(s), LSM_REFUSAL_NEEDS_CLEAR);
    LSMsolver_settings md;
    md.ordering = LSM_ORDERING_MINIMUM_DEGREE;
    EXPECT_FALSE(s.set_settings(md));
    EXPECT_EQ(reason(s), LSM_REFUSAL_BAD_SETTINGS);
    EXPECT_TRUE(s.clear());
    EXPECT_FALSE(s.solve(1, b.data(), x.data()));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NOT_FACTORED);
    ASSERT_TRUE(s.factor());
    EXPECT_FALSE(s.factor());
    EXPECT_EQ(reason(s), LSM_REFUSAL_HOLDS_FACTORIZATION);
    EXPECT_EQ(s.state(), LSMsolver_state::Factored);
    EXPECT_FALSE(s.solve(-1, b.data(), x.data()));
    EXPECT_EQ(reason(s), LSM_REFUSAL_SHAPE);
    if (g_ranks > 1) {
        EXPECT_FALSE(s.solve(g_rank == 0 ? 1 : 0, b.data(), x.data()));
        EXPECT_EQ(reason(s), LSM_REFUSAL_RANKS_DIFFER);
    }

    // A NaN in one rank's right-hand side: the engine solves, the solver refuses on every rank.
    std::vector<double> nan_b = b;
    if (g_rank == g_ranks - 1)
        nan_b.back() = std::nan("");
    EXPECT_FALSE(s.solve(1, nan_b.data(), x.data()));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NOT_FINITE);
    EXPECT_GT(s.diagnostics().nonFiniteSolutions, 0);
    EXPECT_EQ(s.state(), LSMsolver_state::Factored); // as it was
    EXPECT_TRUE(s.solve(1, b.data(), x.data()));
    EXPECT_EQ(reason(s), LSM_REFUSAL_NONE);
    EXPECT_EQ(s.diagnostics().nonFiniteSolutions, 0);
}

// A type-2 matrix that is not positive definite (I minus the grid's adjacency: positive
// diagonal, eigenvalues 1 - 2(cos + cos + cos) of both signs) is never solved to true with a
// non-finite solution on any rank.
TEST_F(LSMclusterSolverTest, NoTrueWithANonFiniteSolution)
{
    kt::Csr A = laplacian3d(6);
    for (int i = 0; i < A.n; ++i)
        A.a[A.ia[i] - 1] = 1.0; // each row's first entry is its diagonal
    Block mine = my_rows(A, kEven);
    std::vector<double> b(mine.rows(), 1.0), x(mine.rows(), 0.0);
    LSMclusterSolver s(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(), mine.ja.data(),
                       mine.a.data(), 1, 0, kSpd);
    if (!s.factor()) {
        EXPECT_NE(s.diagnostics().error, 0);
        return;
    }
    const bool solved = s.solve(1, b.data(), x.data());
    int finite = 1;
    for (double v : x)
        finite &= std::isfinite(v) ? 1 : 0;
    MPI_Allreduce(MPI_IN_PLACE, &finite, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
    EXPECT_TRUE(!solved || finite == 1);
    if (!solved && finite == 0) { // the engine's solve went through: the solver refused it
        EXPECT_EQ(s.diagnostics().refusal, LSM_REFUSAL_NOT_FINITE);
    }
}

// Factored solvers in a growing vector are moved, and each still solves; the moved-from ones
// communicate with nobody when destroyed.
TEST_F(LSMclusterSolverTest, AGrowingVectorOfFactoredSolvers)
{
    kt::Csr A = laplacian3d(5);
    Block mine = my_rows(A, kEven);
    const std::vector<double> b = kt::random_dense(rng, A.n, 1).v;
    std::vector<double> b_part = local_part(b, A.n, 1, mine), x_part(b_part.size());
    std::vector<LSMclusterSolver> solvers;
    for (int k = 0; k < 5; ++k) {
        solvers.emplace_back(MPI_COMM_WORLD, A.n, mine.first, mine.last, mine.ia.data(),
                             mine.ja.data(), mine.a.data(), 1, 0, kSpd);
        ASSERT_TRUE(solvers.back().factor());
    }
    for (LSMclusterSolver& s : solvers) {
        ASSERT_TRUE(s.solve(1, b_part.data(), x_part.data()));
        EXPECT_LT(kt::residual_ratio(A, gathered(x_part, A.n, 1, mine), b, 1), 30.0);
    }
    LSMclusterSolver moved(std::move(solvers[2]));
    EXPECT_EQ(solvers[2].state(), LSMsolver_state::Unset);
    EXPECT_EQ(solvers[2].first_row(), 0);
    EXPECT_TRUE(moved.solve(1, b_part.data(), x_part.data()));
}

// The even split covers 1..n in rank order, blocks differing by one row at most; the gather puts
// a solve's distributed solutions whole on rank 0, and refuses on every rank what does not tile.
TEST_F(LSMclusterSolverTest, SplitRowsAndGatherTheSolution)
{
    for (const int n : {1, 7, 64, 1000})
        for (int ranks = 1; ranks <= 9; ++ranks) {
            int expected_first = 1, smallest = n, largest = 0;
            for (int r = 0; r < ranks; ++r) {
                int first = -5, last = -5;
                const bool split = LSMclusterSolver_split_rows(n, ranks, r, first, last);
                ASSERT_EQ(split, n >= ranks) << n << " over " << ranks;
                if (!split) {
                    EXPECT_EQ(first, -5);
                    continue;
                }
                EXPECT_EQ(first, expected_first);
                smallest = std::min(smallest, last - first + 1);
                largest = std::max(largest, last - first + 1);
                expected_first = last + 1;
            }
            if (n >= ranks) {
                EXPECT_TRUE(expected_first == n + 1 && largest - smallest <= 1)
                    << n << ", " << ranks;
            }
        }
    int first = 0, last = 0;
    EXPECT_FALSE(LSMclusterSolver_split_rows(5, 2, 2, first, last) ||
                 LSMclusterSolver_split_rows(5, 0, 0, first, last));

    kt::Csr A = laplacian3d(6);
    ASSERT_TRUE(LSMclusterSolver_split_rows(A.n, g_ranks, g_rank, first, last));
    Block mine = rows_of(A, first, last);
    const std::vector<double> b = kt::random_dense(rng, A.n, 2).v;
    std::vector<double> b_part = local_part(b, A.n, 2, mine), x_part(b_part.size());
    LSMclusterSolver s(MPI_COMM_WORLD, A.n, first, last, mine.ia.data(), mine.ja.data(),
                       mine.a.data(), 2, 0, kSpd);
    ASSERT_TRUE(s.factor() && s.solve(2, b_part.data(), x_part.data()));
    std::vector<double> whole(g_rank == 0 ? b.size() : 0, -1.0);
    ASSERT_TRUE(LSMclusterSolver_gather(MPI_COMM_WORLD, A.n, first, last, 2, x_part.data(),
                                        g_rank == 0 ? whole.data() : nullptr));
    const std::vector<double> reference = gathered(x_part, A.n, 2, mine); // collective
    if (g_rank == 0) {
        EXPECT_EQ(whole, reference); // the tests' own gather, bit for bit
    }
    EXPECT_FALSE(LSMclusterSolver_gather(MPI_COMM_WORLD, A.n, first, last, 1 + g_rank,
                                         x_part.data(), whole.data()) &&
                 g_ranks > 1);
    EXPECT_FALSE(LSMclusterSolver_gather(MPI_COMM_WORLD, A.n + 1, first, last, 1, x_part.data(),
                                         whole.data()));
    EXPECT_FALSE(LSMclusterSolver_gather(MPI_COMM_WORLD, A.n, first, last, 1, x_part.data(),
                                         nullptr)); // rank 0 has nowhere to put them
}

// Rank 0 prints GoogleTest's report; the others print only what fails, marked with their rank.
class FailuresOnly : public ::testing::EmptyTestEventListener {
    void OnTestPartResult(const ::testing::TestPartResult& r) override
    {
        if (r.failed())
            std::printf("[rank %d] %s:%d: %s\n", g_rank, r.file_name() ? r.file_name() : "?",
                        r.line_number(), r.summary());
    }
};

} // namespace

int main(int argc, char** argv)
{
    MPI_Init(&argc, &argv);
    ::testing::InitGoogleTest(&argc, argv);
    MPI_Comm_rank(MPI_COMM_WORLD, &g_rank);
    MPI_Comm_size(MPI_COMM_WORLD, &g_ranks);
    if (g_rank != 0) {
        ::testing::TestEventListeners& listeners = ::testing::UnitTest::GetInstance()->listeners();
        delete listeners.Release(listeners.default_result_printer());
        listeners.Append(new FailuresOnly);
    }
    int failed = RUN_ALL_TESTS();
    MPI_Allreduce(MPI_IN_PLACE, &failed, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
    MPI_Finalize();
    return failed;
}
