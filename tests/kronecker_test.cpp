// KELMATRIX Kronecker solver tests
// Every result is checked against A kron B formed densely here and solved by plain loops.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>

#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

const double kTol = 1e-8; // Cholesky_factor tolerance on d = U(i,i)^2

kt::Dense kron(const kt::Dense& P, const kt::Dense& Q)
{
    kt::Dense K(P.rows * Q.rows, P.cols * Q.cols);
    for (int a = 0; a < P.rows; ++a)
        for (int b = 0; b < P.cols; ++b)
            for (int s = 0; s < Q.rows; ++s)
                for (int t = 0; t < Q.cols; ++t)
                    K(a * Q.rows + s, b * Q.cols + t) = P(a, b) * Q(s, t);
    return K;
}

kt::Dense transpose(const kt::Dense& a)
{
    kt::Dense t(a.cols, a.rows);
    for (int j = 0; j < a.cols; ++j)
        for (int i = 0; i < a.rows; ++i)
            t(j, i) = a(i, j);
    return t;
}

// Gaussian elimination with partial pivoting.
kt::Dense solve_ge(kt::Dense a, kt::Dense b)
{
    const int n = a.rows;
    for (int k = 0; k < n; ++k) {
        int piv = k;
        for (int i = k + 1; i < n; ++i)
            if (std::fabs(a(i, k)) > std::fabs(a(piv, k)))
                piv = i;
        for (int j = 0; j < n; ++j)
            std::swap(a(k, j), a(piv, j));
        for (int j = 0; j < b.cols; ++j)
            std::swap(b(k, j), b(piv, j));
        for (int i = k + 1; i < n; ++i) {
            const double l = a(i, k) / a(k, k);
            for (int j = k; j < n; ++j)
                a(i, j) -= l * a(k, j);
            for (int j = 0; j < b.cols; ++j)
                b(i, j) -= l * b(k, j);
        }
    }
    for (int c = 0; c < b.cols; ++c)
        for (int i = n - 1; i >= 0; --i) {
            for (int j = i + 1; j < n; ++j)
                b(i, c) -= a(i, j) * b(j, c);
            b(i, c) /= a(i, i);
        }
    return b;
}

void expect_rel_close(const kt::Dense& got, const kt::Dense& want, double rtol = 1e-11)
{
    ASSERT_EQ(got.v.size(), want.v.size());
    double scale = 0.0;
    for (double x : want.v)
        scale = std::max(scale, std::fabs(x));
    for (std::size_t k = 0; k < got.v.size(); ++k)
        EXPECT_NEAR(got.v[k], want.v[k], rtol * scale) << "at " << k;
}

// Groups of a Solve_Kronecker right-hand side (nB x m*nA) as columns of length nA*nB.
kt::Dense groups_as_columns(const kt::Dense& x, int nA, int m)
{
    kt::Dense v(nA * x.rows, m);
    for (int k = 0; k < m; ++k)
        for (int j = 0; j < nA; ++j)
            for (int i = 0; i < x.rows; ++i)
                v(j * x.rows + i, k) = x(i, k * nA + j);
    return v;
}

// The upper band of a factor, zero elsewhere (out-of-band slots of band storage are not read).
kt::Dense upper_band(const KelGenericMatrix& u, int bw)
{
    const int n = u.GetRowDim();
    kt::Dense d(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - bw); i <= j; ++i)
            d(i, j) = u(i, j);
    return d;
}

void load(const kt::Dense& a, int /*bw*/, KelMatrix& m) { kt::to_kel(a, m); }
void load(const kt::Dense& a, int bw, KelMatrixBanded& m) { kt::to_band_upper(a, bw, m); }

