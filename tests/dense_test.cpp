// KELMATRIX LAPACK and BLAS wrapper tests
// Products, linear solves, the Cholesky family, least squares and eigenproblems: every
// wrapper's copy rule and what it overwrites, what a failure leaves behind, the interface
// quirks, and for each routine one check against a reference computed here with plain loops.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
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

// ||A Z - Z Lambda||_1 / (||A||_1 n eps) and ||Z^T Z - I||_1 / (n eps), and ascending values.
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
    EXPECT_TRUE(std::is_sorted(lambda, lambda + n));
}

void expect_overwritten(const KelGenericMatrix& m, const std::vector<double>& before, bool yes)
{
    EXPECT_EQ(kt::snapshot(m) != before, yes);
}

// The SPD solves, the substitutions and EigenValuesS copy for any non-zero copyInputs; the
// factorizations, the inverse, the triangular band solve and spdmEigenproblem only for 1.
// Working in place, a solution is left in B's own array and A holds the factor or eigenvectors;
// the factor handed to a substitution is never touched. Dense matrices hold garbage in their
// strictly lower triangle, which no routine may read.
TEST(CopyRules, EveryWrapperCopiesOrWorksInPlaceAsDocumented)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int n = 8, kd = 2;
    const kt::Dense a = kt::random_spd(rng, n, kd), b = kt::random_dense(rng, n, 2);
    kt::Dense indefinite = a;
    indefinite(4, 4) = -1.0; // the leading minor of order 5 is not positive definite
    KelMatrix U;
    KelMatrixBanded Ub;
    kt::to_kel_upper(a, U);
    kt::to_band_upper(a, kd, Ub);
    ASSERT_EQ(spdMatrixCholeskyFactorization(U, 1), 0);
    ASSERT_TRUE(spdBandMatrixCholeskyFactorization(Ub, 1));
    EXPECT_LT(kt::cholesky_ratio(kt::upper_of(U), a), 30.0);
    EXPECT_LT(kt::cholesky_ratio(kt::upper_of(Ub, kd), a), 30.0);
    const auto u0 = kt::snapshot(U), ub0 = kt::snapshot(Ub);

    struct Wrapper {
        const char* name;
        bool any_non_zero_copies;
        std::function<void(int copy, bool in_place)> run;
    };
    const Wrapper wrappers[] = {
        {"SolveSP and SolveBSP", true,
         [&](int copy, bool in_place) {
             KelMatrix A, B, Bb, X, Xb;
             KelMatrixBanded Ab;
             kt::to_kel_upper(a, A);
             A.SetSymmetric(true); // the flags claim lower storage; the upper one is read
             A.SetUsesLower();
             kt::to_band_upper(a, kd, Ab);
             kt::to_kel(b, B);
             kt::to_kel(b, Bb);
             const auto a0 = kt::snapshot(A), ab0 = kt::snapshot(Ab);
             ASSERT_TRUE(SolveSP(A, B, X, copy));
             ASSERT_TRUE(SolveBSP(Ab, Bb, Xb, copy));
             EXPECT_LT(kt::residual_ratio(a, kt::from_kel(X), b), 30.0);
             EXPECT_LT(kt::residual_ratio(a, kt::from_kel(Xb), b), 30.0);
             EXPECT_EQ(kt::snapshot(B), in_place ? kt::snapshot(X) : b.v);
             EXPECT_EQ(kt::snapshot(Bb), in_place ? kt::snapshot(Xb) : b.v);
             expect_overwritten(A, a0, in_place);
             expect_overwritten(Ab, ab0, in_place);
             EXPECT_EQ(A.GetElements()[n - 1], kt::kGarbage);
         }},
        {"spdMatrixCholeskyFactorization and spdBandMatrixCholeskyFactorization", false,
         [&](int copy, bool in_place) { // in place, a failure leaves the partial factor
             KelMatrix A;
             KelMatrixBanded Ab;
             kt::to_kel_upper(indefinite, A);
             kt::to_band_upper(indefinite, kd, Ab);
             const auto a0 = kt::snapshot(A), ab0 = kt::snapshot(Ab);
             EXPECT_EQ(spdMatrixCholeskyFactorization(A, copy), 5);
             EXPECT_FALSE(spdBandMatrixCholeskyFactorization(Ab, copy));
             expect_overwritten(A, a0, in_place);
             expect_overwritten(Ab, ab0, in_place);
         }},
        {"spdCholeskySubstitute and spdBandCholeskySubstitute", true,
         [&](int copy, bool in_place) {
             KelMatrix B, Bb, X, Xb;
             kt::to_kel(b, B);
             kt::to_kel(b, Bb);
             ASSERT_EQ(spdCholeskySubstitute(U, B, X, copy), 0);
             ASSERT_TRUE(spdBandCholeskySubstitute(Ub, Bb, Xb, copy));
             EXPECT_LT(kt::residual_ratio(a, kt::from_kel(X), b), 30.0);
             EXPECT_LT(kt::residual_ratio(a, kt::from_kel(Xb), b), 30.0);
             EXPECT_EQ(kt::snapshot(B), in_place ? kt::snapshot(X) : b.v);
             EXPECT_EQ(kt::snapshot(Bb), in_place ? kt::snapshot(Xb) : b.v);
             EXPECT_EQ(kt::snapshot(U), u0);
             EXPECT_EQ(kt::snapshot(Ub), ub0);
         }},
        {"solveUpperTriangularBandSystem", false,
         [&](int copy, bool in_place) {
             KelMatrix B, Y, X;
             kt::to_kel(b, B);
             ASSERT_EQ(solveUpperTriangularBandSystem(Ub, true, B, Y, copy), 0); // U^T Y = B
             EXPECT_EQ(kt::snapshot(B), in_place ? kt::snapshot(Y) : b.v);
             ASSERT_EQ(solveUpperTriangularBandSystem(Ub, false, Y, X, 1), 0); // U X = Y
             EXPECT_LT(kt::residual_ratio(a, kt::from_kel(X), b), 30.0);
             EXPECT_EQ(kt::snapshot(Ub), ub0);
         }},
        {"symmPositiveDefiniteInverse", false,
         [&](int copy, bool) { // both paths write the full inverse, symmetric bit for bit
             KelMatrix A;
             A = U;
             ASSERT_EQ(symmPositiveDefiniteInverse(A, copy), 0);
             const kt::Dense inv = kt::from_kel(A);
             kt::Dense r = kt::multiply(a, inv);
             for (int j = 0; j < n; ++j) {
                 r(j, j) -= 1.0;
                 for (int i = 0; i < j; ++i)
                     EXPECT_EQ(inv(j, i), inv(i, j));
             }
             EXPECT_LT(kt::norm1(r) / (kt::norm1(a) * kt::norm1(inv) * n * kEps), 30.0);
         }},
        {"EigenValuesS", true,
         [&](int copy, bool in_place) {
             KelMatrix A, Z;
             kt::to_kel_upper(a, A);
             const auto a0 = kt::snapshot(A);
             std::vector<double> w(n + 1, 7.0), values(n + 1, 7.0);
             ASSERT_TRUE(EigenValuesS(A, w.data(), &Z, copy));
             expect_eigen_pairs(a, w.data(), Z);
             expect_overwritten(A, a0, in_place);
             kt::to_kel_upper(a, A);
             ASSERT_TRUE(EigenValuesS(A, values.data(), nullptr, copy)); // values only
             EXPECT_EQ(values[n], 7.0); // exactly n values written
             for (int k = 0; k < n; ++k)
                 EXPECT_NEAR(values[k], w[k], 30 * n * kEps * kt::norm1(a));
         }},
        {"spdmEigenproblem", false,
         [&](int copy, bool in_place) {
             KelMatrix A, W, Z;
             kt::to_kel_upper(a, A);
             const auto a0 = kt::snapshot(A);
             W.Dimension(n, 1, -1, -1);
             Z.Dimension(n, n, -1, -1);
             ASSERT_EQ(spdmEigenproblem(A, W, Z, copy), 0);
             expect_eigen_pairs(a, W.GetElements(), Z);
             EXPECT_EQ(kt::snapshot(A), in_place ? kt::snapshot(Z) : a0);
         }},
    };
    for (const Wrapper& w : wrappers)
        for (int copy : {1, 2, -1, 0}) {
            SCOPED_TRACE(testing::Message() << w.name << ", copyInputs " << copy);
            w.run(copy, w.any_non_zero_copies ? copy == 0 : copy != 1);
        }
}

