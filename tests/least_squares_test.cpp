// KELMATRIX least-squares tests
// Against normal equations solved here by Gaussian elimination, and two closed forms of the
// minimum-norm solution: [C C] splits C's weights equally; under-determined x = A^T (A A^T)^-1 b.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

// Reference solve by Gaussian elimination with partial pivoting (small, well-conditioned only).
kt::Dense gauss_solve(kt::Dense a, kt::Dense b)
{
    const int n = a.rows;
    for (int k = 0; k < n; ++k) {
        int p = k;
        for (int i = k + 1; i < n; ++i)
            if (std::fabs(a(i, k)) > std::fabs(a(p, k)))
                p = i;
        for (int j = 0; j < n; ++j)
            std::swap(a(k, j), a(p, j));
        for (int j = 0; j < b.cols; ++j)
            std::swap(b(k, j), b(p, j));
        for (int i = k + 1; i < n; ++i) {
            const double l = a(i, k) / a(k, k);
            for (int j = k; j < n; ++j)
                a(i, j) -= l * a(k, j);
            for (int j = 0; j < b.cols; ++j)
                b(i, j) -= l * b(k, j);
        }
    }
    for (int j = 0; j < b.cols; ++j)
        for (int i = n - 1; i >= 0; --i) {
            for (int k = i + 1; k < n; ++k)
                b(i, j) -= a(i, k) * b(k, j);
            b(i, j) /= a(i, i);
        }
    return b;
}

// The least-squares solution of a full-column-rank a: (a^T a)^-1 a^T b.
kt::Dense normal_equations(const kt::Dense& a, const kt::Dense& b)
{
    return gauss_solve(kt::multiply(a, a, true, false), kt::multiply(a, b, true, false));
}

void expect_close(const double* got, const kt::Dense& want, int rows, int ld)
{
    for (int j = 0; j < want.cols; ++j)
        for (int i = 0; i < rows; ++i)
            EXPECT_NEAR(got[ld * j + i], want(i, j), 1e-11) << i << ", " << j;
}

TEST(LeastSquares, RawDgelsPassThrough)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int m = 7, n = 3;
    kt::Dense a = kt::random_dense(rng, m, n), b = kt::random_dense(rng, m, 1);
    const kt::Dense want = normal_equations(a, b);
    double query = 0.0;
    int info = -99;
    kel_dgels("N", m, n, 1, a.v.data(), m, b.v.data(), m, &query, -1, info);
    ASSERT_EQ(info, 0);
    std::vector<double> work(static_cast<std::size_t>(query));
    kel_dgels("N", m, n, 1, a.v.data(), m, b.v.data(), m, work.data(), int(work.size()), info);
    ASSERT_EQ(info, 0);
    expect_close(b.v.data(), want, n, m);
}

TEST(LeastSquares, SolveLSTakesNrhsFromXAndFillsItsFirstNRows)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int m = 10, n = 4;
    const kt::Dense a = kt::random_dense(rng, m, n), b = kt::random_dense(rng, m, 5);
    KelMatrix A, B, X;
    kt::to_kel(a, A);
    kt::to_kel(b, B);
    kt::to_kel(kt::Dense(n + 2, 2, 7.0), X); // two right-hand sides of B's five
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    ASSERT_TRUE(SolveLS(A, B, X));
    ASSERT_EQ(X.GetRowDim(), n + 2);
    ASSERT_EQ(X.GetColDim(), 2);
    kt::Dense b2(m, 2);
    std::copy(b.v.begin(), b.v.begin() + 2 * m, b2.v.begin());
    expect_close(X.GetElements(), normal_equations(a, b2), n, n + 2);
    for (int j = 0; j < 2; ++j)
        for (int i = n; i < n + 2; ++i)
            EXPECT_EQ(X(i, j), 7.0);
    EXPECT_EQ(kt::snapshot(A), a0);
    EXPECT_EQ(kt::snapshot(B), b0);
}

TEST(LeastSquares, SolveLSFailsOnARankDeficientMatrix)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    kt::Dense a = kt::random_dense(rng, 6, 3);
    for (int i = 0; i < 6; ++i)
        a(i, 1) = 0.0; // an exactly zero column: R gets an exactly zero diagonal
    KelMatrix A, B, X;
    kt::to_kel(a, A);
    kt::to_kel(kt::random_dense(rng, 6, 1), B);
    kt::to_kel(kt::Dense(3, 1, 7.0), X);
    EXPECT_FALSE(SolveLS(A, B, X));
    EXPECT_EQ(kt::snapshot(X), std::vector<double>(3, 7.0));
}

TEST(LeastSquares, MinimumNormOfTwinColumnsSplitsTheWeights)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int m = 8, k = 3, n = 2 * k;
    const kt::Dense c = kt::random_dense(rng, m, k), b = kt::random_dense(rng, m, 1);
    kt::Dense a(m, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i)
            a(i, j) = c(i, j % k);
    // Every solution has x_j + x_{j+k} = y_j; the shortest takes half of each.
    kt::Dense want = normal_equations(c, b), half(n, 1);
    for (int j = 0; j < n; ++j)
        half(j, 0) = 0.5 * want(j % k, 0);

    KelMatrix A, B, X;
    kt::to_kel(a, A);
    kt::to_kel(b, B);
    const auto b0 = kt::snapshot(B);
    std::vector<int> jpvt(n, 0);
    int rank = -1;
    ASSERT_TRUE(MinNormLeastSquares(A, B, jpvt.data(), 1e-10, rank, X));
    EXPECT_EQ(rank, k);
    ASSERT_EQ(X.GetRowDim(), n);
    ASSERT_EQ(X.GetColDim(), 1);
    expect_close(X.GetElements(), half, n, n);
    std::vector<int> sorted = jpvt;
    std::sort(sorted.begin(), sorted.end());
    for (int j = 0; j < n; ++j)
        EXPECT_EQ(sorted[j], j); // a 0-based permutation
    EXPECT_EQ(kt::snapshot(B), b0);
}

TEST(LeastSquares, MinimumNormOfAnUnderdeterminedSystemWithAFixedColumn)
{
    std::mt19937_64 rng(kt::seed() + 4);
    SCOPED_TRACE(kt::seed_note());
    const int m = 3, n = 6;
    const kt::Dense a = kt::random_dense(rng, m, n), b = kt::random_dense(rng, m, 1);
    const kt::Dense want = kt::multiply(a, gauss_solve(kt::multiply(a, a, false, true), b), true);
    KelMatrix A, B, X;
    kt::to_kel(a, A);
    kt::to_kel(b, B);
    std::vector<int> jpvt(n, 0);
    jpvt[4] = 1; // moves column 4 to the front
    int rank = -1;
    ASSERT_TRUE(MinNormLeastSquares(A, B, jpvt.data(), 1e-10, rank, X));
    EXPECT_EQ(rank, m);
    EXPECT_EQ(jpvt[0], 4);
    expect_close(X.GetElements(), want, n, n);
}

} // namespace
