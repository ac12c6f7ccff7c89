// KELMATRIX band Cholesky tests
// Worked examples, the pivot tests, bit-identity across storages, and random band systems.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "kelmatrix/band.h"
#include "test_util.h"

namespace {

const double kInf = std::numeric_limits<double>::infinity();

kt::Dense column(std::initializer_list<double> v)
{
    kt::Dense b(static_cast<int>(v.size()), 1);
    b.v.assign(v);
    return b;
}

// ||A - U^T U||_1 / (||A||_1 n eps) for the upper band factor u.
double reconstruction_ratio(const kt::Dense& a, const kt::Dense& u)
{
    kt::Dense r = kt::multiply(u, u, true, false);
    for (std::size_t k = 0; k < r.v.size(); ++k)
        r.v[k] -= a.v[k];
    return kt::norm1(r) / (kt::norm1(a) * a.rows * std::numeric_limits<double>::epsilon());
}

TEST(BandCholesky, WorkedExamples)
{
    kt::Dense a(2, 2, 1.0);
    a(1, 0) = 7.0; // the lower triangle is never touched
    kt::KelOf A(a), B(column({2, 2}));
    EXPECT_EQ(Cholesky_factor(A, 1, 1e-12), 1);
    EXPECT_EQ(A(0, 0), 1.0);
    EXPECT_EQ(A(0, 1), 1.0);
    EXPECT_EQ(A(1, 1), -1.0); // d = 0 < tol: dropped
    EXPECT_EQ(A(1, 0), 7.0);
    Cholesky_subst(A, 1, B);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(B), column({2, 0})));

    kt::KelOf F(column({4})), b(column({8}));
    EXPECT_EQ(Cholesky_factor(F, 0, 0.0), 1);
    EXPECT_EQ(F(0, 0), 2.0);
    Cholesky_subst(F, 0, b);
    EXPECT_EQ(b(0, 0), 2.0);

    kt::KelOf Z(kt::Dense(3, 3)), Bz(kt::Dense(3, 2, 5.0));
    EXPECT_EQ(Cholesky_factor(Z, 2, 1e-12), 0);
    Cholesky_subst(Z, 2, Bz);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Z(i, i), -1.0);
        EXPECT_EQ(Bz(i, 0), 0.0);
        EXPECT_EQ(Bz(i, 1), 0.0);
    }

    KelMatrix E;
    kt::KelOf Be(column({3, 4})); // order 0: B is left as it was
    EXPECT_EQ(Cholesky_factor(E, 0, 1e-12), 0);
    Cholesky_subst(E, 0, Be);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(Be), column({3, 4})));
}

TEST(BandCholesky, ToleranceIsStrictAndOnTheSquaredPivot)
{
    kt::Dense a(2, 2, 2.0);
    a(0, 0) = 4.0; // U(0,0) = 2, U(0,1) = 1, d1 = 2 - 1 = 1 exactly
    kt::KelOf A(a), A2(a);
    EXPECT_EQ(Cholesky_factor(A, 1, 1.0), 2); // d == tol is accepted
    EXPECT_EQ(A(1, 1), 1.0);
    EXPECT_EQ(Cholesky_factor(A2, 1, std::nextafter(1.0, 2.0)), 1);
    EXPECT_EQ(A2(1, 1), -1.0);

    kt::KelOf F(column({4}));
    EXPECT_EQ(Cholesky_factor(F, 1, 3.0), 1); // tested on d = 4, not on sqrt(d) = 2
}

