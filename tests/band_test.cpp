// KELMATRIX native band solver tests
// Exact cases the random sweeps (campaign.cpp) cannot pin: the band Cholesky's tolerance, dropped
// and zero pivots and fixed summation orders; what the cyclic band Cholesky reads and writes, its
// degenerate borders and Schur-only count; the bordered storage type's sizing and pattern; and
// the failures of the bordered solve driver.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "kelmatrix/band.h"
#include "test_util.h"

namespace {

const double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

kt::Dense matrix(int rows, int cols, std::vector<double> column_major)
{
    kt::Dense a(rows, cols);
    a.v = std::move(column_major);
    return a;
}

// Factors A with (bw, tol), expects the count, solves b and returns the solution.
kt::Dense factor_and_solve(KelMatrix& A, int bw, double tol, int count, const kt::Dense& b)
{
    EXPECT_EQ(Cholesky_factor(A, bw, tol), count);
    kt::KelOf B(b);
    Cholesky_subst(A, bw, B);
    return kt::from_kel(B);
}

// Exact cases: the whole array after factoring (its lower triangle never touched) and the
// solution, bit for bit.
// - The tolerance is strict and applies to d = U(i,i)^2, not to U(i,i): d == tol is accepted,
//   d = 4 >= 3 although sqrt(d) = 2 < 3; bw = 0 means the order.
// - With tol = 0 a zero pivot is accepted and the three diagonal tests part ways: the
//   factorization skips row 0 (> 0), the forward pass divides by it and lets it contribute
//   (>= 0), the backward pass gives its unknown 0 (> 0).
// - A dropped pivot (-1.0) keeps its row's input and is left out of every later sum; its
//   unknown is 0.
// - One rounding tie decides the result: the forward pass subtracts from k = i-1 down to 0, the
//   backward pass from k = i+1 up (either order reversed moves the solution by 2^-54).
TEST(BandCholesky, PinnedFactorsAndSolutions)
{
    const double t = std::ldexp(1.0, -54), up = std::nextafter(1.0, 2.0), e = 1e-12;
    const struct {
        int bw;
        double tol;
        int count;
        std::vector<double> a, u, b, x; // column-major; n from b
    } cases[] = {
        // d == tol accepted; d just below tol dropped; d = 4 >= 3 although sqrt(d) < 3, bw = 0
        {1, 1.0, 2, {4, 2, 2, 2}, {2, 2, 1, 1}, {6, 4}, {1, 1}},
        {1, up, 1, {4, 2, 2, 2}, {2, 2, 1, -1}, {6, 4}, {1.5, 0}},
        {0, 3.0, 1, {4}, {2}, {8}, {2}},
        // d = 0 dropped (7: the lower triangle); tol = 0: a zero pivot (4 - inf^2 would drop)
        {1, e, 1, {1, 7, 1, 1}, {1, 7, 1, -1}, {2, 2}, {2, 0}},
        {1, 0.0, 2, {0, 1, 1, 4}, {0, 1, kInf, 2}, {1, 1}, {0, -kInf}},
        // a dropped pivot keeps its row: U(2,2) = sqrt(2 - 1) without the dropped row's 1
        {2, e, 2, {1, 1, 1, 1, 1, 1, 1, 1, 2}, {1, 1, 1, 1, -1, 1, 1, 1, 1}, {2, 2, 3}, {1, 0, 1}},
        // forward order: y2 = (1 - t) - 1, not (1 - 1) - t; backward: x0 = (1 - t) - 1
        {2, e, 3, {1, 0, 1, 0, 1, 1, 1, 1, 3}, {1, 0, 1, 0, 1, 1, 1, 1, 1}, {1, t, 1}, {1, t, 0}},
        {2, e, 3, {1, t, 1, t, 1, t, 1, t, 2}, {1, t, 1, t, 1, t, 1, 0, 1}, {1, 1, 2}, {0, 1, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const int n = int(c.b.size());
        kt::KelOf A(matrix(n, n, c.a));
        const kt::Dense x = factor_and_solve(A, c.bw, c.tol, c.count, matrix(n, 1, c.b));
        EXPECT_TRUE(kt::same_bits(kt::snapshot(A), c.u));
        EXPECT_TRUE(kt::same_bits(x.v, c.x));
    }
}

// ---- cyclic (bordered) systems ----

// SPD: a band block of order nb and half-bandwidth bw, and a dense border of m.
kt::Dense bordered_spd(std::mt19937_64& rng, int nb, int bw, int m)
{
    kt::Dense a = kt::random_spd(rng, nb + m, nb + m); // diagonally dominant, so it stays SPD
    for (int j = 0; j < nb; ++j)
        for (int i = 0; i < nb; ++i)
            a(i, j) = std::abs(i - j) > bw ? 0.0 : a(i, j);
    return a;
}

// NaN in every entry that the bordered routines must neither read nor write: all but the upper
// band of A11, A12 and the upper triangle of A22.
bool is_read(int i, int j, int nb, int bw)
{
    return i <= j && (j >= nb || j - i <= bw);
}

KelMatrix& with_unread_nan(KelMatrix& m, int nb, int bw)
{
    for (int j = 0; j < m.GetColDim(); ++j)
        for (int i = 0; i < m.GetRowDim(); ++i)
            m(i, j) = is_read(i, j, nb, bw) ? m(i, j) : kNaN;
    return m;
}

// NaN stays exactly where nothing may be read or written, and a dropped band pivot is not
// counted: its row of W and its unknown are 0, and the rest solves the system without it. (Other
// storages and the bordered type are swept by the campaign and the fast-route test.)
TEST(CyclicCholesky, ReadsOnlyTheUpperBorderedBandAndDropsPivots)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int nb = 12, bw = 3, m = 2, n = nb + m, p = 4;
    kt::Dense a = bordered_spd(rng, nb, bw, m);
    a(p, p) = 0.0;
    const kt::Dense b = kt::random_dense(rng, n, 3);
    kt::KelOf A(a), B(b);
    with_unread_nan(A, nb, bw);
    EXPECT_EQ(cyclic_Cholesky_factor(A, bw, m, 1e-10), m);
    cyclic_Cholesky_subst(A, bw, m, B);
    for (int k = 0; k < n * n; ++k)
        EXPECT_EQ(is_read(k % n, k / n, nb, bw), !std::isnan(A(k % n, k / n))) << k;
    EXPECT_EQ(A(p, p), -1.0);
    for (int k = 0; k < m; ++k)
        EXPECT_EQ(A(p, nb + k), 0.0);
    const kt::Dense x = kt::from_kel(B);
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ(x(p, c), 0.0);
    EXPECT_LT(kt::residual_ratio(kt::remove_index(a, p, true), kt::remove_index(x, p, false),
                                 kt::remove_index(b, p, false)),
              30.0);
}

// m = 0 is the band Cholesky of the whole matrix and m = n the dense one, bit for bit; only the
// Schur complement's pivots are counted.
TEST(CyclicCholesky, EmptyAndFullBorder)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int n = 9, bw = 2;
    kt::Dense a = kt::random_spd(rng, n, bw);
    a(4, 4) = 0.0; // one dropped pivot
    const kt::Dense b = kt::random_dense(rng, n, 2);
    for (int m : {0, n}) {
        SCOPED_TRACE(m);
        kt::KelOf A(a), R(a), B(b);
        EXPECT_EQ(cyclic_Cholesky_factor(A, bw, m, 1e-10), m == 0 ? 0 : n - 1);
        const kt::Dense x = factor_and_solve(R, m == 0 ? bw : n, 1e-10, n - 1, b);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(A), kt::from_kel(R)));
        cyclic_Cholesky_subst(A, bw, m, B);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(B), x));
    }
}

