// KELMATRIX product and residual helper tests
// LSMsolver_multiply and LSMsolver_residual_ratio on the collection's matrices against dense
// references built here from the files; multiplyBanded and multiplyBordered against dense
// products summed in the same column order (so bit for bit); the residual ratios against the
// tests' own plain-loop ratios; and each status a helper returns.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"
#include "kelmatrix/sparse.h"
#include "matrix_market.h"
#include "test_util.h"

namespace {

/// The whole matrix a file describes (a symmetric file's triangle mirrored).
kt::Dense dense_of(const kt::Coordinate& coo)
{
    kt::Dense a(coo.n, coo.n);
    for (const kt::Triplet& t : coo.entries) {
        a(t.row, t.col) += t.value;
        if (coo.symmetric && t.row != t.col)
            a(t.col, t.row) += t.value;
    }
    return a;
}

// Every collection matrix of order up to 2100, in the layout the solver takes for its type: the
// product within rounding of the dense one (each entry within n eps of sum |a_ij x_j|), and the
// residual ratio equal to the tests' own once x is off by a relative 1e-6.
TEST(CsrProducts, CollectionMatricesAgainstDenseReferences)
{
    const struct {
        const char* file;
        LSMsolver_mattype mtype;
    } matrices[] = {{"bcsstk01", LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE},
                    {"494_bus", LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE},
                    {"gr_30_30", LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE},
                    {"1138_bus", LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE},
                    {"bcsstk13", LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE},
                    {"tumorAntiAngiogenesis_2", LSM_REAL_SYMMETRIC_INDEFINITE},
                    {"hangGlider_2", LSM_REAL_SYMMETRIC_INDEFINITE},
                    {"west0479", LSM_REAL_UNSYMMETRIC},
                    {"olm1000", LSM_REAL_UNSYMMETRIC},
                    {"watt_2", LSM_REAL_UNSYMMETRIC}};
    std::mt19937_64 rng{kt::seed()};
    SCOPED_TRACE(kt::seed_note());
    for (const auto& m : matrices) {
        const std::string path = std::string(KELMATRIX_TEST_MATRICES) + "/" + m.file + ".mtx";
        SCOPED_TRACE(path);
        kt::Coordinate coo;
        ASSERT_TRUE(kt::read_matrix_market(path, coo));
        const kt::Csr A = coo.symmetric ? kt::upper_csr(coo) : kt::full_csr(coo);
        const kt::Dense dense = dense_of(coo), x = kt::random_dense(rng, A.n, 3);
        std::vector<double> y(x.v.size(), -1.0);
        const LSMsolver_csr_check done = LSMsolver_multiply(
            A.n, A.ia.data(), A.ja.data(), A.a.data(), m.mtype, 3, x.v.data(), y.data());
        ASSERT_EQ(done.code, LSM_CSR_OK) << done.message;
        const double eps = std::numeric_limits<double>::epsilon();
        for (int c = 0; c < 3; ++c)
            for (int i = 0; i < A.n; ++i) {
                double ref = 0.0, size = 0.0;
                for (int j = 0; j < A.n; ++j) {
                    ref += dense(i, j) * x(j, c);
                    size += std::fabs(dense(i, j) * x(j, c));
                }
                ASSERT_LE(std::fabs(y[static_cast<std::size_t>(c) * A.n + i] - ref),
                          2.0 * A.n * eps * size)
                    << i << ", " << c;
            }

        // b = A x0 by the dense reference; x = x0 (1 + 1e-6 r): both ratios see one residual.
        const kt::Dense b = kt::multiply(dense, x);
        std::vector<double> off = x.v;
        std::uniform_real_distribution<double> r(-1.0, 1.0);
        for (double& v : off)
            v *= 1.0 + 1e-6 * r(rng);
        double ratio = -1.0;
        ASSERT_EQ(LSMsolver_residual_ratio(A.n, A.ia.data(), A.ja.data(), A.a.data(), m.mtype, 3,
                                           off.data(), b.v.data(), ratio)
                      .code,
                  LSM_CSR_OK);
        const double reference = kt::residual_ratio(A, off, b.v, 3);
        EXPECT_GT(reference, 1e3);
        EXPECT_NEAR(ratio, reference, 1e-5 * reference); // rounding: n eps against 1e-6
        ASSERT_EQ(LSMsolver_residual_ratio(A.n, A.ia.data(), A.ja.data(), A.a.data(), m.mtype, 3,
                                           x.v.data(), b.v.data(), ratio)
                      .code,
                  LSM_CSR_OK);
        EXPECT_LT(ratio, 4.0); // only the two products' rounding
    }
}

// Bad arrays are the checker's problems and never reach MKL; bad vectors have their own code.
TEST(CsrProducts, ProblemsAreReportedAndYIsUntouched)
{
    std::vector<int> ia = {1, 3, 5, 6}, ja = {1, 2, 2, 3, 3};
    std::vector<double> a = {4, 1, 5, 2, 6}, x = {1, 1, 1}, y = {7, 7, 7};
    const auto multiply = [&](LSMsolver_mattype mtype, int count, const double* xp, double* yp) {
        return LSMsolver_multiply(3, ia.data(), ja.data(), a.data(), mtype, count, xp, yp).code;
    };
    EXPECT_EQ(multiply(LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE, -1, x.data(), y.data()),
              LSM_CSR_BAD_VECTORS);
    EXPECT_EQ(multiply(LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE, 1, x.data(), x.data()),
              LSM_CSR_BAD_VECTORS);
    EXPECT_EQ(multiply(LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE, 1, nullptr, y.data()),
              LSM_CSR_BAD_VECTORS);
    ja[3] = 1; // row 2 gets an entry below the diagonal: wrong for a symmetric type only
    EXPECT_EQ(multiply(LSM_REAL_SYMMETRIC_INDEFINITE, 1, x.data(), y.data()),
              LSM_CSR_COLUMNS_NOT_ASCENDING);
    EXPECT_EQ(y, (std::vector<double>{7, 7, 7}));
    ja[3] = 3;
    ASSERT_EQ(multiply(LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE, 1, x.data(), y.data()), LSM_CSR_OK);
    EXPECT_EQ(y, (std::vector<double>{5, 8, 8})); // [4 1 0; 1 5 2; 0 2 6] times ones
    ASSERT_EQ(multiply(LSM_REAL_UNSYMMETRIC, 1, x.data(), y.data()), LSM_CSR_OK);
    EXPECT_EQ(y, (std::vector<double>{5, 7, 6})); // the upper triangle alone
    double ratio = -1.0;
    EXPECT_EQ(LSMsolver_residual_ratio(3, ia.data(), ja.data(), a.data(), LSM_REAL_UNSYMMETRIC, 1,
                                       x.data(), nullptr, ratio)
                  .code,
              LSM_CSR_BAD_VECTORS);
    EXPECT_EQ(ratio, -1.0);
}

/// y = A x summed as the library sums: columns of A ascending, rows ascending.
kt::Dense column_order_product(const kt::Dense& a, const kt::Dense& x)
{
    kt::Dense y(a.rows, x.cols);
    for (int c = 0; c < x.cols; ++c)
        for (int j = 0; j < a.cols; ++j)
            for (int i = 0; i < a.rows; ++i)
                if (a(i, j) != 0.0)
                    y(i, c) += a(i, j) * x(j, c);
    return y;
}

// General, symmetric and bordered band products: bit for bit the dense product in the same
// order; the residual ratios as the tests' own.
TEST(BandProducts, BandAndBorderedAgainstDenseProducts)
{
    std::mt19937_64 rng{kt::seed()};
    SCOPED_TRACE(kt::seed_note());
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    const int n = 23, kl = 2, ku = 3, kd = 4, m = 3;
    const kt::Dense x = kt::random_dense(rng, n, 2);
    KelMatrix X, Y, B;
    kt::to_kel(x, X);

    kt::Dense general(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - ku); i <= std::min(n - 1, j + kl); ++i)
            general(i, j) = u(rng);
    KelMatrixBanded G;
    G.Dimension(n, n, kl, ku);
    G.SetZero();
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - ku); i <= std::min(n - 1, j + kl); ++i)
            G(i, j) = general(i, j);
    ASSERT_EQ(multiplyBanded(G, X, Y), KEL_PRODUCT_OK);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(Y), column_order_product(general, x)));

    const kt::Dense spd = kt::random_spd(rng, n, kd);
    KelMatrixBanded S;
    kt::to_band_upper(spd, kd, S);
    S.SetSymmetric(true);
    ASSERT_EQ(multiplyBanded(S, X, Y), KEL_PRODUCT_OK);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(Y), column_order_product(spd, x)));

    // A cyclic pattern: the band of the leading n - m block plus m dense border rows/columns.
    kt::Dense cyclic(n, n);
    KelMatrixBordered C;
    ASSERT_EQ(C.DimensionBordered(n, kd, m), KEL_BORDERED_OK);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            if (j >= n - m || j - i <= kd) {
                cyclic(i, j) = cyclic(j, i) = u(rng);
                C(i, j) = cyclic(i, j);
            }
    ASSERT_EQ(multiplyBordered(C, X, Y), KEL_PRODUCT_OK);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(Y), column_order_product(cyclic, x)));

    // Residual ratios: B = A X0 exactly in that order, then X off by a relative 1e-8.
    kt::Dense off = x;
    for (double& v : off.v)
        v *= 1.0 + 1e-8 * u(rng);
    KelMatrix Xoff;
    kt::to_kel(off, Xoff);
    const struct {
        const char* what;
        const kt::Dense* a;
        int (*ratio)(const void*, const KelMatrix&, const KelMatrix&, double&);
        const void* A;
    } cases[] = {{"general band", &general,
                  [](const void* A, const KelMatrix& sol, const KelMatrix& rhs, double& r) {
                      return residualRatio(*static_cast<const KelMatrixBanded*>(A), sol, rhs, r);
                  },
                  &G},
                 {"bordered", &cyclic,
                  [](const void* A, const KelMatrix& sol, const KelMatrix& rhs, double& r) {
                      return residualRatio(*static_cast<const KelMatrixBordered*>(A), sol, rhs, r);
                  },
                  &C}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const kt::Dense b = column_order_product(*c.a, x);
        kt::to_kel(b, B);
        double ratio = -1.0;
        ASSERT_EQ(c.ratio(c.A, X, B, ratio), KEL_PRODUCT_OK);
        EXPECT_EQ(ratio, 0.0); // the same sums: no residual at all
        ASSERT_EQ(c.ratio(c.A, Xoff, B, ratio), KEL_PRODUCT_OK);
        const double reference = kt::residual_ratio(*c.a, off, b);
        EXPECT_NEAR(ratio, reference, 1e-6 * reference);
    }

    // Statuses: Y untouched by each refusal.
    KelMatrix wrong, Z;
    kt::to_kel(kt::Dense(n + 1, 1, 1.0), wrong);
    kt::to_kel(kt::Dense(2, 2, 9.0), Z);
    KelMatrixBanded none;
    EXPECT_EQ(multiplyBanded(G, wrong, Z), KEL_PRODUCT_SHAPE);
    EXPECT_EQ(multiplyBanded(none, X, Z), KEL_PRODUCT_EMPTY);
    KelMatrix& alias = X;
    EXPECT_EQ(multiplyBanded(G, X, alias), KEL_PRODUCT_ALIASED);
    EXPECT_EQ(kt::snapshot(Z), std::vector<double>(4, 9.0));
    double ratio = -1.0;
    EXPECT_EQ(residualRatio(C, X, wrong, ratio), KEL_PRODUCT_SHAPE);
    EXPECT_EQ(ratio, -1.0);
    EXPECT_STREQ(KelProduct_message(KEL_PRODUCT_SHAPE),
                 "X must have A's column count as rows, and B the shape of A X");
}

