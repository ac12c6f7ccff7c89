// KELMATRIX symmetric eigenproblem tests
// Closed forms (diagonal, the [-1, 2, -1] tridiagonal), A Z = Z Lambda with Z^T Z = I, upper
// triangle reads, and each function's copy rule.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

const double kEps = std::numeric_limits<double>::epsilon();

// ||A Z - Z Lambda||_1 / (||A||_1 n eps) and ||Z^T Z - I||_1 / (n eps), both below 30.
void expect_eigen_pairs(const kt::Dense& a, const double* lambda, const KelMatrix& Z)
{
    const int n = a.rows;
    const kt::Dense z = kt::from_kel(Z);
    kt::Dense r = kt::multiply(a, z), o = kt::multiply(z, z, true, false);
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < n; ++i)
            r(i, j) -= z(i, j) * lambda[j];
        o(j, j) -= 1.0;
    }
    EXPECT_LT(kt::norm1(r) / (kt::norm1(a) * n * kEps), 30.0);
    EXPECT_LT(kt::norm1(o) / (n * kEps), 30.0);
}

TEST(Eigen, TridiagonalClosedFormByBothRoutines)
{
    const int n = 10;
    const double pi = std::acos(-1.0);
    kt::Dense a(n, n);
    for (int i = 0; i < n; ++i) {
        a(i, i) = 2.0;
        if (i + 1 < n)
            a(i, i + 1) = a(i + 1, i) = -1.0;
    }
    std::vector<double> want(n);
    for (int k = 1; k <= n; ++k)
        want[k - 1] = 2.0 - 2.0 * std::cos(k * pi / (n + 1));

    KelMatrix A, Z, W;
    kt::to_kel_upper(a, A);
    std::vector<double> lambda(n);
    ASSERT_TRUE(EigenValuesS(A, lambda.data(), &Z, 1));
    ASSERT_EQ(Z.GetRowDim(), n);
    ASSERT_EQ(Z.GetColDim(), n);
    for (int k = 0; k < n; ++k)
        EXPECT_NEAR(lambda[k], want[k], 30 * n * kEps);
    expect_eigen_pairs(a, lambda.data(), Z);

    W.Dimension(n, 1, -1, -1);
    Z.Dimension(n, n, -1, -1);
    ASSERT_EQ(spdmEigenproblem(A, W, Z, 1), 0);
    for (int k = 0; k < n; ++k)
        EXPECT_NEAR(W(k, 0), want[k], 30 * n * kEps);
    expect_eigen_pairs(a, W.GetElements(), Z);
}

TEST(Eigen, EigenValuesSCopiesForAnyNonZeroAndZIsOptional)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int n = 9;
    kt::Dense a = kt::random_dense(rng, n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < j; ++i)
            a(j, i) = a(i, j);
    std::vector<double> with_z(n);
    for (int copy : {1, 2, 0}) {
        SCOPED_TRACE(copy);
        KelMatrix A, Z;
        kt::to_kel_upper(a, A);
        const auto a0 = kt::snapshot(A);
        ASSERT_TRUE(EigenValuesS(A, with_z.data(), &Z, copy));
        EXPECT_EQ(kt::snapshot(A) == a0, copy != 0);
        kt::to_kel_upper(a, A);
        expect_eigen_pairs(a, with_z.data(), Z);

        std::vector<double> values(n + 1, 7.0);
        const auto z0 = kt::snapshot(Z);
        ASSERT_TRUE(EigenValuesS(A, values.data(), nullptr, copy));
        EXPECT_EQ(kt::snapshot(Z), z0);
        EXPECT_EQ(values[n], 7.0); // exactly n values written
        for (int k = 0; k < n; ++k)
            EXPECT_NEAR(values[k], with_z[k], 30 * n * kEps * kt::norm1(a));
    }
}

TEST(Eigen, DiagonalAndOneByOne)
{
    const double d[4] = {3.0, -1.0, 2.0, 0.5};
    kt::Dense a(4, 4);
    for (int i = 0; i < 4; ++i)
        a(i, i) = d[i];
    KelMatrix A, Z;
    kt::to_kel_upper(a, A);
    double lambda[4];
    ASSERT_TRUE(EigenValuesS(A, lambda, &Z, 1));
    const double sorted[4] = {-1.0, 0.5, 2.0, 3.0};
    const int source[4] = {1, 3, 2, 0}; // the diagonal position of each sorted value
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(lambda[k], sorted[k]);
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(std::fabs(Z(i, k)), i == source[k] ? 1.0 : 0.0);
    }

    KelMatrix W;
    kt::to_kel(kt::Dense(1, 1, -2.5), A);
    W.Dimension(1, 1, -1, -1);
    Z.Dimension(1, 1, -1, -1);
    ASSERT_EQ(spdmEigenproblem(A, W, Z, 1), 0);
    EXPECT_EQ(W(0, 0), -2.5);
    EXPECT_EQ(std::fabs(Z(0, 0)), 1.0);
}

TEST(Eigen, SpdmEigenproblemCopiesOnlyForOne)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int n = 8;
    kt::Dense a = kt::random_dense(rng, n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < j; ++i)
            a(j, i) = a(i, j);
    for (int copy : {1, 2, 0}) {
        SCOPED_TRACE(copy);
        KelMatrix A, W, Z;
        kt::to_kel_upper(a, A);
        const auto a0 = kt::snapshot(A);
        W.Dimension(n, 1, -1, -1);
        Z.Dimension(n, n, -1, -1);
        ASSERT_EQ(spdmEigenproblem(A, W, Z, copy), 0);
        expect_eigen_pairs(a, W.GetElements(), Z);
        for (int k = 1; k < n; ++k)
            EXPECT_LE(W(k - 1, 0), W(k, 0));
        if (copy == 1) {
            EXPECT_EQ(kt::snapshot(A), a0);
        } else {
            EXPECT_EQ(kt::snapshot(A), kt::snapshot(Z)); // the eigenvectors, left in A
        }
    }
}

} // namespace