// A NaN pivot passes the ordered tolerance test; the later rows of the factorization and the
// sums of both passes skip it, while both passes solve its own unknown (giving NaN).
TEST(BandCholesky, NaNPivotIsAcceptedAndSkippedInSums)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    kt::Dense a(2, 2, 1.0);
    a(0, 0) = nan;
    a(1, 1) = 4.0;
    kt::KelOf A(a), B(column({1, 8}));
    EXPECT_EQ(Cholesky_factor(A, 1, 1e-12), 2);
    EXPECT_EQ(A(1, 1), 2.0);
    Cholesky_subst(A, 1, B);
    EXPECT_TRUE(std::isnan(B(0, 0)));
    EXPECT_EQ(B(1, 0), 2.0);

    a(0, 0) = 4.0;
    a(1, 1) = nan;
    kt::KelOf A2(a), B2(column({8, 1}));
    EXPECT_EQ(Cholesky_factor(A2, 1, 1e-12), 2);
    Cholesky_subst(A2, 1, B2);
    EXPECT_EQ(B2(0, 0), 2.0);
    EXPECT_TRUE(std::isnan(B2(1, 0)));
}

// With tol = 0 a zero pivot is accepted, and the three diagonal tests part ways: the
// factorization skips row 0, the forward pass divides by 0 and row 0 still contributes to row
// 1, the backward pass gives the unknown 0.
TEST(BandCholesky, ZeroPivotAcceptedWithZeroTolerance)
{
    kt::Dense a(2, 2, 1.0);
    a(0, 0) = 0.0;
    a(1, 1) = 4.0;
    kt::KelOf A(a), B(column({1, 1}));
    EXPECT_EQ(Cholesky_factor(A, 1, 0.0), 2);
    EXPECT_EQ(A(0, 0), 0.0);
    EXPECT_EQ(A(0, 1), kInf);
    EXPECT_EQ(A(1, 1), 2.0); // 4 - (inf)^2 would have dropped it
    Cholesky_subst(A, 1, B);
    EXPECT_EQ(B(0, 0), 0.0);
    EXPECT_EQ(B(1, 0), -kInf); // y0 = inf contributes (1 - inf * inf) / 2
}

TEST(BandCholesky, DroppedPivotIsSkippedByLaterRows)
{
    kt::Dense a(3, 3, 1.0);
    a(2, 2) = 2.0;
    kt::KelOf A(a), B(column({2, 2, 3}));
    EXPECT_EQ(Cholesky_factor(A, 2, 1e-12), 2);
    EXPECT_EQ(A(1, 1), -1.0);
    EXPECT_EQ(A(1, 2), 1.0); // row 1 keeps its input
    EXPECT_EQ(A(2, 2), 1.0); // 2 - 1, without the dropped row's 1
    Cholesky_subst(A, 2, B);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(B), column({1, 0, 1})));
}

// Exact factors chosen so that one rounding tie decides the result: the forward pass subtracts
// from k = i-1 down to 0, the backward pass from k = i+1 up. (Either order reversed moves the
// pinned solution by 2^-54.)
TEST(BandCholesky, SubstitutionSumsRunInTheirFixedOrder)
{
    const double tiny = std::ldexp(1.0, -54); // half an ulp of 1: 1 - tiny rounds to 1
    kt::Dense a(3, 3);                        // U = [1 0 1; 0 1 1; 0 0 1]
    a.v = {1, 0, 1, 0, 1, 1, 1, 1, 3};
    kt::KelOf A(a), B(column({1, tiny, 1}));
    EXPECT_EQ(Cholesky_factor(A, 2, 1e-12), 3);
    Cholesky_subst(A, 2, B); // y2 = (1 - tiny) - 1 = 0, not (1 - 1) - tiny
    EXPECT_TRUE(kt::same_bits(kt::from_kel(B), column({1, tiny, 0})));

    a.v = {1, tiny, 1, tiny, 1, tiny, 1, tiny, 2}; // U = [1 tiny 1; 0 1 0; 0 0 1]
    kt::KelOf A2(a), B2(column({1, 1, 2}));
    EXPECT_EQ(Cholesky_factor(A2, 2, 1e-12), 3);
    Cholesky_subst(A2, 2, B2); // x0 = (1 - tiny) - 1 = 0, not (1 - 1) - tiny
    EXPECT_TRUE(kt::same_bits(kt::from_kel(B2), column({0, 1, 1})));
}

