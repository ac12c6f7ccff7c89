// KELMATRIX product tests
// All four transpose combinations against a plain triple loop, and the beta == 0.0 rule.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

void expect_close(const kt::Dense& got, const kt::Dense& want, int k)
{
    ASSERT_EQ(got.rows, want.rows);
    ASSERT_EQ(got.cols, want.cols);
    // Each entry is a k-term sum of products of values in [-1, 1], plus the beta term.
    const double tol = 4.0 * (k + 2) * std::numeric_limits<double>::epsilon();
    for (std::size_t i = 0; i < got.v.size(); ++i)
        EXPECT_NEAR(got.v[i], want.v[i], tol) << "at " << i;
}

TEST(Products, AllTransposeCombinationsMatchATripleLoop)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int m = 7, n = 5, k = 9;
    for (int t = 0; t < 4; ++t) {
        const bool ta = t & 1, tb = t & 2;
        const kt::Dense a = kt::random_dense(rng, ta ? k : m, ta ? m : k);
        const kt::Dense b = kt::random_dense(rng, tb ? n : k, tb ? k : n);
        KelMatrix A, B, C;
        kt::to_kel(a, A);
        kt::to_kel(b, B);
        C.Dimension(1, 1, -1, -1); // any shape: beta 0 re-dimensions
        Product(A, B, ta, tb, C);
        expect_close(kt::from_kel(C), kt::multiply(a, b, ta, tb), k);

        kt::Dense scaled = kt::multiply(a, b, ta, tb);
        for (double& x : scaled.v)
            x *= -2.5;
        ProductEx(-2.5, A, B, ta, tb, 0.0, C);
        expect_close(kt::from_kel(C), scaled, k);
    }
}

TEST(Products, ShapesComeFromTheOperands)
{
    KelMatrix A, B, C;
    A.Dimension(3, 2, -1, -1);
    B.Dimension(3, 4, -1, -1);
    A.SetIdentity();
    B.SetIdentity();
    Product(A, B, true, false, C); // k = A.rows = 3
    EXPECT_EQ(C.GetRowDim(), 2);
    EXPECT_EQ(C.GetColDim(), 4);
    for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(C(i, j), i == j ? 1.0 : 0.0);
}

TEST(Products, OnlyAZeroBetaRedimensions)
{
    std::mt19937_64 rng(kt::seed() + 1);
    const kt::Dense a = kt::random_dense(rng, 4, 3), b = kt::random_dense(rng, 3, 2);
    const kt::Dense c0 = kt::random_dense(rng, 4, 2);
    KelMatrix A, B, C;
    kt::to_kel(a, A);
    kt::to_kel(b, B);

    kt::to_kel(c0, C);
    double* before = C.GetElements();
    ProductEx(1.0, A, B, false, false, 0.5, C); // accumulates in place
    EXPECT_EQ(C.GetElements(), before);
    kt::Dense want = kt::multiply(a, b);
    for (std::size_t i = 0; i < want.v.size(); ++i)
        want.v[i] += 0.5 * c0.v[i];
    expect_close(kt::from_kel(C), want, 3);

    for (double beta : {0.0, -0.0}) {
        kt::to_kel(kt::Dense(9, 9, std::numeric_limits<double>::quiet_NaN()), C);
        ProductEx(1.0, A, B, false, false, beta, C); // fresh storage: the NaNs are gone
        ASSERT_EQ(C.GetRowDim(), 4);
        ASSERT_EQ(C.GetColDim(), 2);
        expect_close(kt::from_kel(C), kt::multiply(a, b), 3);
    }
}

TEST(Products, RawDgemmPassThrough)
{
    const double a[4] = {1, 2, 3, 4}; // [[1, 3], [2, 4]]
    const double b[2] = {1, 1};
    double c[2] = {10, 20};
    kel_dgemm("N", "N", 2, 1, 2, 2.0, a, 2, b, 2, 1.0, c, 2);
    EXPECT_EQ(c[0], 10 + 2 * (1 + 3));
    EXPECT_EQ(c[1], 20 + 2 * (2 + 4));
}

} // namespace
