// KELMATRIX sparse vector tests
// Round trips, the size checks, exact zero tests and ddoti's 1-based positions.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "kelmatrix/matrix.h"
#include "test_util.h"

namespace {

TEST(SparseVector, RoundTripKeepsOnlyNonZeros)
{
    KelSparseVector v(5);
    const double in[3] = {0.0, 2.5, 0.0};
    ASSERT_TRUE(v.setAllElements(3, in));
    ASSERT_EQ(v.weight(), 1u);
    EXPECT_EQ(v.index_ptr()[0], 2);
    EXPECT_EQ(v.data_ptr()[0], 2.5);
    double out[5] = {9, 9, 9, 9, 9};
    ASSERT_TRUE(v.getAllElements(5, out));
    const double want[5] = {0.0, 2.5, 0.0, 0.0, 0.0};
    for (int k = 0; k < 5; ++k)
        EXPECT_EQ(out[k], want[k]);
}

TEST(SparseVector, SizeChecksLeaveEverythingAlone)
{
    KelSparseVector v(5);
    const double in[6] = {1, 0, 3, 0, 0, 6};
    ASSERT_TRUE(v.setAllElements(5, in));
    ASSERT_EQ(v.weight(), 2u);
    EXPECT_FALSE(v.setAllElements(6, in)); // longer than the dimension
    EXPECT_EQ(v.weight(), 2u);
    EXPECT_EQ(v.index_ptr()[1], 3);
    double out[4] = {7, 7, 7, 7};
    EXPECT_FALSE(v.getAllElements(4, out)); // shorter than the dimension
    for (double x : out)
        EXPECT_EQ(x, 7.0);
}

TEST(SparseVector, ExactZeroTestStoresNaNAndDropsNegativeZero)
{
    KelSparseVector v(4);
    const double in[4] = {-0.0, std::numeric_limits<double>::quiet_NaN(), 1e-300, 0.0};
    ASSERT_TRUE(v.setAllElements(4, in));
    ASSERT_EQ(v.weight(), 2u);
    EXPECT_EQ(v.index_ptr()[0], 2);
    EXPECT_TRUE(std::isnan(v.data_ptr()[0]));
    EXPECT_EQ(v.index_ptr()[1], 3);

    const double zeros[4] = {0, 0, 0, 0};
    ASSERT_TRUE(v.setAllElements(4, zeros));
    EXPECT_EQ(v.weight(), 0u);
    EXPECT_NE(v.data_ptr(), nullptr); // the small blocks are allocated all the same
    EXPECT_EQ(v.multiply(zeros), 0.0);
}

TEST(SparseVector, DotProductUsesOneBasedPositions)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const int n = 200;
    std::vector<double> x(n, 0.0), y(n);
    for (int k = 0; k < n; ++k) {
        y[k] = u(rng);
        if (k % 7 == 0 || k == n - 1)
            x[k] = u(rng);
    }
    KelSparseVector v(n);
    ASSERT_TRUE(v.setAllElements(n, x.data()));
    double want = 0.0, scale = 0.0;
    for (int k = 0; k < n; ++k) {
        want += x[k] * y[k];
        scale += std::fabs(x[k] * y[k]);
    }
    EXPECT_NEAR(v.multiply(y.data()), want, 8 * std::numeric_limits<double>::epsilon() * scale);

    KelSparseVector empty(3);
    EXPECT_EQ(empty.multiply(y.data()), 0.0);
}

TEST(SparseVector, SetDimReleasesAndAssignmentIsShallow)
{
    KelSparseVector a(3);
    const double in[3] = {1, 2, 3};
    ASSERT_TRUE(a.setAllElements(3, in));
    auto* b = new KelSparseVector(9);
    *b = a;
    EXPECT_EQ(b->getDim(), 3u);
    EXPECT_EQ(b->weight(), 3u);
    EXPECT_EQ(b->data_ptr(), a.data_ptr());
    EXPECT_EQ(b->index_ptr(), a.index_ptr());
    KelSparseVector empty; // hand b an empty state so the shared blocks are released once
    *b = empty;
    delete b;

    a.setDim(7);
    EXPECT_EQ(a.getDim(), 7u);
    EXPECT_EQ(a.weight(), 0u);
    EXPECT_EQ(a.data_ptr(), nullptr);
}

} // namespace