TEST(SolveKronecker, EveryGroupSolvesTheProductSystemInBothCopyModes)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int cases[][4] = {{5, 4, 1, 2}, {3, 8, 2, 1}, {8, 6, 3, 5}, {4, 4, 3, 3}}; // nA nB kdA kdB
    for (const auto& c : cases)
        for (bool copy : {true, false}) {
            const int nA = c[0], nB = c[1], m = 3;
            const kt::Dense a = kt::random_spd(rng, nA, c[2]), b = kt::random_spd(rng, nB, c[3]);
            const kt::Dense x = kt::random_dense(rng, nB, m * nA);
            KelMatrixBanded A, B;
            KelMatrix X;
            kt::to_band_upper(a, c[2], A);
            kt::to_band_upper(b, c[3], B);
            kt::to_kel(x, X);
            const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
            ASSERT_TRUE(Solve_Kronecker(A, B, X, copy));

            const kt::Dense K = kron(a, b), rhs = groups_as_columns(x, nA, m);
            const kt::Dense y = groups_as_columns(kt::from_kel(X), nA, m);
            EXPECT_LT(kt::residual_ratio(K, y, rhs), 30.0) << nA << "x" << nB << " copy " << copy;
            expect_rel_close(y, solve_ge(K, rhs));
            if (copy) {
                EXPECT_EQ(kt::snapshot(A), a0);
                EXPECT_EQ(kt::snapshot(B), b0);
            } else { // factored in place: the upper band now holds U with U^T U = A
                const kt::Dense u = upper_band(A, c[2]);
                EXPECT_LT(kt::residual_ratio(transpose(u), u, a), 30.0);
            }
        }
}

TEST(SolveKronecker, TrailingColumnsKeepTheirInputOrGetBInverse)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int nA = 3, nB = 5, m = 2, cols = m * nA + 2;
    const kt::Dense a = kt::random_spd(rng, nA, 1), b = kt::random_spd(rng, nB, 2);
    const kt::Dense x = kt::random_dense(rng, nB, cols);
    for (bool copy : {true, false}) {
        KelMatrixBanded A, B;
        KelMatrix X;
        kt::to_band_upper(a, 1, A);
        kt::to_band_upper(b, 2, B);
        kt::to_kel(x, X);
        ASSERT_TRUE(Solve_Kronecker(A, B, X, copy));
        const kt::Dense got = kt::from_kel(X);
        EXPECT_LT(kt::residual_ratio(kron(a, b), groups_as_columns(got, nA, m),
                                     groups_as_columns(x, nA, m)),
                  30.0);
        kt::Dense tail_in(nB, 2), tail_out(nB, 2);
        for (int j = 0; j < 2; ++j)
            for (int i = 0; i < nB; ++i) {
                tail_in(i, j) = x(i, m * nA + j);
                tail_out(i, j) = got(i, m * nA + j);
            }
        if (copy)
            EXPECT_EQ(tail_out.v, tail_in.v);
        else
            EXPECT_LT(kt::residual_ratio(b, tail_out, tail_in), 30.0);
    }
}

TEST(SolveKronecker, OneByOneOperandsDivideByTheProduct)
{
    KelMatrixBanded A, B;
    KelMatrix X;
    kt::to_band_upper(kt::Dense(1, 1, 3.0), 0, A);
    kt::to_band_upper(kt::Dense(1, 1, 7.0), 0, B);
    kt::Dense x(1, 3);
    x.v = {21.0, -4.2, 1.0};
    kt::to_kel(x, X);
    ASSERT_TRUE(Solve_Kronecker(A, B, X, true));
    for (int j = 0; j < 3; ++j)
        EXPECT_NEAR(X(0, j), x(0, j) / 21.0, 4e-16 * std::fabs(x(0, j)));
}

TEST(SolveKronecker, NonPositiveDefiniteOperandFails)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int nA = 4, nB = 3;
    const kt::Dense x = kt::random_dense(rng, nB, 2 * nA);
    for (int bad = 0; bad < 2; ++bad) { // 0: B (first solve) fails, 1: A (second solve) fails
        kt::Dense a = kt::random_spd(rng, nA, 1), b = kt::random_spd(rng, nB, 1);
        (bad ? a : b)(1, 1) = -1.0;
        for (bool copy : {true, false}) {
            KelMatrixBanded A, B;
            KelMatrix X;
            kt::to_band_upper(a, 1, A);
            kt::to_band_upper(b, 1, B);
            kt::to_kel(x, X);
            const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B), x0 = kt::snapshot(X);
            EXPECT_FALSE(Solve_Kronecker(A, B, X, copy));
            if (copy) {
                EXPECT_EQ(kt::snapshot(A), a0);
                EXPECT_EQ(kt::snapshot(B), b0);
                EXPECT_EQ(kt::snapshot(X), x0);
            } else if (bad == 1) { // the first solve ran in X's own array
                EXPECT_LT(kt::residual_ratio(b, kt::from_kel(X), x), 30.0);
            }
        }
    }
}

