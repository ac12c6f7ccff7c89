// KELMATRIX container tests
// Alignment, flags and mirroring, sizing rules, band and packed addressing, conversions, scaling.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "kelmatrix/matrix.h"
#include "test_util.h"

namespace {

std::uintptr_t addr(const void* p)
{
    return reinterpret_cast<std::uintptr_t>(p);
}

class Misalignment : public ::testing::TestWithParam<int> {
protected:
    void TearDown() override { kelmatrix_set_mkl_misalignment(0); }
};

TEST_P(Misalignment, EveryBlockStartsAtTheShiftedBoundary)
{
    const int shift = GetParam();
    kelmatrix_set_mkl_misalignment(shift);
    EXPECT_EQ(kelmatrix_get_mkl_misalignment(), shift);

    double raw[64];
    for (int k = 0; k < 32; ++k) {
        const double* p = next_aligned_adr(raw + k);
        EXPECT_EQ((addr(p) - shift) % 32, 0u);
        EXPECT_GE(addr(p) - shift, addr(raw + k));
        EXPECT_LT(addr(p) - shift, addr(raw + k) + 32);
    }

    KelMatrix d;
    d.Dimension(7, 5, -1, -1);
    KelMatrixBanded b;
    b.Dimension(9, 9, 2, 1);
    KelMatrixPacked p;
    p.Dimension(6, 6, -1, -1);
    for (const KelGenericMatrix* m : {static_cast<KelGenericMatrix*>(&d), static_cast<KelGenericMatrix*>(&b),
                                      static_cast<KelGenericMatrix*>(&p)})
        EXPECT_EQ((addr(m->GetElements()) - shift) % 32, 0u);

    KelSparseVector v(4);
    const double dense[4] = {0.0, 1.0, 0.0, 3.0};
    ASSERT_TRUE(v.setAllElements(4, dense));
    EXPECT_EQ((addr(v.data_ptr()) - shift) % 32, 0u);
    EXPECT_EQ(addr(v.index_ptr()) % 32, 0u); // positions carry no misalignment
}

INSTANTIATE_TEST_SUITE_P(Bytes, Misalignment, ::testing::Values(0, 8, 24));

TEST(GenericMatrix, FreshMatrixIsEmptyUpperAndUnbanded)
{
    KelMatrix m;
    EXPECT_EQ(m.GetRowDim(), 0);
    EXPECT_EQ(m.GetColDim(), 0);
    EXPECT_EQ(m.GetLowerBandWidth(), -1);
    EXPECT_EQ(m.GetUpperBandWidth(), -1);
    EXPECT_EQ(m.GetElements(), nullptr);
    EXPECT_EQ(m.GetStorageSize(), 0);
    EXPECT_FALSE(m.SymmetricQ());
    EXPECT_FALSE(m.TriangularQ());
    EXPECT_FALSE(m.UsesLowerQ());
}

TEST(GenericMatrix, DimensionClearsShapeFlagsOnlyWhenNotSquareAndKeepsAnEarlierBand)
{
    KelMatrix m;
    m.SetSymmetric(true);
    m.SetTriangular(true);
    m.SetUsesLower();
    m.Dimension(4, 4, -1, -1);
    EXPECT_TRUE(m.SymmetricQ());
    EXPECT_TRUE(m.TriangularQ());
    m.Dimension(3, 4, -1, -1);
    EXPECT_FALSE(m.SymmetricQ());
    EXPECT_FALSE(m.TriangularQ());
    EXPECT_TRUE(m.UsesLowerQ()); // never touched by Dimension
    EXPECT_EQ(m.GetStorageSize(), 12);

    m.Dimension(5, 5, 2, 1);
    EXPECT_EQ(m.GetLowerBandWidth(), 2);
    EXPECT_EQ(m.GetUpperBandWidth(), 1);
    EXPECT_EQ(m.GetStorageSize(), 25); // the dense base sizes rows x cols even with a band
    m.Dimension(5, 5, -1, -1);
    EXPECT_EQ(m.GetLowerBandWidth(), 2);
    EXPECT_EQ(m.GetUpperBandWidth(), 1);
    m.Dimension(5, 5, 0, -1); // either width negative keeps the band
    EXPECT_EQ(m.GetLowerBandWidth(), 2);

    // The band state is observable through scaling: only the band of each column is scaled.
    for (int k = 0; k < 25; ++k)
        m.GetElements()[k] = 1.0;
    m *= 3.0;
    for (int j = 0; j < 5; ++j)
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(m(i, j), (i >= j - 1 && i <= j + 2) ? 3.0 : 1.0) << i << "," << j;
}

TEST(GenericMatrix, SetUsesUpperClearsTheOnlyTriangleBit)
{
    KelMatrix m;
    m.SetUsesLower();
    EXPECT_TRUE(m.UsesLowerQ());
    m.SetUsesUpper();
    EXPECT_FALSE(m.UsesLowerQ());
    m.SetSymmetric(true);
    m.SetTriangular(true);
    m.SetSymmetric(false);
    EXPECT_FALSE(m.SymmetricQ());
    EXPECT_TRUE(m.TriangularQ());
}

TEST(GenericMatrix, SetIdentityGoesThroughTheAccessor)
{
    KelMatrix d;
    d.Dimension(3, 5, -1, -1);
    d.SetIdentity();
    int ones = 0;
    for (int k = 0; k < d.GetStorageSize(); ++k)
        ones += d.GetElements()[k] == 1.0;
    EXPECT_EQ(ones, 3);
    EXPECT_EQ(d(2, 2), 1.0);

    KelMatrixBanded b;
    b.Dimension(4, 4, 1, 2);
    b.SetIdentity();
    const int ld = 2 * 1 + 2 + 1;
    for (int j = 0; j < 4; ++j)
        for (int r = 0; r < ld; ++r)
            EXPECT_EQ(b.GetElements()[ld * j + r], r == 1 + 2 ? 1.0 : 0.0);
}

TEST(GenericMatrix, ShallowAssignmentSharesTheBlock)
{
    KelMatrix a;
    a.Dimension(2, 3, -1, -1);
    a.SetSymmetric(true); // cleared by nothing: the assignment copies the flags as they stand
    auto* b = new KelMatrix;
    static_cast<KelGenericMatrix&>(*b) = static_cast<const KelGenericMatrix&>(a);
    EXPECT_EQ(b->GetElements(), a.GetElements());
    EXPECT_EQ(b->GetRowDim(), 2);
    EXPECT_EQ(b->GetColDim(), 3);
    EXPECT_EQ(b->GetStorageSize(), 6);
    EXPECT_TRUE(b->SymmetricQ());
    // Only one of the two may release the shared block: give b an empty state by hand-off.
    KelMatrix empty;
    static_cast<KelGenericMatrix&>(*b) = static_cast<const KelGenericMatrix&>(empty);
    delete b;
}

TEST(GenericMatrix, SwapExchangesViewsButNotOwnership)
{
    KelMatrix a, b;
    a.Dimension(2, 2, -1, -1);
    b.Dimension(3, 1, 1, 0);
    b.SetUsesLower();
    double* pa = a.GetElements();
    double* pb = b.GetElements();
    a.Swap(b);
    EXPECT_EQ(a.GetElements(), pb);
    EXPECT_EQ(b.GetElements(), pa);
    EXPECT_EQ(a.GetRowDim(), 3);
    EXPECT_EQ(a.GetLowerBandWidth(), 1);
    EXPECT_TRUE(a.UsesLowerQ());
    EXPECT_FALSE(b.UsesLowerQ());
    EXPECT_EQ(b.GetStorageSize(), 4);
    // Each still owns the block it allocated: re-dimensioning a releases a's own block, which b
    // now views, so swap back before either is changed or destroyed.
    a.Swap(b);
    EXPECT_EQ(a.GetElements(), pa);
}

TEST(DenseMatrix, SymmetricAccessMirrorsIntoTheStoredTriangle)
{
    KelMatrix m;
    m.Dimension(3, 3, -1, -1);
    m.SetZero();
    m.SetSymmetric(true);
    m.SetUsesLower();
    m(0, 2) = 5.0;
    EXPECT_EQ(m.GetElements()[2], 5.0); // stored at (2, 0)
    EXPECT_EQ(m(2, 0), 5.0);
    EXPECT_EQ(static_cast<const KelMatrix&>(m)(0, 2), 5.0);

    m.SetUsesUpper();
    m(2, 0) = 7.0;
    EXPECT_EQ(m.GetElements()[6], 7.0); // stored at (0, 2)

    m.SetSymmetric(false);
    m.SetTriangular(true); // triangular alone does not mirror
    m(2, 1) = 9.0;
    EXPECT_EQ(m.GetElements()[5], 9.0);
}

TEST(DenseMatrix, DeepAssignmentCopiesEverything)
{
    KelMatrix a, b;
    a.Dimension(3, 2, 1, 0);
    for (int k = 0; k < 6; ++k)
        a.GetElements()[k] = k + 0.5;
    a.SetUsesLower();
    b = a;
    EXPECT_NE(b.GetElements(), a.GetElements());
    EXPECT_EQ(0, std::memcmp(b.GetElements(), a.GetElements(), 6 * sizeof(double)));
    EXPECT_EQ(b.GetLowerBandWidth(), 1);
    EXPECT_EQ(b.GetUpperBandWidth(), 0);
    EXPECT_TRUE(b.UsesLowerQ());
}

TEST(DenseMatrix, ScalingRegionsFollowTheFlags)
{
    const int n = 4;
    auto ones = [&](KelMatrix& m) {
        for (int k = 0; k < n * n; ++k)
            m.GetElements()[k] = 1.0;
    };
    KelMatrix full, upper, lower;
    full.Dimension(n, n, -1, -1);
    upper.Dimension(n, n, -1, -1);
    lower.Dimension(n, n, -1, -1);
    ones(full);
    ones(upper);
    ones(lower);
    upper.SetSymmetric(true);
    lower.SetTriangular(true);
    lower.SetUsesLower();
    full *= 2.0;
    upper *= 2.0;
    lower *= 2.0;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(full.GetElements()[n * j + i], 2.0);
            EXPECT_EQ(upper.GetElements()[n * j + i], i <= j ? 2.0 : 1.0);
            EXPECT_EQ(lower.GetElements()[n * j + i], i >= j ? 2.0 : 1.0);
        }
}