// KelMatrixBordered: sizing rejects what it cannot hold and then changes nothing; each element
// of the pattern has its own address and both (i, j) and (j, i) reach it; outside the pattern a
// read gives 0 and a write is lost. (Its solves are swept by the campaign.)
TEST(BorderedStorage, SizingAndPattern)
{
    KelMatrixBordered A;
    ASSERT_EQ(A.DimensionBordered(8, 2, 2), KEL_BORDERED_OK);
    EXPECT_EQ(A.GetStorageSize(), 6 * 3 + 6 * 2 + 2 * 2);
    const double* block = A.GetElements();
    for (const auto& bad : {std::array<int, 4>{-1, 2, 1, KEL_BORDERED_NEGATIVE_SIZE},
                            {8, -2, 1, KEL_BORDERED_NEGATIVE_SIZE},
                            {3, 1, 4, KEL_BORDERED_BORDER_TOO_WIDE},
                            {1 << 30, 2, 2, KEL_BORDERED_TOO_LARGE}}) {
        EXPECT_EQ(A.DimensionBordered(bad[0], bad[1], bad[2]), bad[3]);
        EXPECT_STRNE(KelMatrixBordered_message(bad[3]), KelMatrixBordered_message(KEL_BORDERED_OK));
    }
    A.Dimension(1, 1, 0, 5); // border 2 > order 1: rejected
    EXPECT_TRUE(A.GetElements() == block && A.GetRowDim() == 8 && A.GetBorderSize() == 2);
    std::set<const double*> seen;
    for (int j = 0; j < 8; ++j)
        for (int i = 0; i <= j; ++i)
            if (j >= 6 || j - i <= 2) {
                A(i, j) = 1.0 + i + 10 * j;
                EXPECT_EQ(A(j, i), 1.0 + i + 10 * j);
                EXPECT_TRUE(seen.insert(&A(j, i)).second);
                EXPECT_TRUE(&A(i, j) >= block && &A(i, j) < block + A.GetStorageSize());
            }
    EXPECT_EQ(seen.size(), 6u * 3 - 3 + 6 * 2 + 3); // LAPACK's unused corner slots and (1, 0) left
    A(0, 5) = 7.0;
    EXPECT_EQ(A(5, 0), 0.0);
    EXPECT_EQ(static_cast<const KelMatrixBordered&>(A)(0, 5), 0.0);
}