// The dense ratio: the tests' own on a solved system; the flags choose what A is.
TEST(DenseResidual, RatioAsTheTestsOwnAndTheFlagsHonoured)
{
    std::mt19937_64 rng{kt::seed()};
    SCOPED_TRACE(kt::seed_note());
    const int n = 17;
    const kt::Dense a = kt::random_dense(rng, n, n), x = kt::random_dense(rng, n, 2);
    kt::Dense b = kt::multiply(a, x);
    b.v[5] += 1e-9;
    KelMatrix A, X, B;
    kt::to_kel(a, A);
    kt::to_kel(x, X);
    kt::to_kel(b, B);
    double ratio = -1.0;
    ASSERT_EQ(residualRatio(A, X, B, ratio), KEL_PRODUCT_OK);
    const double reference = kt::residual_ratio(a, x, b);
    EXPECT_NEAR(ratio, reference, 1e-6 * reference);

    // Symmetric, upper stored: the lower half is whatever the array holds, the accessor mirrors.
    kt::Dense sym = a;
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i)
            sym(i, j) = sym(j, i);
    KelMatrix S;
    kt::to_kel(a, S);
    S.SetSymmetric(true);
    const kt::Dense bs = kt::multiply(sym, x);
    kt::to_kel(bs, B);
    ASSERT_EQ(residualRatio(S, X, B, ratio), KEL_PRODUCT_OK);
    EXPECT_LT(ratio, 4.0);
    KelMatrix wrong;
    kt::to_kel(kt::Dense(n, 3), wrong);
    EXPECT_EQ(residualRatio(A, X, wrong, ratio), KEL_PRODUCT_SHAPE);
    EXPECT_EQ(residualRatio(KelMatrix(), X, B, ratio), KEL_PRODUCT_EMPTY);
}

} // namespace
