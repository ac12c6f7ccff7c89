// KELMATRIX Kronecker solver tests
// What the campaign's sweeps (campaign.cpp) do not reach: the copy rule and its failures, the
// trailing columns, zero diagonals of U1 beside dropped ones, the band-width defaults and q = 0.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

const double kTol = 1e-8; // Cholesky_factor tolerance on d = U(i,i)^2

// Columns first .. first + count - 1 of x as a matrix; with nA > 0, its groups of nA columns
// (nB = x.rows each) as columns of length nA * nB instead.
kt::Dense columns(const kt::Dense& x, int first, int count, int nA = 0)
{
    const int groups = nA > 0 ? count / nA : count, len = nA > 0 ? nA * x.rows : x.rows;
    kt::Dense v(len, groups);
    std::copy(x.v.begin() + first * x.rows, x.v.begin() + (first + count) * x.rows, v.v.begin());
    return v;
}

// Two groups and a trailing column, with copies and without. On success the groups solve
// (A kron B) y = x; the trailing column keeps its input with copies and gets B^-1 times it
// without, when A and B are left holding their factors. B failing (the first solve) or A failing
// (the second) gives false; with copies A, B and X are untouched, without them the failure of
// the second solve leaves B^-1 X in X.
TEST(SolveKronecker, CopyRuleTrailingColumnsAndFailures)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int cases[][5] = {{5, 4, 1, 2, 0}, {4, 4, 3, 3, 0}, {4, 3, 1, 1, 1}, {4, 3, 1, 1, 2}};
    for (const auto& c : cases) // nA nB kdA kdB, then 0: definite, 1: B not, 2: A not
        for (bool copy : {true, false}) {
            const int nA = c[0], nB = c[1], cols = 2 * nA + 1;
            SCOPED_TRACE(testing::Message() << nA << "x" << nB << " " << c[4] << " " << copy);
            kt::Dense a = kt::random_spd(rng, nA, c[2]), b = kt::random_spd(rng, nB, c[3]);
            if (c[4] > 0)
                (c[4] == 2 ? a : b)(1, 1) = -1.0;
            const kt::Dense x = kt::random_dense(rng, nB, cols);
            KelMatrixBanded A, B;
            KelMatrix X;
            kt::to_band_upper(a, c[2], A);
            kt::to_band_upper(b, c[3], B);
            kt::to_kel(x, X);
            const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
            ASSERT_EQ(Solve_Kronecker(A, B, X, copy), c[4] == 0);
            const kt::Dense y = kt::from_kel(X);
            const int first = c[4] == 0 ? cols - 1 : 0, rest = cols - first; // not solved with A
            if (copy) {
                EXPECT_TRUE(kt::snapshot(A) == a0 && kt::snapshot(B) == b0);
                EXPECT_EQ(columns(y, first, rest).v, columns(x, first, rest).v);
            } else if (c[4] != 1) {
                EXPECT_LT(kt::residual_ratio(b, columns(y, first, rest), columns(x, first, rest)),
                          30.0);
            }
            if (c[4] == 0) {
                EXPECT_LT(kt::residual_ratio(kt::kronecker(a, b), columns(y, 0, 2 * nA, nA),
                                             columns(x, 0, 2 * nA, nA)),
                          30.0);
                EXPECT_TRUE(copy || kt::cholesky_ratio(kt::upper_of(A, c[2]), a) < 30.0);
            }
        }
}

