// KELMATRIX cyclic band solver tests
// The cyclic band Cholesky and the bordered solve driver against a dense elimination written
// here, residual ratios, and the band Cholesky on the degenerate border sizes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "kelmatrix/band.h"
#include "test_util.h"

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Order n, 4 on the diagonal, -1 beside it and in the corners (0, n-1) and (n-1, 0).
kt::Dense periodic(int n)
{
    kt::Dense a(n, n);
    for (int i = 0; i < n; ++i) {
        a(i, i) = 4.0;
        a(i, (i + 1) % n) = a((i + 1) % n, i) = -1.0;
    }
    return a;
}

// SPD, diagonally dominant: a band block of order nb and half-bandwidth bw, a dense border of m.
kt::Dense bordered_spd(std::mt19937_64& rng, int nb, int bw, int m)
{
    const int n = nb + m;
    kt::Dense a = kt::random_spd(rng, n, bw);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int j = nb; j < n; ++j)
        for (int i = 0; i < j; ++i)
            a(i, j) = a(j, i) = u(rng);
    for (int i = 0; i < n; ++i) {
        a(i, i) = 1.0;
        for (int j = 0; j < n; ++j)
            a(i, i) += j != i ? std::fabs(a(i, j)) : 0.0;
    }
    return a;
}

// The entries the bordered routines may read: the upper band of A11, A12 and the upper A22.
bool is_read(int i, int j, int nb, int bw)
{
    return i <= j && (j >= nb || j - i <= bw);
}

// NaN in every entry of m that the routines must not read.
void set_unread_nan(KelMatrix& m, int nb, int bw)
{
    for (int j = 0; j < m.GetColDim(); ++j)
        for (int i = 0; i < m.GetRowDim(); ++i)
            if (!is_read(i, j, nb, bw))
                m(i, j) = kNaN;
}

bool same_storage(const std::vector<double>& a, const std::vector<double>& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), sizeof(double) * a.size()) == 0;
}

void expect_solves(const kt::Dense& a, const kt::Dense& x, const kt::Dense& b)
{
    EXPECT_LT(kt::residual_ratio(a, x, b), 30.0);
    const kt::Dense want = kt::solve_dense(a, b);
    for (std::size_t k = 0; k < want.v.size(); ++k)
        EXPECT_NEAR(x.v[k], want.v[k], 1e-12 * (1.0 + std::fabs(want.v[k]))) << "at " << k;
}

TEST(CyclicCholesky, PeriodicTridiagonalOrderSix)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const kt::Dense a = periodic(6), b = kt::random_dense(rng, 6, 2);
    kt::KelOf A(a), B(b);
    EXPECT_EQ(cyclic_Cholesky_factor(A, 1, 1, 1e-12), 1);
    cyclic_Cholesky_subst(A, 1, 1, B);
    expect_solves(a, kt::from_kel(B), b);
}

// NaN in every entry that must be neither read nor written; the same matrix in symmetric dense
// and in user storage gives the same bits.
TEST(CyclicCholesky, RandomSystemsInEveryStorage)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int shapes[][3] = {{1, 1, 1}, {12, 3, 2}, {30, 5, 4}, {20, 19, 3}, {7, 2, 7}};
    for (const auto& s : shapes) {
        const int nb = s[0], bw = s[1], m = s[2], n = nb + m;
        SCOPED_TRACE(std::to_string(nb) + " " + std::to_string(bw) + " " + std::to_string(m));
        const kt::Dense a = bordered_spd(rng, nb, bw, m), b = kt::random_dense(rng, n, 3);
        kt::KelOf dense(a);
        set_unread_nan(dense, nb, bw);
        KelMatrix sym;
        sym.SetSymmetric(true);
        sym.Dimension(n, n, -1, -1);
        kt::MapMatrix user(n, n);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i <= j; ++i)
                sym(i, j) = user(i, j) = dense(i, j);

        KelGenericMatrix* storages[] = {&dense, &sym, &user};
        kt::Dense x0;
        for (KelGenericMatrix* A : storages) {
            EXPECT_EQ(cyclic_Cholesky_factor(*A, bw, m, 1e-10), m);
            kt::KelOf B(b);
            cyclic_Cholesky_subst(*A, bw, m, B);
            if (A == &dense) {
                x0 = kt::from_kel(B);
                EXPECT_LT(kt::residual_ratio(a, x0, b), 30.0);
                continue;
            }
            EXPECT_TRUE(kt::same_bits(kt::upper_band(*A, n), kt::upper_band(dense, n)));
            EXPECT_TRUE(kt::same_bits(kt::from_kel(B), x0));
        }
        int written = 0;
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                written += !is_read(i, j, nb, bw) && !std::isnan(dense(i, j));
        EXPECT_EQ(written, 0);
    }
}

