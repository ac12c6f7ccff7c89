// KELMATRIX linear solve tests
// Residual ratios of the four solves, the SPD copy rule, upper-triangle reads and failures.
#include <gtest/gtest.h>

#include <random>

#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

TEST(LinearSolves, GeneralDenseAndBandSolvesWorkOnCopies)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int n = 11, nrhs = 3, kl = 2, ku = 1;
    const kt::Dense a = kt::random_dense(rng, n, n), b = kt::random_dense(rng, n, nrhs);
    KelMatrix A, B, X;
    kt::to_kel(a, A);
    kt::to_kel(b, B);
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    ASSERT_TRUE(Solve(A, B, X));
    ASSERT_EQ(X.GetRowDim(), n);
    ASSERT_EQ(X.GetColDim(), nrhs);
    EXPECT_LT(kt::residual_ratio(a, kt::from_kel(X), b), 30.0);
    EXPECT_EQ(kt::snapshot(A), a0);
    EXPECT_EQ(kt::snapshot(B), b0);

    kt::Dense g(n, n);
    KelMatrixBanded G;
    G.Dimension(n, n, kl, ku);
    G.SetZero();
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - ku); i <= std::min(n - 1, j + kl); ++i)
            G(i, j) = g(i, j) = a(i, j);
    const auto g0 = kt::snapshot(G);
    ASSERT_TRUE(Solve(G, B, X));
    EXPECT_LT(kt::residual_ratio(g, kt::from_kel(X), b), 30.0);
    EXPECT_EQ(kt::snapshot(G), g0);
}

TEST(LinearSolves, SolveSPReadsOnlyTheUpperTriangleAndCopiesForAnyNonZero)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int n = 7, nrhs = 3;
    const kt::Dense a = kt::random_spd(rng, n, n - 1), b = kt::random_dense(rng, n, nrhs);
    for (int copy : {1, 2, -1, 0}) {
        SCOPED_TRACE(copy);
        KelMatrix A, B, X;
        kt::to_kel_upper(a, A);
        A.SetSymmetric(true); // the flags claim lower storage; the solve must not care
        A.SetUsesLower();
        kt::to_kel(b, B);
        const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
        ASSERT_TRUE(SolveSP(A, B, X, copy));
        EXPECT_LT(kt::residual_ratio(a, kt::from_kel(X), b), 30.0);
        if (copy != 0) {
            EXPECT_EQ(kt::snapshot(A), a0);
            EXPECT_EQ(kt::snapshot(B), b0);
            continue;
        }
        EXPECT_EQ(kt::snapshot(B), kt::snapshot(X));
        A.SetSymmetric(false);
        EXPECT_LT(kt::cholesky_ratio(kt::upper_of(A), a), 30.0);
        for (int j = 0; j < n; ++j)
            for (int i = j + 1; i < n; ++i)
                EXPECT_EQ(A(i, j), kt::kGarbage);
    }
}

TEST(LinearSolves, SolveBSPMatchesTheDenseSPDSolve)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int n = 12, kd = 3, nrhs = 2;
    const kt::Dense a = kt::random_spd(rng, n, kd), b = kt::random_dense(rng, n, nrhs);
    KelMatrix Ad, B, Xd, X;
    kt::to_kel(a, Ad);
    kt::to_kel(b, B);
    ASSERT_TRUE(SolveSP(Ad, B, Xd, 1));
    for (int copy : {2, 0}) {
        SCOPED_TRACE(copy);
        KelMatrixBanded A;
        kt::to_band_upper(a, kd, A);
        kt::to_kel(b, B);
        const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
        ASSERT_TRUE(SolveBSP(A, B, X, copy));
        EXPECT_LT(kt::residual_ratio(a, kt::from_kel(X), b), 30.0);
        for (int k = 0; k < n * nrhs; ++k)
            EXPECT_NEAR(X.GetElements()[k], Xd.GetElements()[k], 1e-13);
        if (copy != 0) {
            EXPECT_EQ(kt::snapshot(A), a0);
            EXPECT_EQ(kt::snapshot(B), b0);
        } else {
            EXPECT_EQ(kt::snapshot(B), kt::snapshot(X));
            EXPECT_LT(kt::cholesky_ratio(kt::upper_of(A, kd), a), 30.0);
        }
    }
}

TEST(LinearSolves, FailuresLeaveXUntouched)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int n = 6;
    kt::Dense a = kt::random_spd(rng, n, 2);
    a(3, 3) = -1.0; // leading minor of order 4 is indefinite
    const kt::Dense b = kt::random_dense(rng, n, 2);
    KelMatrix A, B, X;
    kt::to_kel(b, B);
    kt::to_kel(kt::Dense(2, 5, 7.0), X);
    const auto b0 = kt::snapshot(B), x0 = kt::snapshot(X);

    for (int copy : {1, 0}) {
        SCOPED_TRACE(copy);
        KelMatrix Bc;
        kt::to_kel(b, Bc);
        kt::to_kel(a, A);
        const auto a0 = kt::snapshot(A);
        EXPECT_FALSE(SolveSP(A, Bc, X, copy));
        EXPECT_EQ(kt::snapshot(A) == a0, copy == 1); // in place: A holds a partial factor
        KelMatrixBanded Ab;
        kt::to_band_upper(a, 2, Ab);
        const auto ab0 = kt::snapshot(Ab);
        EXPECT_FALSE(SolveBSP(Ab, Bc, X, copy));
        EXPECT_EQ(kt::snapshot(Ab) == ab0, copy == 1);
        if (copy == 1) {
            EXPECT_EQ(kt::snapshot(Bc), b0);
        }
    }

    kt::Dense s = kt::random_dense(rng, n, n);
    for (int i = 0; i < n; ++i)
        s(i, 2) = 0.0; // an exactly zero column gives an exactly zero pivot
    kt::to_kel(s, A);
    const auto s0 = kt::snapshot(A);
    EXPECT_FALSE(Solve(A, B, X));
    EXPECT_EQ(kt::snapshot(A), s0);
    KelMatrixBanded S;
    S.Dimension(n, n, 1, 1);
    S.SetIdentity();
    S(2, 2) = 0.0;
    EXPECT_FALSE(Solve(S, B, X));

    EXPECT_EQ(X.GetRowDim(), 2);
    EXPECT_EQ(kt::snapshot(X), x0);
    EXPECT_EQ(kt::snapshot(B), b0);
}

} // namespace
