// KELMATRIX container tests
// Alignment, flags and sizing rules, addressing and mirroring, the shallow and deep copies, the
// conversions' storage counts, the scaling regions, and the sparse vector's exact rules.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "kelmatrix/matrix.h"
#include "test_util.h"

namespace {

std::uintptr_t addr(const void* p)
{
    return reinterpret_cast<std::uintptr_t>(p);
}

// The next 32-byte boundary at or after p, plus the shift in bytes; sparse positions unshifted.
TEST(Storage, BlocksStartAtTheShiftedBoundary)
{
    const kt::ScopedMisalignment shift(24);
    double raw[40];
    for (int k = 0; k < 4; ++k) {
        const std::uintptr_t p = addr(next_aligned_adr(raw + k)) - 24;
        EXPECT_TRUE(p % 32 == 0 && p >= addr(raw + k) && p < addr(raw + k) + 32) << k;
    }
    KelMatrixBanded b;
    b.Dimension(9, 9, 2, 1);
    KelSparseVector v(4);
    const double dense[4] = {0.0, 1.0, 0.0, 3.0};
    ASSERT_TRUE(v.setAllElements(4, dense));
    EXPECT_EQ((addr(b.GetElements()) - 24) % 32, 0u);
    EXPECT_EQ((addr(v.data_ptr()) - 24) % 32, 0u);
    EXPECT_EQ(addr(v.index_ptr()) % 32, 0u);
}

TEST(GenericMatrix, FlagsAndBandSurviveDimensionAsDocumented)
{
    KelMatrix m;
    EXPECT_EQ(m.GetUpperBandWidth(), -1);
    EXPECT_FALSE(m.UsesLowerQ()); // a fresh matrix counts as upper
    m.SetSymmetric(true);
    m.SetTriangular(true);
    m.SetUsesLower();
    m.Dimension(4, 4, -1, -1);
    EXPECT_TRUE(m.SymmetricQ() && m.TriangularQ());
    m.Dimension(3, 4, -1, -1); // not square: neither symmetric nor triangular
    EXPECT_FALSE(m.SymmetricQ() || m.TriangularQ());
    EXPECT_TRUE(m.UsesLowerQ()); // never touched by Dimension
    m.SetUsesUpper();
    EXPECT_FALSE(m.UsesLowerQ());
    m.SetTriangular(true);
    m.SetSymmetric(false); // writes its own bit only
    EXPECT_TRUE(m.TriangularQ());
    m.Dimension(5, 5, 2, 1);
    EXPECT_EQ(m.GetStorageSize(), 25); // the dense base sizes rows x cols even with a band
    m.Dimension(5, 5, 0, -1);          // either width negative keeps the earlier band
    EXPECT_EQ(m.GetLowerBandWidth(), 2);
    EXPECT_EQ(m.GetUpperBandWidth(), 1);
}

TEST(GenericMatrix, AssignmentSharesAndSwapKeepsOwnership)
{
    KelMatrix a, c, d;
    a.Dimension(2, 3, -1, -1);
    auto* b = new KelMatrix;
    static_cast<KelGenericMatrix&>(*b) = static_cast<const KelGenericMatrix&>(a);
    EXPECT_EQ(b->GetElements(), a.GetElements());
    EXPECT_EQ(b->GetStorageSize(), 6);
    static_cast<KelGenericMatrix&>(*b) = static_cast<const KelGenericMatrix&>(d); // so only a
    delete b;                                                                     // releases

    c.Dimension(2, 2, -1, -1);
    d.Dimension(3, 1, 1, 0);
    d.SetUsesLower();
    double *pc = c.GetElements(), *pd = d.GetElements();
    c.Swap(d);
    EXPECT_TRUE(c.GetElements() == pd && d.GetElements() == pc);
    EXPECT_EQ(c.GetRowDim(), 3);
    EXPECT_EQ(c.GetLowerBandWidth(), 1);
    EXPECT_TRUE(c.UsesLowerQ());
    EXPECT_EQ(d.GetStorageSize(), 4);
    c.Swap(d); // each still releases the block it allocated, which the other now views
}

TEST(DenseMatrix, SymmetricAccessMirrorsAndAssignmentCopiesDeeply)
{
    KelMatrix m, c;
    m.Dimension(3, 3, 1, 0);
    m.SetZero();
    m.SetSymmetric(true);
    m.SetUsesLower();
    m(0, 2) = 5.0;
    EXPECT_EQ(m.GetElements()[2], 5.0); // stored at (2, 0)
    EXPECT_EQ(static_cast<const KelMatrix&>(m)(0, 2), 5.0);
    m.SetUsesUpper();
    m(2, 0) = 7.0;
    EXPECT_EQ(m.GetElements()[6], 7.0); // stored at (0, 2)
    m.SetSymmetric(false);
    m.SetTriangular(true); // triangular alone does not mirror
    m(2, 1) = 9.0;
    EXPECT_EQ(m.GetElements()[5], 9.0);
    c = m;
    EXPECT_NE(c.GetElements(), m.GetElements());
    EXPECT_EQ(kt::snapshot(c), kt::snapshot(m));
    EXPECT_TRUE(c.GetLowerBandWidth() == 1 && c.TriangularQ());
}

// Band first (column j: rows j - ku .. j + kl), then all storage when neither symmetric nor
// triangular, then the triangle usesLower names.
TEST(DenseMatrix, ScalingRegionFollowsTheFlags)
{
    const int n = 5;
    for (int kind = 0; kind < 4; ++kind) {
        KelMatrix m;
        m.SetSymmetric(kind == 2);
        m.SetTriangular(kind == 3);
        m.Dimension(n, n, kind == 1 ? 2 : -1, kind == 1 ? 1 : -1);
        if (kind == 3)
            m.SetUsesLower();
        for (int k = 0; k < n * n; ++k)
            m.GetElements()[k] = 1.0;
        m *= 3.0;
        for (int k = 0; k < n * n; ++k) {
            const int i = k % n, j = k / n;
            const bool in = kind == 0   ? true
                            : kind == 1 ? i >= j - 1 && i <= j + 2
                            : kind == 2 ? i <= j
                                        : i >= j;
            EXPECT_EQ(m.GetElements()[k], in ? 3.0 : 1.0) << kind << ": " << i << "," << j;
        }
    }
}

TEST(BandMatrix, SizingAndAddressing)
{
    KelMatrixBanded b;
    b.Dimension(5, 5, 2, 1);
    EXPECT_EQ(b.GetStorageSize(), 6 * 5);
    EXPECT_EQ(&b(3, 2), b.GetElements() + 16);
    b.SetSymmetric(true);
    b.SetUsesLower();
    b.DimensionSquare(5, 2, 0); // band sizing through the virtual table
    EXPECT_EQ(b.GetStorageSize(), 5 * 5);
    EXPECT_EQ(&b(1, 3), b.GetElements() + 9); // mirrored to (3, 1)
    b.Dimension(3, 5, 1, 2);
    EXPECT_EQ(b.GetStorageSize(), 5 * 5); // by the columns, not the rows
    EXPECT_TRUE(b.SymmetricQ());          // band Dimension keeps the flags even when not square
    b.SetSymmetric(false);
    b.SetIdentity(); // zero fill, then 1.0 at (k, k) for k < min(rows, cols) through the accessor
    for (int k = 0; k < 5 * 5; ++k)
        EXPECT_EQ(b.GetElements()[k], k % 5 == 3 && k < 15 ? 1.0 : 0.0) << k;
}

// The dense copy keeps the band's storage count and zeroes only that many doubles; the count
// then rules SetZero too, and the kept band rules scaling.
TEST(BandMatrix, ConversionToDenseKeepsTheBandCount)
{
    for (int kl : {1, 0}) {
        KelMatrixBanded b;
        b.Dimension(4, 4, kl, 1);
        for (int j = 0; j < 4; ++j)
            for (int i = std::max(0, j - 1); i <= std::min(3, j + kl); ++i)
                b(i, j) = 10.0 * i + j + 1.0;
        KelMatrix d;
        d = b;
        const int count = (2 * kl + 2) * 4;
        EXPECT_EQ(d.GetStorageSize(), count);
        for (int k = 0; k < 16; ++k) {
            const int i = k % 4, j = k / 4;
            const bool in = i - j <= kl && j - i <= 1;
            if (in || k < count) {
                EXPECT_EQ(d(i, j), in ? 10.0 * i + j + 1.0 : 0.0) << kl << ": " << k;
            }
        }
        d.SetZero();
        EXPECT_EQ(d(3, 3), kl == 1 ? 0.0 : 34.0); // index 15: beyond a count of 8
        d(3, 0) = 1.0;
        d *= 2.0;
        EXPECT_EQ(d(3, 0), 1.0); // outside the band
    }
}

TEST(PackedMatrix, ConversionCopiesTheStoredTriangleAndKeepsThePackedCount)
{
    KelMatrixPacked p;
    p.Dimension(3, 3, -1, -1);
    for (int j = 0; j < 3; ++j)
        for (int i = 0; i <= j; ++i)
            p(i, j) = 1.0 + i + 10.0 * j;
    EXPECT_EQ(p.GetElements()[4], 22.0); // (1, 2) at i + j (j + 1) / 2
    KelMatrix d;
    d = p;
    EXPECT_EQ(d.GetStorageSize(), 6);
    const double want[6] = {1, 0, 0, 11, 12, 0}; // the lower part inside the count is zeroed
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(d.GetElements()[k], want[k]) << k;
    EXPECT_EQ(d(0, 2), 21.0);
    EXPECT_EQ(d(2, 2), 23.0);
}

TEST(SparseVector, ExactNonZerosAtOneBasedPositionsAndShallowAssignment)
{
    KelSparseVector v(5);
    const double in[4] = {0.0, 2.5, -0.0, std::numeric_limits<double>::quiet_NaN()};
    ASSERT_TRUE(v.setAllElements(4, in));
    ASSERT_EQ(v.weight(), 2u); // -0.0 is zero, NaN is not
    EXPECT_EQ(v.index_ptr()[0], 2);
    EXPECT_EQ(v.data_ptr()[0], 2.5);
    EXPECT_TRUE(std::isnan(v.data_ptr()[1]));
    double out[5] = {9, 9, 9, 9, 9};
    ASSERT_TRUE(v.getAllElements(5, out));
    EXPECT_EQ(out[1], 2.5);
    EXPECT_EQ(out[4], 0.0);
    EXPECT_FALSE(v.setAllElements(6, in)); // longer than the dimension: nothing changes
    EXPECT_EQ(v.weight(), 2u);
    double short_out[4] = {7, 7, 7, 7};
    EXPECT_FALSE(v.getAllElements(4, short_out)); // shorter than the dimension: untouched
    EXPECT_EQ(short_out[0], 7.0);

    const double y[5] = {1, 10, 100, 1000, 10000};
    ASSERT_TRUE(v.setAllElements(2, in));
    EXPECT_EQ(v.multiply(y), 25.0);
    auto* w = new KelSparseVector(9);
    *w = v;
    EXPECT_EQ(w->getDim(), 5u);
    EXPECT_EQ(w->data_ptr(), v.data_ptr());
    *w = KelSparseVector(); // hand w an empty state so that the shared blocks are released once
    delete w;
    v.setDim(7);
    EXPECT_EQ(v.weight(), 0u);
    EXPECT_EQ(v.multiply(y), 0.0);
}

} // namespace
