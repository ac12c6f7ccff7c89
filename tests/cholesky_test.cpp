// KELMATRIX Cholesky family tests
// Reconstructions A = U^T U, residual ratios, A * inv(A) = I, and each function's copy rule.
#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

TEST(Cholesky, FactorizationsCopyOnlyForOne)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int n = 9, kd = 2;
    kt::Dense a = kt::random_spd(rng, n, kd);
    for (int copy : {1, 2, 0}) {
        SCOPED_TRACE(copy);
        KelMatrix A;
        kt::to_kel_upper(a, A);
        ASSERT_EQ(spdMatrixCholeskyFactorization(A, copy), 0);
        EXPECT_LT(kt::cholesky_ratio(kt::upper_of(A), a), 30.0);
        EXPECT_EQ(A(n - 1, 0), kt::kGarbage); // the strictly lower triangle is never touched
        KelMatrixBanded Ab;
        kt::to_band_upper(a, kd, Ab);
        ASSERT_TRUE(spdBandMatrixCholeskyFactorization(Ab, copy));
        EXPECT_LT(kt::cholesky_ratio(kt::upper_of(Ab, kd), a), 30.0);
    }

    a(4, 4) = -1.0; // leading minor of order 5 is indefinite
    for (int copy : {1, 2}) {
        SCOPED_TRACE(copy);
        KelMatrix A;
        kt::to_kel_upper(a, A);
        const auto a0 = kt::snapshot(A);
        EXPECT_EQ(spdMatrixCholeskyFactorization(A, copy), 5);
        EXPECT_EQ(kt::snapshot(A) == a0, copy == 1); // 2 factors in place, partially
        KelMatrixBanded Ab;
        kt::to_band_upper(a, kd, Ab);
        const auto ab0 = kt::snapshot(Ab);
        EXPECT_FALSE(spdBandMatrixCholeskyFactorization(Ab, copy));
        EXPECT_EQ(kt::snapshot(Ab) == ab0, copy == 1);
    }
}

TEST(Cholesky, SubstitutionsCopyBForAnyNonZeroAndNeverTouchTheFactor)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int n = 10, kd = 3, nrhs = 3;
    const kt::Dense a = kt::random_spd(rng, n, kd), b = kt::random_dense(rng, n, nrhs);
    KelMatrix A, B, Xsp, U;
    kt::to_kel(a, A);
    kt::to_kel(b, B);
    ASSERT_TRUE(SolveSP(A, B, Xsp, 1));
    KelMatrixBanded Ub;
    kt::to_kel_upper(a, U);
    kt::to_band_upper(a, kd, Ub);
    ASSERT_EQ(spdMatrixCholeskyFactorization(U, 0), 0);
    ASSERT_TRUE(spdBandMatrixCholeskyFactorization(Ub, 0));
    const auto u0 = kt::snapshot(U), ub0 = kt::snapshot(Ub);

    for (int copy : {2, 0}) {
        SCOPED_TRACE(copy);
        KelMatrix Bd, Bb, Xd, Xb;
        kt::to_kel(b, Bd);
        kt::to_kel(b, Bb);
        ASSERT_EQ(spdCholeskySubstitute(U, Bd, Xd, copy), 0);
        ASSERT_TRUE(spdBandCholeskySubstitute(Ub, Bb, Xb, copy));
        for (const KelMatrix* X : {&Xd, &Xb}) {
            ASSERT_EQ(X->GetRowDim(), n);
            ASSERT_EQ(X->GetColDim(), nrhs);
            EXPECT_LT(kt::residual_ratio(a, kt::from_kel(*X), b), 30.0);
            for (int k = 0; k < n * nrhs; ++k)
                EXPECT_NEAR(X->GetElements()[k], Xsp.GetElements()[k], 1e-13);
        }
        EXPECT_EQ(kt::snapshot(Bd), copy ? b.v : kt::snapshot(Xd));
        EXPECT_EQ(kt::snapshot(Bb), copy ? b.v : kt::snapshot(Xb));
    }
    EXPECT_EQ(kt::snapshot(U), u0);
    EXPECT_EQ(kt::snapshot(Ub), ub0);
}