// m = 0 is the band Cholesky of the whole matrix and m = n the dense one, bit for bit; only the
// Schur complement's pivots are counted.
TEST(CyclicCholesky, EmptyAndFullBorder)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int n = 9, bw = 2;
    kt::Dense a = kt::random_spd(rng, n, bw);
    a(4, 4) = 0.0; // one dropped pivot
    const kt::Dense b = kt::random_dense(rng, n, 2);

    for (int m : {0, n}) {
        SCOPED_TRACE("m " + std::to_string(m));
        kt::KelOf A(a), R(a), B(b), BR(b);
        EXPECT_EQ(cyclic_Cholesky_factor(A, bw, m, 1e-10), m == 0 ? 0 : n - 1);
        Cholesky_factor(R, m == 0 ? bw : n, 1e-10);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(A), kt::from_kel(R)));
        cyclic_Cholesky_subst(A, bw, m, B);
        Cholesky_subst(R, m == 0 ? bw : n, BR);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(B), kt::from_kel(BR)));
        EXPECT_EQ(B(4, 0), 0.0);
    }
}

TEST(CyclicCholesky, DroppedBandPivotGivesZeroRowAndUnknown)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int nb = 8, bw = 2, m = 2, n = nb + m, p = 3;
    kt::Dense a = bordered_spd(rng, nb, bw, m);
    a(p, p) = 0.0;
    const kt::Dense b = kt::random_dense(rng, n, 3);
    kt::KelOf A(a), B(b);

    EXPECT_EQ(cyclic_Cholesky_factor(A, bw, m, 1e-10), m); // the band's drop is not counted
    EXPECT_EQ(A(p, p), -1.0);
    for (int k = 0; k < m; ++k)
        EXPECT_EQ(A(p, nb + k), 0.0); // row p of W
    cyclic_Cholesky_subst(A, bw, m, B);
    const kt::Dense x = kt::from_kel(B);
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ(x(p, c), 0.0);
    expect_solves(kt::remove_index(a, p, true), kt::remove_index(x, p, false),
                  kt::remove_index(b, p, false));
}

// A11 = I and a border of 2^-27: every sum over the band block is 2^-54 + 2^-54 = 2^-53 exactly,
// while subtracting the terms one by one would round each half-ulp step back to 1. Both solvers
// form each sum first and subtract it once, and agree to the last bit.
TEST(CyclicCholesky, SumsAreFormedFirstAndSubtractedOnce)
{
    const double e = std::ldexp(1.0, -27), u = 1.0 - std::ldexp(1.0, -53);
    kt::Dense a(3, 3), b(3, 1);
    a.v = {1, 0, e, 0, 1, e, e, e, 1};
    b.v = {e, e, 1};
    kt::Dense want(3, 1);
    want.v = {-std::ldexp(1.0, -79), -std::ldexp(1.0, -79), 1.0 + std::ldexp(1.0, -52)};

    kt::KelOf A(a), B(b), Ad(a), Bd(b);
    EXPECT_EQ(cyclic_Cholesky_factor(A, 1, 1, 0.0), 1);
    EXPECT_EQ(A(2, 2), u); // sqrt(1 - 2^-53), not sqrt(1)
    cyclic_Cholesky_subst(A, 1, 1, B);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(B), want));

    KelMatrix X;
    ASSERT_TRUE(SolveBSP_Cyclic(Ad, Bd, 2, 1, X));
    EXPECT_TRUE(kt::same_bits(kt::from_kel(X), want));
}