// Factors a1 and a2 with Cholesky_factor in the storage types given; returns the accepted counts.
template <class M1, class M2>
std::pair<int, int> factor(const kt::Dense& a1, int w1, const kt::Dense& a2, int w2, M1& U1,
                           M2& U2)
{
    load(a1, w1, U1);
    load(a2, w2, U2);
    return {Cholesky_factor(U1, w1, kTol), Cholesky_factor(U2, w2, kTol)};
}

TEST(KroneckerSubstitute, LowerThenUpperSolvesTheProductSystem)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int cases[][4] = {{7, 3, 1, 2}, {5, 6, 2, 5}, {8, 4, 3, 1}, {2, 8, 1, 3}}; // p q w1 w2
    for (const auto& c : cases) {
        const int p = c[0], q = c[1], w1 = c[2], w2 = c[3], nrhs = 3;
        SCOPED_TRACE(testing::Message() << "p " << p << " q " << q << " w1 " << w1);
        const kt::Dense a1 = kt::random_spd(rng, p, w1), a2 = kt::random_spd(rng, q, w2);
        const kt::Dense x = kt::random_dense(rng, p * q, nrhs);
        KelMatrixBanded U1b, U2b;
        KelMatrix U1d, U2d, X, Xb;
        factor(a1, w1, a2, w2, U1b, U2d);
        factor(a1, w1, a2, w2, U1d, U2b);
        const kt::Dense Ku = kron(upper_band(U1b, w1), upper_band(U2d, w2));

        kt::to_kel(x, X);
        kronecker_lower_substitute(w1, w2, U1b, U2d, X);
        const kt::Dense z = kt::from_kel(X);
        EXPECT_LT(kt::residual_ratio(transpose(Ku), z, x), 30.0);
        kronecker_upper_substitute(w1, w2, U1b, U2d, X);
        const kt::Dense y = kt::from_kel(X);
        EXPECT_LT(kt::residual_ratio(Ku, y, z), 30.0);
        EXPECT_LT(kt::residual_ratio(kron(a1, a2), y, x), 30.0);

        // The same factors in the other storage types: bit for bit the same.
        kt::to_kel(x, Xb);
        kronecker_lower_substitute(w1, w2, U1d, U2b, Xb);
        EXPECT_EQ(kt::snapshot(Xb), z.v);
        kronecker_upper_substitute(w1, w2, U1d, U2b, Xb);
        EXPECT_EQ(kt::snapshot(Xb), y.v);

        // Solve_Kronecker with A = a1, B = a2 on the columns reshaped to q x p groups.
        KelMatrixBanded A, B;
        KelMatrix G;
        kt::to_band_upper(a1, w1, A);
        kt::to_band_upper(a2, w2, B);
        G.Dimension(q, nrhs * p, -1, -1);
        for (int k = 0; k < nrhs; ++k)
            for (int j = 0; j < p; ++j)
                for (int i = 0; i < q; ++i)
                    G(i, k * p + j) = x(j * q + i, k);
        ASSERT_TRUE(Solve_Kronecker(A, B, G, true));
        expect_rel_close(groups_as_columns(kt::from_kel(G), p, nrhs), y);
    }
}

TEST(KroneckerSubstitute, DroppedPivotOfU1ZeroesItsBlock)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int p = 5, q = 4, drop = 2, nrhs = 2;
    // a1 repeats row and column 1 of s at 2: semidefinite, and without row 2 exactly s.
    const kt::Dense s = kt::random_spd(rng, p - 1, p - 2), a2 = kt::random_spd(rng, q, 1);
    const auto from = [](int r) { return r < drop ? r : r - 1; };
    kt::Dense a1(p, p);
    for (int j = 0; j < p; ++j)
        for (int i = 0; i < p; ++i)
            a1(i, j) = s(from(i), from(j));
    const kt::Dense x = kt::random_dense(rng, p * q, nrhs);
    KelMatrix U1, U2, X;
    ASSERT_EQ(factor(a1, p, a2, 1, U1, U2), std::make_pair(p - 1, q));
    ASSERT_EQ(U1(drop, drop), -1.0);

    kt::to_kel(x, X);
    for (int half = 0; half < 2; ++half) {
        if (half == 0)
            kronecker_lower_substitute(p, 1, U1, U2, X);
        else
            kronecker_upper_substitute(p, 1, U1, U2, X);
        for (int c = 0; c < nrhs; ++c)
            for (int t = 0; t < q; ++t)
                EXPECT_EQ(X(drop * q + t, c), 0.0);
    }
    // The other blocks solve (s kron a2) y = x without block 2.
    kt::Dense xs((p - 1) * q, nrhs), ys((p - 1) * q, nrhs);
    for (int c = 0; c < nrhs; ++c)
        for (int r = 0; r < p * q; ++r)
            if (r / q != drop) {
                xs(from(r / q) * q + r % q, c) = x(r, c);
                ys(from(r / q) * q + r % q, c) = X(r, c);
            }
    expect_rel_close(ys, solve_ge(kron(s, a2), xs), 1e-9);
}

