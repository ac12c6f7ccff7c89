// KELMATRIX aliasing tests
// Outputs passed as one of the inputs: the solution written into its own right-hand side, a
// product into one of its operands.
//
// Every case makes the same call twice on identical inputs, once into a separate output and once
// into the aliased one, and requires the two results bit for bit equal and the aliased one to
// pass the residual check against the plain-loop reference. Under ASan the cases whose output
// re-dimension used to release the block still being read would report a use after free.
#include <functional>
#include <random>

#include <gtest/gtest.h>

#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

using kt::Dense;
using kt::KelOf;

constexpr double kBound = 30.0; // LAPACK's threshold for its test ratios

// One call of a solver on fresh inputs made from the captured reference matrices; it returns the
// solver's success and writes its solution into X (which may be B itself).
using SolveCall = std::function<bool(KelMatrix& B, KelMatrix& X)>;

// Runs the call into a separate X and into B itself; both must succeed and agree bit for bit.
Dense solve_both_ways(const Dense& b, const SolveCall& call)
{
    KelOf B1(b);
    KelMatrix X;
    EXPECT_TRUE(call(B1, X));
    KelOf B2(b);
    EXPECT_TRUE(call(B2, B2));
    const Dense aliased = kt::from_kel(B2);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(X), aliased));
    return aliased;
}

// Upper triangular band of width kd with a dominant diagonal: a well-conditioned U.
Dense random_upper_band(std::mt19937_64& rng, int n, int kd)
{
    Dense u = kt::random_dense(rng, n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
            if (i > j || j - i > kd)
                u(i, j) = 0.0;
            else if (i == j)
                u(i, j) = 2.0 + kd + std::fabs(u(i, j));
    return u;
}

TEST(AliasedOutput, SolutionIntoItsOwnRightHandSide)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int n = 23, kd = 4, nrhs = 3;
    const Dense a = kt::random_spd(rng, n, n - 1), ab = kt::random_spd(rng, n, kd);
    const Dense b = kt::random_dense(rng, n, nrhs);

    // The SPD drivers and substitutions copy for any non-zero value, so 0 and 1 cover both paths;
    // the triangular band solve works in place for anything but 1.
    for (int copy : {0, 1, 2}) {
        SCOPED_TRACE(kt::describe("copyInputs", copy));
        const Dense x_sp = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
            KelOf A(a);
            return SolveSP(A, B, X, copy);
        });
        EXPECT_LE(kt::residual_ratio(a, x_sp, b), kBound) << "SolveSP";

        const Dense x_bsp = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
            KelMatrixBanded A;
            kt::to_band_upper(ab, kd, A);
            return SolveBSP(A, B, X, copy);
        });
        EXPECT_LE(kt::residual_ratio(ab, x_bsp, b), kBound) << "SolveBSP";

        const Dense x_subst = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
            KelOf U(a);
            return spdMatrixCholeskyFactorization(U, 1) == 0 &&
                   spdCholeskySubstitute(U, B, X, copy) == 0;
        });
        EXPECT_LE(kt::residual_ratio(a, x_subst, b), kBound) << "spdCholeskySubstitute";

        const Dense x_band_subst = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
            KelMatrixBanded U;
            kt::to_band_upper(ab, kd, U);
            return spdBandMatrixCholeskyFactorization(U, 1) &&
                   spdBandCholeskySubstitute(U, B, X, copy);
        });
        EXPECT_LE(kt::residual_ratio(ab, x_band_subst, b), kBound) << "spdBandCholeskySubstitute";

        const Dense u = random_upper_band(rng, n, kd);
        for (bool transpose : {false, true}) {
            const Dense x_tri = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
                KelMatrixBanded U;
                kt::to_band_upper(u, kd, U);
                return solveUpperTriangularBandSystem(U, transpose, B, X, copy) == 0;
            });
            EXPECT_LE(kt::residual_ratio(transpose ? kt::transpose(u) : u, x_tri, b), kBound)
                << "solveUpperTriangularBandSystem transpose=" << transpose;
        }
    }
}