// A11 = I and a border of 2^-27: every sum over the band block is 2^-54 + 2^-54 = 2^-53 exactly,
// while subtracting the terms one by one would round each half-ulp step back to 1. Both solvers
// form each sum first and subtract it once, and agree to the last bit.
TEST(Cyclic, SumsAreFormedFirstAndSubtractedOnce)
{
    const double e = std::ldexp(1.0, -27), u = 1.0 - std::ldexp(1.0, -53);
    const kt::Dense a = matrix(3, 3, {1, 0, e, 0, 1, e, e, e, 1}), b = matrix(3, 1, {e, e, 1});
    const kt::Dense want =
        matrix(3, 1, {-std::ldexp(1.0, -79), -std::ldexp(1.0, -79), 1.0 + std::ldexp(1.0, -52)});
    kt::KelOf A(a), B(b);
    EXPECT_EQ(cyclic_Cholesky_factor(A, 1, 1, 0.0), 1);
    EXPECT_EQ(A(2, 2), u); // sqrt(1 - 2^-53), not sqrt(1)
    cyclic_Cholesky_subst(A, 1, 1, B);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(B), want));
    KelMatrix X;
    ASSERT_TRUE(SolveBSP_Cyclic(kt::KelOf(a), kt::KelOf(b), 2, 1, X));
    EXPECT_TRUE(kt::same_bits(kt::from_kel(X), want));
}

// A zero band pivot, an indefinite Schur complement (beside a saddle point's negative definite
// one, which solves: the campaign sweeps it) and m = 0 fail and leave X exactly as it was.
TEST(SolveBSPCyclic, FailuresLeaveX)
{
    std::mt19937_64 rng(kt::seed() + 4);
    SCOPED_TRACE(kt::seed_note());
    const int nb = 12, kd = 2, m = 3, n = nb + m;
    kt::Dense saddle = bordered_spd(rng, nb, kd, m), zero_pivot = saddle, indefinite = saddle;
    for (int r = nb; r < n; ++r)
        for (int c = nb; c < n; ++c)
            saddle(r, c) = 0.0;
    zero_pivot(0, 0) = 0.0;
    indefinite(n - 1, n - 1) = -indefinite(n - 1, n - 1); // S(0, 0) > 0, S(2, 2) < 0
    const kt::Dense b = kt::random_dense(rng, n, 2), x0 = kt::random_dense(rng, 3, 1);
    kt::KelOf B(b);
    const std::pair<const kt::Dense*, int> failing[] = {
        {&zero_pivot, nb}, {&indefinite, nb}, {&saddle, n}};
    for (const auto& f : failing) {
        kt::KelOf Xf(x0);
        const double* x_elements = Xf.GetElements();
        EXPECT_FALSE(SolveBSP_Cyclic(kt::KelOf(*f.first), B, f.second, 2 * kd + 1, Xf));
        EXPECT_EQ(Xf.GetElements(), x_elements);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(Xf), x0));
    }
}

} // namespace