TEST(KroneckerSubstitute, ZeroDiagonalOfU1DividesInLowerAndZeroesInUpper)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int p = 4, q = 3, i0 = 1;
    const kt::Dense x = kt::random_dense(rng, p * q, 2);
    KelMatrix U1z, U1d, U2, Xz, Xd;
    const kt::Dense a1 = kt::random_spd(rng, p, p - 1), a2 = kt::random_spd(rng, q, q - 1);
    factor(a1, p, a2, q, U1z, U2);
    U1d = U1z;
    U1z(i0, i0) = 0.0;
    U1d(i0, i0) = -1.0; // the dropped-pivot mark as reference

    kt::to_kel(x, Xz);
    kt::to_kel(x, Xd);
    kronecker_lower_substitute(p, q, U1z, U2, Xz);
    kronecker_lower_substitute(p, q, U1d, U2, Xd);
    for (int c = 0; c < 2; ++c)
        for (int r = 0; r < p * q; ++r) {
            if (r / q == i0)
                EXPECT_FALSE(std::isfinite(Xz(r, c))) << r;
            else
                EXPECT_EQ(Xz(r, c), Xd(r, c)) << r; // a zero diagonal never contributes
        }

    kt::to_kel(x, Xz);
    kt::to_kel(x, Xd);
    kronecker_upper_substitute(p, q, U1z, U2, Xz);
    kronecker_upper_substitute(p, q, U1d, U2, Xd);
    EXPECT_EQ(kt::snapshot(Xz), kt::snapshot(Xd));
    for (int t = 0; t < q; ++t)
        EXPECT_EQ(Xz(i0 * q + t, 0), 0.0);
}

TEST(KroneckerSubstitute, NonPositiveWidthsTakeTheirDefaults)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int p = 3, q = 7;
    const kt::Dense a1 = kt::random_spd(rng, p, p - 1), a2 = kt::random_spd(rng, q, q - 1);
    const kt::Dense x = kt::random_dense(rng, p * q, 2);
    // Full factors in dense matrices that record an upper band width of 1, which the defaults
    // must not use.
    KelMatrix U1, U2;
    U1.Dimension(p, p, 0, 1);
    U2.Dimension(q, q, 0, 1);
    kt::fill(U1, a1);
    kt::fill(U2, a2);
    ASSERT_EQ(Cholesky_factor(U1, p, kTol), p);
    ASSERT_EQ(Cholesky_factor(U2, q, kTol), q);

    const auto run = [&](bool lower, int w1, int w2) {
        KelMatrix X;
        kt::to_kel(x, X);
        (lower ? kronecker_lower_substitute : kronecker_upper_substitute)(w1, w2, U1, U2, X);
        return kt::snapshot(X);
    };
    // Lower: w1 -> p, w2 -> q, the full solve.
    EXPECT_EQ(run(true, 0, -3), run(true, p, q));
    kt::Dense z(p * q, 2);
    z.v = run(true, 0, 0);
    EXPECT_LT(kt::residual_ratio(transpose(kron(upper_band(U1, p), upper_band(U2, q))), z, x),
              30.0);
    // Upper: w2 -> p, narrower than the inner factor's band.
    EXPECT_EQ(run(false, 0, 0), run(false, p, p));
    EXPECT_NE(run(false, 0, 0), run(false, p, q));
}

} // namespace