// A zero pivot, an indefinite matrix, a rank-deficient one, a zero diagonal of a factor: false
// or LAPACK's info, and the output (X, or A for the inverse) exactly as it was. The general
// solves always work on copies.
TEST(Failures, OutputsAreLeftAsTheyWere)
{
    std::mt19937_64 rng(kt::seed() + 4);
    SCOPED_TRACE(kt::seed_note());
    const int n = 6;
    kt::Dense singular = kt::random_dense(rng, n, n), indefinite = kt::random_spd(rng, n, 2);
    for (int i = 0; i < n; ++i)
        singular(i, 2) = 0.0; // an exactly zero column: an exactly zero pivot in LU and QR
    indefinite(3, 3) = -1.0;
    KelMatrix S, P, B, X, F;
    KelMatrixBanded Sb, Pb;
    kt::to_kel(singular, S);
    kt::to_kel(indefinite, P);
    kt::to_band_upper(indefinite, 2, Pb);
    kt::to_kel(kt::random_dense(rng, n, 5), B);
    Sb.Dimension(n, n, 1, 1);
    Sb.SetIdentity();
    Sb(2, 2) = 0.0;
    kt::to_kel_upper(kt::random_spd(rng, n, n - 1), F);
    F(2, 2) = 0.0; // a factor with a zero diagonal
    kt::to_kel(kt::Dense(n, 5, 7.0), X); // SolveLS takes nrhs from X
    const double* x_elements = X.GetElements();
    const auto x0 = kt::snapshot(X), f0 = kt::snapshot(F), s0 = kt::snapshot(S);
    const auto sb0 = kt::snapshot(Sb);
    EXPECT_FALSE(Solve(S, B, X));
    EXPECT_FALSE(Solve(Sb, B, X));
    EXPECT_EQ(kt::snapshot(S), s0);
    EXPECT_EQ(kt::snapshot(Sb), sb0);
    EXPECT_FALSE(SolveSP(P, B, X, 1));
    EXPECT_FALSE(SolveBSP(Pb, B, X, 1));
    EXPECT_FALSE(SolveLS(S, B, X));
    Sb.Dimension(n, n, 0, 1);
    Sb.SetIdentity();
    Sb(2, 2) = 0.0;
    EXPECT_EQ(solveUpperTriangularBandSystem(Sb, false, B, X, 1), 3);
    EXPECT_EQ(X.GetElements(), x_elements);
    EXPECT_EQ(kt::snapshot(X), x0);
    for (int copy : {1, 2}) {
        EXPECT_EQ(symmPositiveDefiniteInverse(F, copy), 3); // no write-back, no mirroring
        EXPECT_EQ(kt::snapshot(F), f0);
    }
}