// A -1.0 diagonal of U1 (dropped pivot) zeroes its block in both substitutions (that the rest
// then solves is swept by the campaign's deficient cases); a 0.0 diagonal is divided by in the
// lower substitution (non-finite block) and zeroes the block in the upper one, exactly like -1.0.
TEST(KroneckerSubstitute, DroppedAndZeroDiagonalsOfU1)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int p = 5, q = 3, drop = 2;
    // a1 repeats row and column 1 of s at 2: semidefinite, and without row 2 exactly s.
    const kt::Dense s = kt::random_spd(rng, p - 1, p - 2), a2 = kt::random_spd(rng, q, 1);
    const auto from = [](int r) { return r < drop ? r : r - 1; };
    kt::Dense a1(p, p);
    for (int j = 0; j < p; ++j)
        for (int i = 0; i < p; ++i)
            a1(i, j) = s(from(i), from(j));
    const kt::Dense x = kt::random_dense(rng, p * q, 2);
    KelMatrix U1, U2, U1z, X, Xz;
    kt::to_kel(a1, U1);
    kt::to_kel(a2, U2);
    ASSERT_EQ(Cholesky_factor(U1, p, kTol), p - 1);
    ASSERT_EQ(Cholesky_factor(U2, 1, kTol), q);
    ASSERT_EQ(U1(drop, drop), -1.0);
    U1z = U1;
    U1z(drop, drop) = 0.0;
    kt::to_kel(x, X);
    kt::to_kel(x, Xz);
    kronecker_lower_substitute(p, 1, U1, U2, X);
    kronecker_lower_substitute(p, 1, U1z, U2, Xz);
    for (int k = 0; k < p * q * 2; ++k) {
        const bool in_block = k % (p * q) / q == drop;
        EXPECT_TRUE(in_block ? X.GetElements()[k] == 0.0 && !std::isfinite(Xz.GetElements()[k])
                             : X.GetElements()[k] == Xz.GetElements()[k])
            << k;
    }
    kt::to_kel(kt::from_kel(X), Xz); // the lower result, for the upper with a 0.0 diagonal
    kronecker_upper_substitute(p, 1, U1, U2, X);
    kronecker_upper_substitute(p, 1, U1z, U2, Xz);
    EXPECT_EQ(kt::snapshot(Xz), kt::snapshot(X));
}

// w1 <= 0 means U1's order; w2 <= 0 means U2's order in the lower substitution but U1's in the
// upper one. The factors are full but record an upper band width of 1, which must not be used.
TEST(KroneckerSubstitute, NonPositiveWidthsTakeTheirDefaults)
{
    std::mt19937_64 rng(kt::seed() + 4);
    SCOPED_TRACE(kt::seed_note());
    const int p = 3, q = 7;
    const kt::Dense x = kt::random_dense(rng, p * q, 2);
    KelMatrix U1, U2;
    U1.Dimension(p, p, 0, 1);
    U2.Dimension(q, q, 0, 1);
    kt::fill(U1, kt::random_spd(rng, p, p - 1));
    kt::fill(U2, kt::random_spd(rng, q, q - 1));
    ASSERT_EQ(Cholesky_factor(U1, p, kTol), p);
    ASSERT_EQ(Cholesky_factor(U2, q, kTol), q);
    const auto run = [&](bool lower, int w1, int w2) {
        KelMatrix X;
        kt::to_kel(x, X);
        (lower ? kronecker_lower_substitute : kronecker_upper_substitute)(w1, w2, U1, U2, X);
        return kt::snapshot(X);
    };
    EXPECT_EQ(run(true, 0, -3), run(true, p, q));
    EXPECT_EQ(run(false, 0, 0), run(false, p, p));
    EXPECT_NE(run(false, 0, 0), run(false, p, q));
}

TEST(KroneckerSubstitute, AnEmptyInnerFactorLeavesNothingToDo)
{
    KelMatrix U1, U2, X;
    U1.Dimension(2, 2, -1, -1);
    U1.SetIdentity();
    U1(0, 1) = 0.5;
    U2.Dimension(0, 0, -1, -1); // q = 0: X has no rows, and the ring buffer is empty
    X.Dimension(0, 3, -1, -1);
    const std::vector<double> u1 = kt::snapshot(U1);
    const double* const x = X.GetElements();
    kronecker_lower_substitute(1, 1, U1, U2, X); // returns: nothing is divided by q or read
    kronecker_upper_substitute(1, 1, U1, U2, X);
    EXPECT_EQ(kt::snapshot(U1), u1); // the factors are only read
    EXPECT_EQ(X.GetElements(), x);   // X keeps its block: never re-dimensioned or re-allocated
}

} // namespace