TEST(BandMatrix, SizingAndAddressing)
{
    KelMatrixBanded b;
    b.Dimension(5, 5, 2, 1);
    EXPECT_EQ(b.GetStorageSize(), 6 * 5);
    EXPECT_EQ(&b(3, 2), b.GetElements() + 16);
    b.Dimension(4, 6, 1, 1);
    EXPECT_EQ(b.GetStorageSize(), 4 * 6); // by the columns, not the rows

    KelMatrixBanded s;
    s.SetSymmetric(true);
    s.SetUsesLower();
    s.DimensionSquare(5, 2, 0); // band sizing through the virtual table
    EXPECT_EQ(s.GetStorageSize(), 5 * 5);
    EXPECT_TRUE(s.SymmetricQ()); // Dimension of a band matrix keeps the flags
    EXPECT_EQ(&s(1, 3), s.GetElements() + 9);

    KelMatrixBanded tall;
    tall.SetSymmetric(true);
    tall.Dimension(3, 5, 0, 0);
    EXPECT_TRUE(tall.SymmetricQ()); // even when not square
}

TEST(BandMatrix, ConversionToDenseKeepsTheBandCount)
{
    // kl = 1, ku = 1: the band count equals 16 = 4 x 4, so every off-band element is zero.
    KelMatrixBanded b;
    b.Dimension(4, 4, 1, 1);
    b.SetZero();
    for (int j = 0; j < 4; ++j)
        for (int i = std::max(0, j - 1); i <= std::min(3, j + 1); ++i)
            b(i, j) = 10.0 * i + j + 1.0;
    KelMatrix d;
    d = b;
    EXPECT_EQ(d.GetStorageSize(), 16);
    EXPECT_EQ(d.GetLowerBandWidth(), 1);
    EXPECT_EQ(d.GetUpperBandWidth(), 1);
    for (int j = 0; j < 4; ++j)
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(d(i, j), std::abs(i - j) <= 1 ? 10.0 * i + j + 1.0 : 0.0);
    d *= 2.0; // banded is kept: only the band is scaled
    EXPECT_EQ(d(1, 0), 2.0 * 11.0);

    // kl = 0, ku = 1: the band count is 8, so only the first 8 doubles are zeroed.
    KelMatrixBanded u;
    u.Dimension(4, 4, 0, 1);
    u.SetZero();
    for (int j = 0; j < 4; ++j)
        for (int i = std::max(0, j - 1); i <= j; ++i)
            u(i, j) = 1.0 + i + j;
    KelMatrix e;
    e = u;
    EXPECT_EQ(e.GetStorageSize(), 8);
    for (int j = 0; j < 4; ++j)
        for (int i = std::max(0, j - 1); i <= j; ++i)
            EXPECT_EQ(e(i, j), 1.0 + i + j);
    EXPECT_EQ(e(1, 0), 0.0); // index 1: inside the zeroed count
    e.SetZero();             // SetZero sees only the band count, too
    EXPECT_EQ(e(1, 1), 0.0); // index 5
    EXPECT_EQ(e(2, 2), 5.0); // index 10: beyond the 8 doubles
    EXPECT_EQ(e(3, 3), 7.0);
}