// ---- least squares ----

kt::Dense normal_equations(const kt::Dense& a, const kt::Dense& b)
{
    return kt::solve_dense(kt::multiply(a, a, true, false), kt::multiply(a, b, true, false));
}

void expect_close(const double* got, const kt::Dense& want, int ld)
{
    for (int j = 0; j < want.cols; ++j)
        for (int i = 0; i < want.rows; ++i)
            EXPECT_NEAR(got[ld * j + i], want(i, j), 1e-11) << i << ", " << j;
}

// kel_dgels passes its arguments through; SolveLS takes nrhs from X (2 of B's 5 columns) and
// writes only X's first n rows.
TEST(LeastSquares, OverdeterminedSolves)
{
    std::mt19937_64 rng(kt::seed() + 5);
    SCOPED_TRACE(kt::seed_note());
    const int m = 10, n = 4;
    kt::Dense a = kt::random_dense(rng, m, n), b = kt::random_dense(rng, m, 5);
    const kt::Dense want = normal_equations(a, b);
    KelMatrix A, B, X;
    kt::to_kel(a, A);
    kt::to_kel(b, B);
    kt::to_kel(kt::Dense(n + 2, 2, 7.0), X);
    ASSERT_TRUE(SolveLS(A, B, X));
    ASSERT_EQ(X.GetColDim(), 2);
    for (int j = 0; j < 2; ++j)
        for (int i = 0; i < n + 2; ++i)
            EXPECT_NEAR(X(i, j), i < n ? want(i, j) : 7.0, 1e-11);
    EXPECT_EQ(kt::snapshot(A), a.v);
    EXPECT_EQ(kt::snapshot(B), b.v);

    std::vector<double> work(64);
    int info = -99;
    kel_dgels("N", m, n, 5, a.v.data(), m, b.v.data(), m, work.data(), 64, info);
    ASSERT_EQ(info, 0);
    expect_close(b.v.data(), want, m);
}