TEST(Cholesky, InverseIsExactlySymmetricAndInvertsA)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int n = 8;
    const kt::Dense a = kt::random_spd(rng, n, n - 1);
    for (int copy : {1, 2}) {
        SCOPED_TRACE(copy);
        KelMatrix A;
        kt::to_kel_upper(a, A);
        ASSERT_EQ(spdMatrixCholeskyFactorization(A, 0), 0);
        ASSERT_EQ(symmPositiveDefiniteInverse(A, copy), 0);
        const kt::Dense inv = kt::from_kel(A);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < j; ++i)
                EXPECT_EQ(inv(j, i), inv(i, j)); // bit for bit
        kt::Dense r = kt::multiply(a, inv);
        for (int i = 0; i < n; ++i)
            r(i, i) -= 1.0;
        const double eps = std::numeric_limits<double>::epsilon();
        EXPECT_LT(kt::norm1(r) / (kt::norm1(a) * kt::norm1(inv) * n * eps), 30.0);
    }

    KelMatrix one;
    kt::to_kel(kt::Dense(1, 1, 4.0), one);
    ASSERT_EQ(spdMatrixCholeskyFactorization(one, 1), 0);
    EXPECT_EQ(one(0, 0), 2.0);
    ASSERT_EQ(symmPositiveDefiniteInverse(one, 1), 0);
    EXPECT_EQ(one(0, 0), 0.25);

    // A factor with a zero diagonal: no write-back and no mirroring.
    kt::Dense u = kt::random_spd(rng, n, n - 1);
    u(2, 2) = 0.0;
    for (int copy : {1, 2}) {
        SCOPED_TRACE(copy);
        KelMatrix A;
        kt::to_kel_upper(u, A);
        const auto a0 = kt::snapshot(A);
        EXPECT_EQ(symmPositiveDefiniteInverse(A, copy), 3);
        if (copy == 1) {
            EXPECT_EQ(kt::snapshot(A), a0);
        }
        EXPECT_EQ(A(n - 1, 0), kt::kGarbage);
    }
}

TEST(Cholesky, TriangularBandSolvesComposeTheBandSubstitution)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int n = 12, kd = 3, nrhs = 2;
    const kt::Dense a = kt::random_spd(rng, n, kd), b = kt::random_dense(rng, n, nrhs);
    KelMatrixBanded U;
    kt::to_band_upper(a, kd, U);
    ASSERT_TRUE(spdBandMatrixCholeskyFactorization(U, 1));
    const kt::Dense u = kt::upper_of(U, kd);
    kt::Dense ut(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
            ut(i, j) = u(j, i);

    KelMatrix B, Y, X, Xref;
    kt::to_kel(b, B);
    const auto u0 = kt::snapshot(U), b0 = kt::snapshot(B);
    ASSERT_EQ(solveUpperTriangularBandSystem(U, true, B, Y, 1), 0);
    EXPECT_LT(kt::residual_ratio(ut, kt::from_kel(Y), b), 30.0);
    ASSERT_EQ(solveUpperTriangularBandSystem(U, false, Y, X, 1), 0);
    EXPECT_LT(kt::residual_ratio(u, kt::from_kel(X), kt::from_kel(Y)), 30.0);
    ASSERT_TRUE(spdBandCholeskySubstitute(U, B, Xref, 1));
    for (int k = 0; k < n * nrhs; ++k)
        EXPECT_NEAR(X.GetElements()[k], Xref.GetElements()[k], 1e-13);
    EXPECT_EQ(kt::snapshot(U), u0);
    EXPECT_EQ(kt::snapshot(B), b0);

    // 2 does not copy: the solution is written into the const B's own array.
    KelMatrix Y2;
    ASSERT_EQ(solveUpperTriangularBandSystem(U, true, B, Y2, 2), 0);
    EXPECT_EQ(kt::snapshot(B), kt::snapshot(Y2));
    for (int k = 0; k < n * nrhs; ++k)
        EXPECT_NEAR(Y2.GetElements()[k], Y.GetElements()[k], 1e-13);

    U(5, 5) = 0.0;
    kt::to_kel(b, B);
    const auto x0 = kt::snapshot(X);
    EXPECT_EQ(solveUpperTriangularBandSystem(U, false, B, X, 1), 6);
    EXPECT_EQ(kt::snapshot(X), x0);
}


} // namespace