// These work on private copies of B (or temporaries built from it) before X changes; the cases
// keep them that way.
TEST(AliasedOutput, CopyingSolversIntoTheirOwnRightHandSide)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int n = 17, kd = 3, nrhs = 2;
    const Dense g = kt::random_spd(rng, n, n - 1), gb = kt::random_spd(rng, n, kd);
    const Dense b = kt::random_dense(rng, n, nrhs);

    const Dense x_ge = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
        KelOf A(g);
        return Solve(A, B, X);
    });
    EXPECT_LE(kt::residual_ratio(g, x_ge, b), kBound) << "Solve (dense)";

    const Dense x_gb = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
        KelMatrixBanded A; // general band layout: kl fill-in rows, then the band
        A.Dimension(n, n, kd, kd);
        A.SetZero();
        for (int j = 0; j < n; ++j)
            for (int i = std::max(0, j - kd); i <= std::min(n - 1, j + kd); ++i)
                A(i, j) = gb(i, j);
        return Solve(A, B, X);
    });
    EXPECT_LE(kt::residual_ratio(gb, x_gb, b), kBound) << "Solve (band)";

    const Dense x_cyc = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
        KelOf A(g); // a dense border of 2 around a band block of the whole matrix's upper band
        return SolveBSP_Cyclic(A, B, n - 2, 2 * (n - 3), X);
    });
    EXPECT_LE(kt::residual_ratio(g, x_cyc, b), kBound) << "SolveBSP_Cyclic";

    const Dense x_mn = solve_both_ways(b, [&](KelMatrix& B, KelMatrix& X) {
        KelOf A(g);
        std::vector<int> jpvt(n, 0);
        int rank = -1;
        return MinNormLeastSquares(A, B, jpvt.data(), 1e-12, rank, X) && rank == n;
    });
    EXPECT_LE(kt::residual_ratio(g, x_mn, b), kBound) << "MinNormLeastSquares";
}

// ||C - alpha op(A) op(B)||_1 / (|alpha| ||op(A)||_1 ||op(B)||_1 k eps): the product's forward
// error ratio against the plain-loop product, ~1 for any summation order.
double product_ratio(const Dense& c, double alpha, const Dense& a, const Dense& b, bool ta, bool tb)
{
    Dense ref = kt::multiply(a, b, ta, tb);
    for (double& v : ref.v)
        v *= alpha;
    const int k = ta ? a.rows : a.cols;
    const Dense opa = ta ? kt::transpose(a) : a, opb = tb ? kt::transpose(b) : b;
    const double denom = std::fabs(alpha) * kt::norm1(opa) * kt::norm1(opb) * k *
                         std::numeric_limits<double>::epsilon();
    return kt::norm1(kt::minus(c, ref)) / denom;
}

TEST(AliasedOutput, ProductIntoOneOfItsOperands)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const double alpha = -1.5;
    // m x k times k x n with three different sizes, so a result read with C's new shape or
    // C's new block would show.
    const int m = 7, k = 5, n = 9;
    for (bool ta : {false, true})
        for (bool tb : {false, true}) {
            const Dense a = ta ? kt::random_dense(rng, k, m) : kt::random_dense(rng, m, k);
            const Dense b = tb ? kt::random_dense(rng, n, k) : kt::random_dense(rng, k, n);
            KelOf A0(a), B0(b);
            KelMatrix C0;
            ProductEx(alpha, A0, B0, ta, tb, 0.0, C0);
            const Dense separate = kt::from_kel(C0);
            ASSERT_LE(product_ratio(separate, alpha, a, b, ta, tb), kBound);

            for (int into : {0, 1}) {
                SCOPED_TRACE(kt::describe("transA", ta, "transB", tb, "into", into ? "B" : "A"));
                KelOf A(a), B(b);
                KelMatrix& C = into ? static_cast<KelMatrix&>(B) : A;
                ProductEx(alpha, A, B, ta, tb, 0.0, C);
                EXPECT_EQ(C.GetRowDim(), m);
                EXPECT_EQ(C.GetColDim(), n);
                EXPECT_TRUE(kt::same_bits(kt::from_kel(C), separate));
            }
        }

    // A square matrix squared into itself, through Product.
    const Dense s = kt::random_dense(rng, 6, 6);
    for (bool t : {false, true}) {
        KelOf S(s), S0(s);
        KelMatrix P0;
        Product(S0, S0, t, false, P0);
        Product(S, S, t, false, S);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(S), kt::from_kel(P0))) << "transA=" << t;
        EXPECT_LE(product_ratio(kt::from_kel(S), 1.0, s, s, t, false), kBound) << "transA=" << t;
    }
}

// The eigenvector output passed as the matrix itself: EigenValuesS packs into A's own array
// with copyInputs = 0, and Z's re-dimension then releases that array after dspev is done.
TEST(AliasedOutput, EigenvectorsIntoTheMatrix)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int n = 12;
    const Dense a = kt::random_spd(rng, n, n - 1);
    for (int copy : {0, 1}) {
        SCOPED_TRACE(kt::describe("copyInputs", copy));
        std::vector<double> lambda(n), lambda0(n);
        KelOf A(a), A0(a);
        KelMatrix Z0;
        ASSERT_TRUE(EigenValuesS(A0, lambda0.data(), &Z0, copy));
        ASSERT_TRUE(EigenValuesS(A, lambda.data(), &A, copy));
        EXPECT_EQ(lambda, lambda0);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(A), kt::from_kel(Z0)));
        const auto ratios = kt::eigen_ratios(a, lambda.data(), kt::from_kel(A));
        EXPECT_LE(ratios.first, kBound);
        EXPECT_LE(ratios.second, kBound);
    }
}

} // namespace