// Twin columns [C C] (rank k): every solution has x_j + x_{j+k} = y_j and the shortest takes
// half of each; jpvt comes back a 0-based permutation and B is untouched. Under-determined
// (m < n): x = A^T (A A^T)^-1 b, which needs max(m, n) rows of room; a non-zero jpvt entry
// moves its column to the front.
TEST(LeastSquares, MinimumNormSolutions)
{
    std::mt19937_64 rng(kt::seed() + 6);
    SCOPED_TRACE(kt::seed_note());
    const int m = 8, k = 3, n = 2 * k;
    const kt::Dense c = kt::random_dense(rng, m, k), b = kt::random_dense(rng, m, 1);
    kt::Dense a(m, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i)
            a(i, j) = c(i, j % k);
    KelMatrix A, B, X;
    kt::to_kel(a, A);
    kt::to_kel(b, B);
    std::vector<int> jpvt(n, 0);
    int rank = -1;
    ASSERT_TRUE(MinNormLeastSquares(A, B, jpvt.data(), 1e-10, rank, X));
    EXPECT_EQ(rank, k);
    ASSERT_EQ(X.GetRowDim(), n);
    const kt::Dense y = normal_equations(c, b);
    for (int j = 0; j < n; ++j)
        EXPECT_NEAR(X(j, 0), 0.5 * y(j % k, 0), 1e-11);
    std::sort(jpvt.begin(), jpvt.end());
    for (int j = 0; j < n; ++j)
        EXPECT_EQ(jpvt[j], j);
    EXPECT_EQ(kt::snapshot(B), b.v);

    const kt::Dense w = kt::random_dense(rng, k, n); // k < n rows
    kt::to_kel(w, A);
    kt::to_kel(kt::Dense(k, 1, 1.0), B);
    jpvt.assign(n, 0);
    jpvt[4] = 1;
    ASSERT_TRUE(MinNormLeastSquares(A, B, jpvt.data(), 1e-10, rank, X));
    EXPECT_EQ(rank, k);
    EXPECT_EQ(jpvt[0], 4);
    expect_close(X.GetElements(),
                 kt::multiply(w, kt::solve_dense(kt::multiply(w, w, false, true),
                                                 kt::Dense(k, 1, 1.0)),
                              true),
                 n);
}

} // namespace