TEST(BandCholesky, EveryStorageGivesTheSameBits)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int n = 13, bw = 3;
    kt::Dense a = kt::random_spd(rng, n, bw);
    a(5, 5) = 0.0; // one dropped pivot
    const kt::Dense b = kt::random_dense(rng, n, 3);

    kt::KelOf dense(a);
    KelMatrix sym;
    sym.SetSymmetric(true);
    kt::to_kel(a, sym);
    KelMatrixBanded band;
    kt::to_band_upper(a, bw, band);
    kt::MapMatrix user(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - bw); i <= j; ++i)
            user(i, j) = a(i, j);

    KelGenericMatrix* storages[] = {&dense, &sym, &band, &user};
    kt::Dense factor0, x0;
    for (KelGenericMatrix* A : storages) {
        // The band matrix resolves bw <= 0 to its recorded upper band width.
        const int w = A == &band ? 0 : bw;
        EXPECT_EQ(Cholesky_factor(*A, w, 1e-10), n - 1);
        kt::KelOf B(b);
        Cholesky_subst(*A, w, B);
        if (A == storages[0]) {
            factor0 = kt::upper_band(*A, bw);
            x0 = kt::from_kel(B);
            continue;
        }
        EXPECT_TRUE(kt::same_bits(kt::upper_band(*A, bw), factor0));
        EXPECT_TRUE(kt::same_bits(kt::from_kel(B), x0));
    }
}

TEST(BandCholesky, NonPositiveWidthOnDefaultDenseIsFullCholesky)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int n = 9;
    kt::Dense a = kt::random_spd(rng, n, n - 1);
    kt::Dense input = a;
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i)
            input(i, j) = -3.0; // lower triangle: never read, never written

    kt::KelOf A(input); // upper band width -1: bw <= 0 resolves to n
    EXPECT_EQ(Cholesky_factor(A, 0, 1e-12), n);
    EXPECT_LT(reconstruction_ratio(a, kt::upper_band(A, n)), 30.0);
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i)
            EXPECT_EQ(A(i, j), -3.0);

    for (int w : {-4, n, 50}) {
        kt::KelOf A2(input);
        EXPECT_EQ(Cholesky_factor(A2, w, 1e-12), n);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(A2), kt::from_kel(A))) << "bw " << w;
    }
}

// Band storage; half of the systems get a dropped pivot, whose unknown must be 0 while the rest
// solves the system without that unknown.
TEST(BandCholesky, RandomBandSystems)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int shapes[][2] = {{1, 1}, {6, 1}, {20, 3}, {41, 7}, {30, 29}, {25, 40}};
    for (int t = 0; t < 12; ++t) {
        const int n = shapes[t % 6][0], bw = shapes[t % 6][1], kd = std::min(bw, n - 1);
        const bool drop = t >= 6 && n > 1;
        const int p = static_cast<int>(rng() % n);
        SCOPED_TRACE("n " + std::to_string(n) + " bw " + std::to_string(bw));
        kt::Dense a = kt::random_spd(rng, n, bw);
        if (drop)
            a(p, p) = 0.0;
        const kt::Dense b = kt::random_dense(rng, n, 3);
        KelMatrixBanded A;
        kt::to_band_upper(a, kd, A);
        kt::KelOf B(b);

        EXPECT_EQ(Cholesky_factor(A, bw, 1e-10), drop ? n - 1 : n);
        Cholesky_subst(A, bw, B);
        const kt::Dense x = kt::from_kel(B);
        if (!drop) {
            EXPECT_LT(reconstruction_ratio(a, kt::upper_band(A, kd)), 30.0);
            EXPECT_LT(kt::residual_ratio(a, x, b), 30.0);
            continue;
        }
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(x(p, c), 0.0);
        EXPECT_LT(kt::residual_ratio(kt::remove_index(a, p, true), kt::remove_index(x, p, false),
                                     kt::remove_index(b, p, false)),
                  30.0);
    }
}

} // namespace
