// KELMATRIX LAPACK and BLAS wrapper tests
// The products' transpose and beta rules and the raw pass-through wrappers, against references
// computed here with plain loops. Every other wrapper's copy rule, what it overwrites and its
// residual are swept by the campaign (campaign.cpp); its failures are in failure_paths_test.cpp.
#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <vector>

#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

const double kEps = std::numeric_limits<double>::epsilon();

// Each entry is a k-term sum of products of values in [-1, 1], scaled by at most 2.5.
void expect_product(const KelMatrix& got, const kt::Dense& want, int k)
{
    ASSERT_EQ(got.GetRowDim(), want.rows);
    ASSERT_EQ(got.GetColDim(), want.cols);
    for (std::size_t i = 0; i < want.v.size(); ++i)
        EXPECT_NEAR(got.GetElements()[i], want.v[i], 8.0 * (k + 2) * kEps);
}

// beta == 0.0 (-0.0 too) re-dimensions C from the operands, k coming from A alone, and never
// reads C (NaN there); any other beta accumulates into C as it stands. C may be one of the
// operands, re-dimensioned (m, n, k all different) or not (square, where "into B" squares A into
// itself): the operands are read before C's block is released or written.
TEST(Products, TransposesTheBetaRuleAndAnOperandAsC)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    for (const int m : {7, 6})
        for (int t = 0; t < 12; ++t) {
            const bool ta = t & 1, tb = t & 2, self = m == 6 && t / 4 == 2;
            const int into = t / 4, n = m == 7 ? 9 : m, k = m == 7 ? 5 : m; // into: C, A or B
            SCOPED_TRACE(kt::describe("m", m, "transA", ta, "transB", tb, "into", into));
            const kt::Dense a = kt::random_dense(rng, ta ? k : m, ta ? m : k);
            const kt::Dense b = self ? a : kt::random_dense(rng, tb ? n : k, tb ? k : n);
            kt::KelOf A(a), B(b), C(kt::Dense(9, 9, std::numeric_limits<double>::quiet_NaN()));
            KelMatrix& out = into == 0 ? C : into == 1 || self ? A : B;
            const kt::Dense ab = kt::multiply(a, b, ta, tb);
            const auto times = [&](double s) {
                kt::Dense r = ab;
                for (double& x : r.v)
                    x *= s;
                return r;
            };
            if (m == 7)
                ProductEx(-1.5, A, B, ta, tb, ta ? -0.0 : 0.0, out);
            else
                Product(A, self ? A : B, ta, tb, out);
            expect_product(out, times(m == 7 ? -1.5 : 1.0), k);
            if (into == 0) {
                const double* before = out.GetElements();
                ProductEx(-2.5, A, B, ta, tb, 0.5, out);
                EXPECT_EQ(out.GetElements(), before);
                expect_product(out, times(m == 7 ? -3.25 : -2.0), k); // -2.5 AB + 0.5 C
            }
        }
}

// The raw wrappers pass their arguments through: dgemm with a leading dimension beyond the rows,
// dgels leaving the least-squares solution in B's first n rows.
TEST(RawWrappers, PassTheirArgumentsThrough)
{
    const double raw[6] = {1, 2, 3, 4, 0, 0}, x[2] = {1, 10}; // [[1, 4], [2, 0]] with lda 3
    double c[2] = {10, 20};
    kel_dgemm("T", "N", 2, 1, 2, 2.0, raw, 3, x, 2, 1.0, c, 2);
    EXPECT_EQ(c[0], 10 + 2 * (1 + 2 * 10));
    EXPECT_EQ(c[1], 20 + 2 * (4 + 0 * 10));

    std::mt19937_64 rng(kt::seed() + 5);
    SCOPED_TRACE(kt::seed_note());
    const int m = 10, n = 4, nrhs = 3;
    const kt::Dense a = kt::random_dense(rng, m, n), b = kt::random_dense(rng, m, nrhs);
    kt::Dense qr = a, bx = b;
    std::vector<double> work(64);
    int info = -99;
    kel_dgels("N", m, n, nrhs, qr.v.data(), m, bx.v.data(), m, work.data(), 64, info);
    ASSERT_EQ(info, 0);
    EXPECT_LT(kt::normal_equations_ratio(a, kt::leading(bx, n, nrhs), b), 30.0);
}

} // namespace
