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
// reads C (NaN there); any other beta accumulates into C as it stands.
TEST(Products, TransposesAndTheBetaRule)
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
        kt::to_kel(kt::Dense(9, 9, std::numeric_limits<double>::quiet_NaN()), C);
        if (t == 3) {
            ProductEx(1.0, A, B, ta, tb, -0.0, C);
        } else {
            Product(A, B, ta, tb, C);
        }
        kt::Dense want = kt::multiply(a, b, ta, tb);
        expect_product(C, want, k);
        double* before = C.GetElements();
        ProductEx(-2.5, A, B, ta, tb, 0.5, C);
        EXPECT_EQ(C.GetElements(), before);
        for (double& x : want.v)
            x *= -2.0; // -2.5 AB + 0.5 AB
        expect_product(C, want, k);
    }
    const double raw[6] = {1, 2, 3, 4, 0, 0}, x[2] = {1, 10}; // [[1, 4], [2, 0]] with lda 3
    double c[2] = {10, 20};
    kel_dgemm("T", "N", 2, 1, 2, 2.0, raw, 3, x, 2, 1.0, c, 2);
    EXPECT_EQ(c[0], 10 + 2 * (1 + 2 * 10));
    EXPECT_EQ(c[1], 20 + 2 * (4 + 0 * 10));
}

// C passed as one of its operands, re-dimensioned (m, n, k all different) or not (square, where
// "into B" squares A into itself): the operands are read before C's block is released or written.
TEST(Products, IntoOneOfTheOperands)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    for (const int m : {7, 6})
        for (int t = 0; t < 8; ++t) {
            const bool ta = t & 1, tb = t & 2, into_b = t & 4, self = m == 6 && into_b;
            const int n = m == 7 ? 9 : m, k = m == 7 ? 5 : m;
            SCOPED_TRACE(kt::describe("m", m, "transA", ta, "transB", tb, "into B", into_b));
            const kt::Dense a = kt::random_dense(rng, ta ? k : m, ta ? m : k);
            const kt::Dense b = self ? a : kt::random_dense(rng, tb ? n : k, tb ? k : n);
            kt::KelOf A(a), B(b);
            KelMatrix& C = into_b && !self ? static_cast<KelMatrix&>(B) : A;
            kt::Dense want = kt::multiply(a, b, ta, tb);
            if (m == 7) {
                ProductEx(-1.5, A, B, ta, tb, 0.0, C);
                for (double& x : want.v)
                    x *= -1.5;
            } else {
                Product(A, self ? A : B, ta, tb, C);
            }
            expect_product(C, want, k);
        }
}

// kel_dgels passes its arguments through: the least-squares solution overwrites B's first n rows.
TEST(LeastSquares, RawDgelsPassesItsArgumentsThrough)
{
    std::mt19937_64 rng(kt::seed() + 5);
    SCOPED_TRACE(kt::seed_note());
    const int m = 10, n = 4, nrhs = 3;
    const kt::Dense a = kt::random_dense(rng, m, n), b = kt::random_dense(rng, m, nrhs);
    kt::Dense qr = a, bx = b, x(n, nrhs);
    std::vector<double> work(64);
    int info = -99;
    kel_dgels("N", m, n, nrhs, qr.v.data(), m, bx.v.data(), m, work.data(), 64, info);
    ASSERT_EQ(info, 0);
    for (int j = 0; j < nrhs; ++j)
        for (int i = 0; i < n; ++i)
            x(i, j) = bx(i, j);
    EXPECT_LT(kt::normal_equations_ratio(a, x, b), 30.0);
}

} // namespace