TEST(PackedMatrix, LayoutAndConversion)
{
    const int n = 3;
    KelMatrixPacked up;
    up.Dimension(n, n, -1, -1);
    EXPECT_EQ(up.GetStorageSize(), 6);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            up(i, j) = 1.0 + i + 10.0 * j;
    EXPECT_EQ(up.GetElements()[1 + 2 * 3 / 2], 22.0); // (1, 2) at i + j(j+1)/2
    EXPECT_EQ(up(2, 1), up(1, 2));                    // mirrors without the symmetric flag

    KelMatrix d;
    d = up;
    EXPECT_EQ(d.GetStorageSize(), 6); // the packed count is kept
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            EXPECT_EQ(d(i, j), 1.0 + i + 10.0 * j);
    for (int k : {1, 2}) // lower part inside the packed count was zero-filled
        EXPECT_EQ(d.GetElements()[k], 0.0);

    KelMatrixPacked lo;
    lo.SetUsesLower();
    lo.Dimension(n, n, -1, -1);
    for (int j = 0; j < n; ++j)
        for (int i = j; i < n; ++i)
            lo(i, j) = 100.0 + i + 10.0 * j;
    EXPECT_EQ(lo.GetElements()[2 + 1 * (2 * n - 1 - 1) / 2], 112.0); // (2, 1)
    KelMatrix e;
    e = lo;
    for (int j = 0; j < n; ++j)
        for (int i = j; i < n; ++i)
            EXPECT_EQ(e.GetElements()[n * j + i], 100.0 + i + 10.0 * j);
}

} // namespace