TEST(SolveBSPCyclic, PeriodicTridiagonalOrderEight)
{
    std::mt19937_64 rng(kt::seed() + 5);
    SCOPED_TRACE(kt::seed_note());
    const kt::Dense a = periodic(8), b = kt::random_dense(rng, 8, 2);
    kt::KelOf Am(a), B(b);
    set_unread_nan(Am, 7, 1);
    const KelMatrix& A = Am; // read through the const accessor only
    KelMatrix X, X2;
    const std::vector<double> a0 = kt::snapshot(A), b0 = kt::snapshot(B);

    ASSERT_TRUE(SolveBSP_Cyclic(A, B, 7, 3, X));
    EXPECT_EQ(X.GetRowDim(), 8);
    EXPECT_EQ(X.GetColDim(), 2);
    expect_solves(a, kt::from_kel(X), b);
    ASSERT_TRUE(SolveBSP_Cyclic(A, B, 7, 2, X2)); // the same half-bandwidth 1
    EXPECT_TRUE(kt::same_bits(kt::from_kel(X2), kt::from_kel(X)));
    EXPECT_TRUE(same_storage(kt::snapshot(A), a0));
    EXPECT_TRUE(same_storage(kt::snapshot(B), b0));
}

TEST(SolveBSPCyclic, FailureLeavesEverythingAsItWas)
{
    std::mt19937_64 rng(kt::seed() + 7);
    SCOPED_TRACE(kt::seed_note());
    const int nb = 7, m = 2, n = nb + m;
    kt::Dense zero_pivot = bordered_spd(rng, nb, 1, m);
    zero_pivot(0, 0) = 0.0;
    kt::Dense indefinite = bordered_spd(rng, nb, 1, m);
    indefinite(n - 1, n - 1) = -indefinite(n - 1, n - 1); // S(0, 0) > 0, S(1, 1) < 0
    const kt::Dense spd = bordered_spd(rng, nb, 1, m);
    const kt::Dense b = kt::random_dense(rng, n, 2), x_before = kt::random_dense(rng, 3, 1);

    struct Case {
        const char* what;
        const kt::Dense* a;
        int nb;
    } cases[] = {{"zero band pivot", &zero_pivot, nb},
                 {"indefinite Schur complement", &indefinite, nb},
                 {"no border (m = 0)", &spd, n}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        kt::KelOf A(*c.a), B(b), X(x_before);
        const std::vector<double> a0 = kt::snapshot(A), b0 = kt::snapshot(B);
        const double* x_elements = X.GetElements();
        EXPECT_FALSE(SolveBSP_Cyclic(A, B, c.nb, 3, X));
        EXPECT_EQ(X.GetElements(), x_elements);
        EXPECT_EQ(X.GetRowDim(), 3);
        EXPECT_TRUE(kt::same_bits(kt::from_kel(X), x_before));
        EXPECT_TRUE(same_storage(kt::snapshot(A), a0));
        EXPECT_TRUE(same_storage(kt::snapshot(B), b0));
    }
}

// Each system also as a saddle point: A22 = 0 and a border of full column rank make the Schur
// complement -A12^T A11^-1 A12 negative definite, which is negated and solved.
TEST(SolveBSPCyclic, RandomAndSaddlePointSystems)
{
    std::mt19937_64 rng(kt::seed() + 8);
    SCOPED_TRACE(kt::seed_note());
    const int shapes[][3] = {{1, 0, 1}, {12, 3, 2}, {40, 6, 5}, {20, 19, 3}, {6, 2, 9}};
    for (const auto& s : shapes)
        for (bool saddle : {false, true}) {
            const int nb = s[0], kd = s[1], m = s[2], n = nb + m;
            if (saddle && m > nb)
                continue; // the border cannot have full column rank
            SCOPED_TRACE(std::to_string(nb) + " " + std::to_string(kd) + " " +
                         std::to_string(m) + (saddle ? " saddle" : ""));
            kt::Dense a = bordered_spd(rng, nb, kd, m);
            for (int r = nb; saddle && r < n; ++r)
                for (int c = nb; c < n; ++c)
                    a(r, c) = 0.0;
            const kt::Dense b = kt::random_dense(rng, n, 3);
            kt::KelOf A(a), B(b);
            set_unread_nan(A, nb, kd);
            KelMatrix X;
            ASSERT_TRUE(SolveBSP_Cyclic(A, B, nb, 2 * kd + 1, X));
            EXPECT_LT(kt::residual_ratio(a, kt::from_kel(X), b), 30.0);
        }
}

} // namespace
