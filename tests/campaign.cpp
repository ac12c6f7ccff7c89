// KELMATRIX randomized residual families
// Seeded random problems through every exported solver and factorisation, one function per
// family, each case judged by LAPACK's acceptance ratios computed here with plain loops.
//
// A case draws a size (1, small, around the block sizes 16, 32, 64 and 128), a band width (0, 1,
// small, >= n), a right-hand-side count (0 included), a conditioning, a storage and a copy mode,
// then checks ||B - A X||_1 / (||A||_1 ||X||_1 n eps) <= 30 or the matching ratio of a
// factorisation or an eigen decomposition, and that the inputs the copy rule protects are
// untouched. Slots a routine must not read hold NaN or kt::kGarbage. Conditionings: "well" is
// diagonally dominant (general and symmetric alike) or, for least squares, built from singular
// values in [0.1, 1]; "near" is within 1e-6..1e-10 of singular; "deficient" has an exactly known
// rank.
//
// A case also returns every output it produced, so that the concurrency test can compare a case
// run alone with the same case run beside others, bit for bit.
#include "campaign.h"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"
#include "kelmatrix/sparse.h"
#include "test_util.h"

namespace {

using kt::Dense;

const double kEps = std::numeric_limits<double>::epsilon();
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kBound = 30.0; // LAPACK's threshold for its test ratios

enum class Cond { Well, Near, Deficient };
const char* const kCondName[] = {"well", "near-singular", "deficient"};

struct Case {
    std::mt19937_64 rng;
    std::vector<double> out; // every output in order: return codes, results

    void keep(double v) { out.push_back(v); }
    void keep(const Dense& d) { out.insert(out.end(), d.v.begin(), d.v.end()); }
    void keep(const KelGenericMatrix& m)
    {
        out.insert(out.end(), m.GetElements(), m.GetElements() + m.GetStorageSize());
    }
    /// A solve's checks: it succeeded, X is a.cols x b.cols, and the residual ratio.
    void solved(const std::string& what, bool ok, const Dense& a, const KelGenericMatrix& X,
                const Dense& b);

    int draw(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
    double uniform(double lo, double hi)
    {
        return std::uniform_real_distribution<double>(lo, hi)(rng);
    }
    template <class T> T pick(std::initializer_list<T> choices)
    {
        return choices.begin()[draw(0, int(choices.size()) - 1)];
    }
    /// 1 to 3, small, moderate, around a block size, or around 128; never above cap.
    int size(int cap = 129)
    {
        const int r = draw(0, 99);
        const int n = r < 15   ? draw(1, 3)
                      : r < 55 ? draw(4, 12)
                      : r < 80 ? draw(13, 40)
                      : r < 96 ? pick({15, 16, 17, 31, 32, 33, 63, 64, 65})
                               : pick({127, 128, 129});
        return std::min(n, cap);
    }
    /// 0, 1, small, n - 1 or beyond n.
    int band_width(int n) { return pick({0, 1, draw(2, 5), std::max(0, n - 1), n + draw(0, 3)}); }
    int rhs_count() { return draw(0, 99) < 3 ? 0 : draw(0, 1) ? 1 : draw(2, 7); }
    Cond cond(bool deficient_allowed) { return Cond(draw(0, deficient_allowed ? 2 : 1)); }
    /// One case in four writes its solution into its right-hand side (X and B the same matrix).
    bool aliased() { return draw(0, 3) == 0; }
};

void expect_ratio(double r, const std::string& what)
{
    EXPECT_LE(r, kBound) << what; // NaN fails too
}

void Case::solved(const std::string& what, bool ok, const Dense& a, const KelGenericMatrix& X,
                  const Dense& b)
{
    keep(ok);
    keep(X);
    ASSERT_TRUE(ok) << what << " failed";
    ASSERT_TRUE(X.GetRowDim() == a.cols && X.GetColDim() == b.cols) << what << ": X's shape";
    expect_ratio(kt::residual_ratio(a, kt::from_kel(X), b), what);
}

double max_diagonal(const Dense& a)
{
    double d = 0.0;
    for (int i = 0; i < a.rows; ++i)
        d = std::max(d, std::fabs(a(i, i)));
    return d;
}

/// The pivot tolerance of the native factorisations: relative to the largest diagonal.
double tolerance(const Dense& a)
{
    return 1e-12 * std::max(1.0, max_diagonal(a));
}

// ---- generators ----

/// Adds delta = 1e-6..1e-9 times the largest diagonal: a smallest eigenvalue of about delta.
void shift_near_singular(Case& c, Dense& a)
{
    const double delta = std::pow(10.0, -c.uniform(6.0, 9.0)) * std::max(1.0, max_diagonal(a));
    for (int i = 0; i < a.rows; ++i)
        a(i, i) += delta;
}

/// Sets each diagonal entry to +-(1 + the rest of its row's magnitudes): strictly diagonally
/// dominant, so nonsingular with ||A^-1||_inf <= 1.
void make_dominant(Case& c, Dense& a, bool any_sign)
{
    for (int i = 0; i < a.rows; ++i) {
        double s = 1.0;
        for (int j = 0; j < a.cols; ++j)
            s += j != i ? std::fabs(a(i, j)) : 0.0;
        a(i, i) = any_sign && c.draw(0, 1) ? -s : s;
    }
}

/// The Laplacian of a weighted band graph (weights in [0.1, 1] between unknowns at most kd
/// apart) cut into `parts` consecutive components: positive semi-definite, and with kd >= 1 its
/// rank is exactly n - parts (each component's indicator is a null vector).
Dense laplacian(Case& c, int n, int kd, int parts)
{
    Dense a(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - kd); i < j; ++i)
            if (i * parts / n == j * parts / n) {
                const double w = c.uniform(0.1, 1.0);
                a(i, j) = a(j, i) = -w;
                a(i, i) += w;
                a(j, j) += w;
            }
    return a;
}

/// Symmetric positive (semi-)definite with half-bandwidth kd, and its exact rank.
Dense spd(Case& c, int n, int kd, Cond cond, int& rank)
{
    rank = n;
    if (cond == Cond::Well)
        return kt::random_spd(c.rng, n, kd);
    const int parts = cond == Cond::Near ? 1 : kd == 0 ? n : c.draw(1, std::min(n, 3));
    Dense a = laplacian(c, n, kd, parts);
    if (cond == Cond::Near)
        shift_near_singular(c, a);
    else
        rank = n - parts;
    return a;
}

/// General with lower and upper widths kl, ku. Well: uniform entries, dominant diagonal, and
/// (without a band) the rows shuffled so that partial pivoting has work to do. Near-singular:
/// without a band, a last row that repeats the sum of two others to 1e-10; with one, a shifted
/// Laplacian inside it.
Dense general(Case& c, int n, int kl, int ku, Cond cond)
{
    const bool band = kl < n - 1 || ku < n - 1;
    int rank = 0;
    Dense a = cond == Cond::Near && band ? spd(c, n, std::min(kl, ku), cond, rank)
                                         : kt::random_dense(c.rng, n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
            if (i - j > kl || j - i > ku)
                a(i, j) = 0.0;
    if (cond == Cond::Well) {
        make_dominant(c, a, true);
        for (int i = n - 1; i > 0 && !band; --i) // Fisher-Yates over the rows
            for (int j = 0, k = c.draw(0, i); j < n; ++j)
                std::swap(a(i, j), a(k, j));
    } else if (!band && n >= 2) {
        for (int j = 0; j < n; ++j)
            a(n - 1, j) = a(0, j) + (n > 2 ? a(1, j) : 0.0) + 1e-10 * c.uniform(-1.0, 1.0);
    }
    return a;
}

/// Symmetric bordered: a band block of order nb (half-bandwidth bw) and a dense border of m.
/// Well: diagonally dominant. Otherwise the Laplacian of the graph with the band edges and
/// every edge to the border (connected: rank n - 1), shifted by delta for near-singular.
Dense bordered(Case& c, int nb, int bw, int m, Cond cond, int& rank)
{
    const int n = nb + m;
    Dense a(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < j; ++i)
            if (j >= nb || j - i <= bw) {
                a(i, j) = a(j, i) =
                    cond == Cond::Well ? c.uniform(-1.0, 1.0) : -c.uniform(0.1, 1.0);
                a(i, i) += std::fabs(a(i, j));
                a(j, j) += std::fabs(a(i, j));
            }
    for (int i = 0; i < n && cond == Cond::Well; ++i)
        a(i, i) += 1.0;
    if (cond == Cond::Near)
        shift_near_singular(c, a);
    rank = cond != Cond::Deficient ? n : (m == 0 && bw == 0) ? 0 : n - 1;
    return a;
}

/// Entries of a bordered matrix that the bordered routines read: the upper band of A11, the
/// border columns and the upper triangle of A22.
bool bordered_read(int i, int j, int nb, int bw)
{
    return i <= j && (j >= nb || j - i <= bw);
}

// ---- storages for the routines that read through the accessor ----

enum class Store { Dense, DenseSymmetric, Band, BandWide, Bordered };
const char* const kStoreName[] = {"dense", "dense-symmetric", "band", "band-wide", "bordered"};

bool is_band(Store s)
{
    return s == Store::Band || s == Store::BandWide;
}

Store pick_store(Case& c)
{
    return c.pick({Store::Dense, Store::DenseSymmetric, Store::Band, Store::BandWide});
}

/// a's entries where read(i, j) holds, in the chosen storage (band: upper width ku, and kl
/// extra lower diagonals for band-wide; bordered: band width ku, border m); every other slot of
/// the array holds NaN.
template <class Read>
std::unique_ptr<KelGenericMatrix> store(Case& c, const Dense& a, Store s, int ku, Read read,
                                        int border = 0)
{
    const int n = a.rows;
    std::unique_ptr<KelGenericMatrix> m;
    if (s == Store::Bordered) {
        auto* b = new KelMatrixBordered;
        m.reset(b);
        EXPECT_EQ(b->DimensionBordered(n, ku, border), KEL_BORDERED_OK);
    } else if (is_band(s)) {
        m.reset(new KelMatrixBanded);
        m->Dimension(n, n, s == Store::BandWide ? c.draw(1, 3) : 0, ku);
    } else {
        m.reset(new KelMatrix);
        m->Dimension(n, n, -1, -1);
    }
    std::fill(m->GetElements(), m->GetElements() + m->GetStorageSize(), kNaN);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            if (read(i, j) && (!is_band(s) || j - i <= ku))
                (*m)(i, j) = a(i, j);
    if (s == Store::DenseSymmetric)
        m->SetSymmetric(true); // upper stored: reads of the lower triangle mirror into it
    return m;
}

/// Every slot of a dense array that read(i, j) excludes still holds its NaN: nothing was written
/// there (nor, the results being finite, read).
template <class Read> void expect_unwritten(const KelGenericMatrix& m, Store s, Read read)
{
    const int n = m.GetRowDim();
    for (int k = 0; k < n * n && (s == Store::Dense || s == Store::DenseSymmetric); ++k)
        ASSERT_TRUE(read(k % n, k / n) || std::isnan(m.GetElements()[k])) << "wrote slot " << k;
}

// ---- the families: LAPACK wrappers ----

void general_solves(Case& c)
{
    const int n = c.size(), nrhs = c.rhs_count();
    const Cond cond = c.cond(false);
    const bool band = c.draw(0, 1);
    const int kl = band ? c.band_width(n) : n, ku = band ? c.band_width(n) : n;
    SCOPED_TRACE(
        kt::describe("cond", kCondName[int(cond)], "n", n, "nrhs", nrhs, "kl", kl, "ku", ku));
    const Dense a = general(c, n, kl, ku, cond), b = kt::random_dense(c.rng, n, nrhs);
    kt::KelOf Ad(a), B(b), X(kt::random_dense(c.rng, 2, 3)); // X's earlier shape must not matter
    KelMatrixBanded Ab;
    if (band) {
        Ab.Dimension(n, n, kl, ku);
        std::fill(Ab.GetElements(), Ab.GetElements() + Ab.GetStorageSize(),
                  kt::kGarbage); // fill-in
        for (int j = 0; j < n; ++j)
            for (int i = std::max(0, j - ku); i <= std::min(n - 1, j + kl); ++i)
                Ab(i, j) = a(i, j);
    }
    const KelGenericMatrix& A = band ? static_cast<const KelGenericMatrix&>(Ab) : Ad;
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    const bool alias = c.aliased();
    KelMatrix& Xo = alias ? B : X;
    c.solved("Solve", band ? Solve(Ab, B, Xo) : Solve(Ad, B, Xo), a, Xo, b);
    EXPECT_TRUE(kt::snapshot(A) == a0 && (alias || kt::snapshot(B) == b0)) << "Solve changed A/B";
}

/// SolveSP / SolveBSP, then the Cholesky family on the same matrix: dense or band. Every copy
/// mode of each routine: the solves and substitutions copy for any non-zero copyInputs, the
/// factorisations, the inverse and the triangular band solve only for 1.
void spd_family(Case& c)
{
    const int n = c.size(), nrhs = c.rhs_count(), copy = c.pick({0, 1, 2, -1});
    const int copy_s = c.pick({0, 1, 2, -1}), copy_t = c.pick({1, 0, 2, -1});
    const bool band = c.draw(0, 1), claims_lower = c.draw(0, 1);
    const int kd = band ? c.band_width(n) : n - 1;
    const Cond cond = c.cond(false);
    SCOPED_TRACE(kt::describe("cond", kCondName[int(cond)], "n", n, "kd", kd, "nrhs", nrhs, "copy",
                              copy, "copy-subst", copy_s, "copy-third", copy_t));
    int rank = 0;
    const Dense a = spd(c, n, kd, cond, rank), b = kt::random_dense(c.rng, n, nrhs);
    kt::KelOf B(b);
    KelMatrix X, Ad;
    KelMatrixBanded Ab;
    kt::to_band_upper(a, kd, Ab);
    kt::to_kel_upper(a, Ad);
    if (claims_lower) { // flags claiming lower storage change nothing: the upper array is read
        Ad.SetSymmetric(true);
        Ad.SetUsesLower();
    }
    const KelGenericMatrix& A = band ? static_cast<const KelGenericMatrix&>(Ab) : Ad;
    const std::string name = band ? "SolveBSP" : "SolveSP";
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    const bool alias = c.aliased();
    KelMatrix& Xo = alias ? B : X;
    // B after a solve into Xo: Xo's bits if it works in place (or is B), else untouched.
    auto b_kept = [&](const KelMatrix& out, bool in_place) {
        return kt::snapshot(B) == (in_place || alias ? kt::snapshot(out) : b0);
    };
    c.solved(name, band ? SolveBSP(Ab, B, Xo, copy) : SolveSP(Ad, B, Xo, copy), a, Xo, b);
    Ad.SetSymmetric(false);
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i)
            ASSERT_EQ(Ad(i, j), kt::kGarbage) << "SolveSP touched the lower triangle";
    EXPECT_TRUE(b_kept(Xo, copy == 0)) << name << ": B";
    if (copy) {
        EXPECT_EQ(kt::snapshot(A), a0) << name << " changed A";
    } else { // in place: A holds the factor
        c.keep(A);
        expect_ratio(kt::cholesky_ratio(kt::upper_of(A, std::min(kd, n)), a), name + " in place");
    }

    kt::to_kel(b, B); // the Cholesky family; X keeps the solve's shape, which must not matter
    if (!band) {
        KelMatrix U;
        kt::to_kel_upper(a, U);
        ASSERT_EQ(spdMatrixCholeskyFactorization(U, copy), 0);
        c.keep(U);
        expect_ratio(kt::cholesky_ratio(kt::upper_of(U), a), "spdMatrixCholeskyFactorization");
        EXPECT_TRUE(n < 2 || U(n - 1, 0) == kt::kGarbage) << "the lower triangle was touched";
        const auto u0 = kt::snapshot(U);
        c.solved("spdCholeskySubstitute", spdCholeskySubstitute(U, B, Xo, copy_s) == 0, a, Xo, b);
        EXPECT_EQ(kt::snapshot(U), u0) << "spdCholeskySubstitute changed U";
        EXPECT_TRUE(b_kept(Xo, copy_s == 0)) << "spdCholeskySubstitute: B";

        ASSERT_EQ(symmPositiveDefiniteInverse(U, copy_t), 0);
        c.keep(U);
        U.SetSymmetric(false);
        const Dense inv = kt::from_kel(U);
        Dense identity(n, n);
        for (int i = 0; i < n; ++i)
            identity(i, i) = 1.0;
        expect_ratio(kt::residual_ratio(a, inv, identity), "symmPositiveDefiniteInverse");
        EXPECT_TRUE(kt::same_bits(inv, kt::transpose(inv))) << "the inverse is not symmetric";
        return;
    }
    KelMatrixBanded U;
    kt::to_band_upper(a, kd, U);
    ASSERT_TRUE(spdBandMatrixCholeskyFactorization(U, copy));
    c.keep(U);
    const Dense u = kt::upper_of(U, kd);
    expect_ratio(kt::cholesky_ratio(u, a), "spdBandMatrixCholeskyFactorization");
    const auto u0 = kt::snapshot(U);
    c.solved("spdBandCholeskySubstitute", spdBandCholeskySubstitute(U, B, Xo, copy_s), a, Xo, b);
    EXPECT_TRUE(b_kept(Xo, copy_s == 0)) << "spdBandCholeskySubstitute: B";

    kt::to_kel(b, B); // U^T Y = B, then U Z = Y
    KelMatrix Y, Z;
    KelMatrix &Yo = alias ? B : Y, &Zo = alias ? B : Z;
    const std::string tri = "solveUpperTriangularBandSystem";
    c.solved(tri, solveUpperTriangularBandSystem(U, true, B, Yo, copy_t) == 0, kt::transpose(u), Yo,
             b);
    EXPECT_TRUE(b_kept(Yo, copy_t != 1)) << tri << ": B";
    const Dense y = kt::from_kel(Yo);
    c.solved(tri, solveUpperTriangularBandSystem(U, false, Yo, Zo, copy_t) == 0, u, Zo, y);
    EXPECT_EQ(kt::snapshot(U), u0) << "the band substitutions changed U";
}

/// A = Q1 diag(sigma) Q2^T of rank r, sigma log-spaced in [1 / kappa, 1]; b consistent (A x0 for
/// a random x0) or not. SolveLS takes nrhs from X and writes only its first n rows;
/// MinNormLeastSquares returns the rank, a 0-based permutation and a solution in A's row space.
void least_squares(Case& c)
{
    const int m = c.size(65), n = c.size(65);
    const bool minimum_norm = m < n || c.draw(0, 1);
    const Cond cond = c.cond(minimum_norm);
    const int r = cond == Cond::Deficient ? c.draw(0, std::min(m, n) - 1) : std::min(m, n);
    const double kappa = cond == Cond::Near ? 1e7 : 10.0;
    const int nrhs = (minimum_norm && m != n) ? 1 : c.draw(1, 4);
    const bool consistent = c.draw(0, 1);
    SCOPED_TRACE(kt::describe("cond", kCondName[int(cond)], "m", m, "n", n, "rank", r, "nrhs", nrhs,
                              "consistent", consistent));
    const Dense q1 = kt::orthonormal(c.rng, m, r), q2 = kt::orthonormal(c.rng, n, r);
    Dense a(m, n);
    for (int k = 0; k < r; ++k) {
        const double sigma = r > 1 ? std::pow(kappa, -double(k) / (r - 1)) : 1.0;
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < m; ++i)
                a(i, j) += q1(i, k) * sigma * q2(j, k);
    }
    const Dense x0 = kt::random_dense(c.rng, n, nrhs); // makes a consistent b
    const Dense b = consistent ? kt::multiply(a, x0) : kt::random_dense(c.rng, m, nrhs);
    kt::KelOf A(a), B(b);
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    const std::string name = minimum_norm ? "MinNormLeastSquares" : "SolveLS";
    const bool alias = minimum_norm && c.aliased(); // the solution into B
    Dense x, bs = b, x0s = x0;
    if (!minimum_norm) {
        const int extra = c.draw(0, 2), solved = c.draw(1, nrhs);
        kt::KelOf X(Dense(n + extra, solved, 7.0));
        ASSERT_TRUE(SolveLS(A, B, X));
        x = kt::from_kel(X);
        for (int j = 0; j < solved; ++j)
            for (int i = n; i < n + extra; ++i)
                EXPECT_EQ(x(i, j), 7.0) << "SolveLS wrote past row n";
        x = kt::leading(x, n, solved);
        bs = kt::leading(b, m, solved);
        x0s = kt::leading(x0, n, solved);
        EXPECT_EQ(kt::snapshot(A), a0) << "SolveLS changed A";
    } else {
        std::vector<int> jpvt(n, 0), seen(n, 0);
        const int fixed = c.draw(0, 2) == 0 && r > 0 ? c.draw(0, n - 1) : -1;
        if (fixed >= 0)
            jpvt[fixed] = 1;
        int rank = -1;
        KelMatrix X0;
        KelMatrix& X = alias ? B : X0;
        ASSERT_TRUE(MinNormLeastSquares(A, B, jpvt.data(), 1e-10, rank, X));
        EXPECT_EQ(rank, r);
        c.keep(rank);
        c.out.insert(c.out.end(), jpvt.begin(), jpvt.end());
        for (int k = 0; k < n && r > 0; ++k) // dgelsy returns at once for a zero A, jpvt unset
            ASSERT_TRUE(jpvt[k] >= 0 && jpvt[k] < n && !seen[jpvt[k]]++) << "not a permutation";
        EXPECT_TRUE(fixed < 0 || jpvt[0] == fixed) << "the fixed column is not first";
        ASSERT_TRUE(X.GetRowDim() == n && X.GetColDim() == nrhs) << "X's shape";
        x = kt::from_kel(X);
        // The minimum-norm solution lies in A's row space: x - Q2 Q2^T x ~ kappa eps ||x||.
        const Dense outside = kt::minus(x, kt::multiply(q2, kt::multiply(q2, x, true, false)));
        const double xn = kt::norm1(x);
        expect_ratio(xn > 0.0 ? kt::norm1(outside) / (xn * std::max(m, n) * kEps * kappa) : 0.0,
                     name + " row space");
    }
    EXPECT_TRUE(alias || kt::snapshot(B) == b0) << name << " changed B";
    c.keep(x);
    expect_ratio(kt::normal_equations_ratio(a, x, bs), name + " A'r");
    if (consistent)
        expect_ratio(kt::residual_ratio(a, x, bs, &x0s), name);
}

/// Q diag(lambda) Q^T with a known spectrum: uniform in [-2, 2], clusters 1e-12 apart, or half of
/// it 0. Each computed eigenvalue is checked against it (Weyl: forming A moves the spectrum by
/// about n eps ||A||), and the eigenpairs by their residuals. EigenValuesS copies for any non-zero
/// copyInputs; spdmEigenproblem only for 1, and otherwise leaves the eigenvectors in A as well.
void eigenproblems(Case& c)
{
    const int n = c.size(65); // the reduction's block crossovers lie at 32 and 64
    const Cond cond = c.cond(true);
    const bool packed = c.draw(0, 1), vectors = !packed || c.draw(0, 2) > 0;
    const int copy = c.pick({0, 1, 2, -1});
    const std::string name = packed ? "EigenValuesS" : "spdmEigenproblem";
    SCOPED_TRACE(kt::describe("cond", kCondName[int(cond)], "n", n, "routine", name, "vectors",
                              vectors, "copy", copy));
    const Dense q = kt::orthonormal(c.rng, n, n);
    std::vector<double> spectrum(n);
    for (int k = 0; k < n; ++k)
        spectrum[k] = cond == Cond::Near            ? (k % 3) + 1e-12 * k
                      : cond == Cond::Well || k % 2 ? c.uniform(-2.0, 2.0)
                                                    : 0.0;
    Dense a(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            for (int k = 0; k < n; ++k)
                a(j, i) = a(i, j) += q(i, k) * spectrum[k] * q(j, k);
    KelMatrix A, Z, W;
    kt::to_kel_upper(a, A);
    const auto a0 = kt::snapshot(A);
    std::vector<double> lambda(n + 1, 7.0);
    const bool alias = packed && vectors && c.aliased(); // the eigenvectors into A itself
    const KelMatrix& Zo = alias ? A : Z;
    if (packed) {
        ASSERT_TRUE(EigenValuesS(A, lambda.data(), vectors ? alias ? &A : &Z : nullptr, copy));
        EXPECT_EQ(lambda[n], 7.0) << "EigenValuesS wrote past n values";
        EXPECT_TRUE(copy == 0 || alias || kt::snapshot(A) == a0) << "EigenValuesS changed A";
    } else {
        W.Dimension(n, 1, -1, -1);
        Z.Dimension(n, n, -1, -1);
        ASSERT_EQ(spdmEigenproblem(A, W, Z, copy), 0);
        std::copy(W.GetElements(), W.GetElements() + n, lambda.begin());
        c.keep(A);
        EXPECT_EQ(kt::snapshot(A), copy == 1 ? a0 : kt::snapshot(Z)) << "spdmEigenproblem: A";
    }
    EXPECT_TRUE(std::is_sorted(lambda.begin(), lambda.begin() + n)) << "not ascending";
    c.out.insert(c.out.end(), lambda.begin(), lambda.end());
    c.keep(Zo);
    std::sort(spectrum.begin(), spectrum.end());
    double worst = 0.0;
    for (int i = 0; i < n; ++i)
        worst = std::max(worst, std::fabs(lambda[i] - spectrum[i]));
    expect_ratio(worst / (n * kEps * std::max(kt::norm1(a), kEps)), name + " eigenvalues");
    if (!vectors)
        return;
    ASSERT_TRUE(Zo.GetRowDim() == n && Zo.GetColDim() == n) << "Z's shape";
    const auto ratios = kt::eigen_ratios(a, lambda.data(), kt::from_kel(Zo));
    expect_ratio(ratios.first, name + " AZ-ZL");
    expect_ratio(ratios.second, name + " Z'Z-I");
}

// ---- the families: the library's own band algorithms ----

void native_cholesky(Case& c)
{
    const int n = c.size(), kd = std::min(c.band_width(n), n - 1), nrhs = c.rhs_count();
    const Cond cond = c.cond(true);
    const Store s = pick_store(c);
    const int ku = std::max(1, kd + c.draw(0, 2)); // stored upper width
    // bw: exact, <= 0 (the stored width or the order), or wider (only where stored).
    const int bw = c.pick({std::max(1, kd), 0, -1, is_band(s) ? ku : n + 2});
    SCOPED_TRACE(kt::describe("cond", kCondName[int(cond)], "storage", kStoreName[int(s)], "n", n,
                              "kd", kd, "ku", ku, "bw", bw, "nrhs", nrhs));
    int rank = 0;
    const Dense a = spd(c, n, kd, cond, rank);
    const auto upper = [](int i, int j) { return i <= j; };
    auto A = store(c, a, s, ku, upper);
    const int count = Cholesky_factor(*A, bw, tolerance(a));
    c.keep(count);
    c.keep(*A);
    EXPECT_EQ(count, rank) << "Cholesky_factor's count";
    expect_unwritten(*A, s, upper);
    std::vector<int> dropped;
    for (int i = 0; i < n; ++i)
        if ((*A)(i, i) == -1.0)
            dropped.push_back(i);
    EXPECT_EQ(int(dropped.size()), n - count) << "dropped pivots are not -1";
    if (rank == n)
        expect_ratio(kt::cholesky_ratio(kt::upper_of(*A, std::max(kd, 0)), a), "Cholesky_factor");

    const Dense b = kt::multiply(a, kt::random_dense(c.rng, n, nrhs)); // consistent
    kt::KelOf B(b);
    Cholesky_subst(*A, bw, B);
    const Dense x = kt::from_kel(B);
    c.keep(x);
    expect_ratio(kt::residual_ratio(a, x, b), "Cholesky_subst");
    for (int i : dropped)
        for (int j = 0; j < nrhs; ++j)
            EXPECT_EQ(x(i, j), 0.0) << "the unknown of dropped pivot " << i;
}

void cyclic_cholesky(Case& c)
{
    const int m = c.pick({0, 1, 1, 2, 3, 5}), nb = c.draw(0, 19) ? c.size() : 0, n = nb + m;
    const int bw = c.pick({0, 1, c.draw(2, 5), std::max(0, nb - 1), nb + 2}), nrhs = c.rhs_count();
    const Cond cond = c.cond(true);
    const Store s =
        c.draw(0, 1)
            ? Store::Dense
            : c.pick({Store::DenseSymmetric, Store::Band, Store::BandWide, Store::Bordered});
    SCOPED_TRACE(kt::describe("cond", kCondName[int(cond)], "storage", kStoreName[int(s)], "nb", nb,
                              "bw", bw, "m", m, "nrhs", nrhs));
    if (n == 0)
        return;
    int rank = 0;
    const Dense a = bordered(c, nb, bw, m, cond, rank);
    auto read = [&](int i, int j) { return bordered_read(i, j, nb, bw); };
    auto A = store(c, a, s, s == Store::Bordered ? bw : n - 1, read, m);
    EXPECT_EQ(cyclic_Cholesky_factor(*A, bw, m, tolerance(a)),
              cond != Cond::Deficient ? m : std::max(0, m - 1)); // the Schur complement's pivots
    expect_unwritten(*A, s, read);
    if (rank == n) { // A = U^T U with U = [U11 W; 0 U22]
        Dense u(n, n);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i <= j; ++i)
                u(i, j) = read(i, j) ? (*A)(i, j) : 0.0;
        expect_ratio(kt::cholesky_ratio(u, a), "cyclic_Cholesky_factor");
    }
    const Dense b = kt::multiply(a, kt::random_dense(c.rng, n, nrhs));
    kt::KelOf B(b);
    cyclic_Cholesky_subst(*A, bw, m, B);
    c.keep(*A);
    c.keep(B);
    expect_ratio(kt::residual_ratio(a, kt::from_kel(B), b), "cyclic_Cholesky_subst");
}

/// Well, near-singular, or a saddle point (A22 = 0 with a full-rank border: a negative definite
/// Schur complement).
void cyclic_solve(Case& c)
{
    const int nb = c.size(), m = c.pick({1, 1, 2, 3, 5}), n = nb + m, nrhs = c.rhs_count();
    const int kd = c.band_width(nb), band_width = 2 * kd + c.draw(0, 1);
    const int kind = c.draw(0, m <= nb ? 2 : 1);
    SCOPED_TRACE(kt::describe("kind", kind, "nb", nb, "kd", kd, "m", m, "nrhs", nrhs));
    int rank = 0;
    Dense a = bordered(c, nb, kd, m, kind == 1 ? Cond::Near : Cond::Well, rank);
    for (int j = nb; j < n && kind == 2; ++j)
        for (int i = nb; i < n; ++i)
            a(i, j) = 0.0;
    auto A =
        store(c, a, Store::Dense, n - 1, [&](int i, int j) { return bordered_read(i, j, nb, kd); });
    const Dense b = kt::random_dense(c.rng, n, nrhs);
    kt::KelOf B(b), X(kt::random_dense(c.rng, 1, 2));
    const Dense a0 = kt::from_kel(*A); // NaN where not read: compared bit for bit
    const auto b0 = kt::snapshot(B);
    const bool alias = c.aliased();
    KelMatrix& Xo = alias ? B : X;
    c.solved("SolveBSP_Cyclic",
             SolveBSP_Cyclic(static_cast<const KelMatrix&>(*A), B, nb, band_width, Xo), a, Xo, b);
    EXPECT_TRUE(kt::same_bits(kt::from_kel(*A), a0) && (alias || kt::snapshot(B) == b0))
        << "A or B changed";
}

void kronecker_solve(Case& c)
{
    const int nA = c.size(33), nB = c.size(33), kdA = c.band_width(nA), kdB = c.band_width(nB);
    const int groups = c.draw(0, 3); // trailing columns: pinned in kronecker_test.cpp
    const bool copy = c.draw(0, 1);
    const Cond cond_a = c.cond(false), cond_b = c.cond(false);
    SCOPED_TRACE(
        kt::describe("nA", nA, "kdA", kdA, "nB", nB, "kdB", kdB, "groups", groups, "copy", copy));
    int rank = 0;
    const Dense a = spd(c, nA, kdA, cond_a, rank), b = spd(c, nB, kdB, cond_b, rank);
    const Dense x = kt::random_dense(c.rng, nB, groups * nA);
    KelMatrixBanded A, B;
    kt::to_band_upper(a, kdA, A);
    kt::to_band_upper(b, kdB, B);
    kt::KelOf X(x);
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    ASSERT_TRUE(Solve_Kronecker(A, B, X, copy));
    const Dense y = kt::from_kel(X);
    c.keep(y);
    // Group k: X_k = B Y_k A, i.e. (A kron B) vec(Y_k) = vec(X_k), one column per group.
    Dense yv(nA * nB, groups), xv(nA * nB, groups);
    yv.v = y.v;
    xv.v = x.v;
    expect_ratio(kt::residual_ratio(kt::kronecker(a, b), yv, xv), "Solve_Kronecker");
    EXPECT_TRUE(!copy || (kt::snapshot(A) == a0 && kt::snapshot(B) == b0)) << "A or B changed";
}

void kronecker_substitutions(Case& c)
{
    const int p = c.size(24), q = c.size(24), nrhs = c.rhs_count();
    const int kd1 = std::min(c.band_width(p), p - 1), kd2 = std::min(c.band_width(q), q - 1);
    const Cond cond1 = c.cond(true), cond2 = c.cond(true);
    const Store s1 = pick_store(c), s2 = pick_store(c);
    const int ku1 = std::max(1, kd1 + c.draw(0, 2)), ku2 = std::max(1, kd2 + c.draw(0, 2));
    // The stored widths (kronecker_test.cpp pins the defaults of non-positive ones).
    SCOPED_TRACE(kt::describe("p", p, "q", q, "kd1", kd1, "kd2", kd2, "ku1", ku1, "ku2", ku2,
                              "storage1", kStoreName[int(s1)], "storage2", kStoreName[int(s2)],
                              "nrhs", nrhs));
    int r1 = 0, r2 = 0;
    const Dense a1 = spd(c, p, kd1, cond1, r1), a2 = spd(c, q, kd2, cond2, r2);
    auto all = [](int, int) { return true; };
    auto U1 = store(c, a1, s1, ku1, all), U2 = store(c, a2, s2, ku2, all);
    ASSERT_EQ(Cholesky_factor(*U1, ku1, tolerance(a1)), r1);
    ASSERT_EQ(Cholesky_factor(*U2, ku2, tolerance(a2)), r2);

    const Dense k = kt::kronecker(a1, a2);
    const Dense x = kt::multiply(k, kt::random_dense(c.rng, p * q, nrhs)); // consistent
    kt::KelOf X(x);
    kronecker_lower_substitute(ku1, ku2, *U1, *U2, X);
    const Dense z = kt::from_kel(X);
    kronecker_upper_substitute(ku1, ku2, *U1, *U2, X);
    const Dense y = kt::from_kel(X);
    c.keep(z);
    c.keep(y);
    if (r1 == p && r2 == q) {
        const Dense u = kt::kronecker(kt::upper_of(*U1, kd1), kt::upper_of(*U2, kd2));
        expect_ratio(kt::residual_ratio(kt::transpose(u), z, x), "kronecker_lower_substitute");
        expect_ratio(kt::residual_ratio(u, y, z), "kronecker_upper_substitute");
    }
    expect_ratio(kt::residual_ratio(k, y, x), "kronecker lower + upper");
    for (int i = 0; i < p; ++i)
        for (int t = 0; t < q; ++t)
            for (int j = 0; j < nrhs && ((*U1)(i, i) == -1.0 || (*U2)(t, t) == -1.0); ++j)
                EXPECT_EQ(y(i * q + t, j), 0.0) << "a dropped pivot's unknown";
}

// ---- the sparse direct solver ----

/// A sparse pattern (symmetric unless unsymmetric) with diagonally dominant values, or for the
/// positive definite type any conditioning of the band generator.
void sparse_solver(Case& c)
{
    const int n = c.size(65), batch = c.draw(1, 4), cols = c.rhs_count(), refinement = c.draw(0, 2);
    const LSMsolver_mattype type =
        c.pick({LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE, LSM_REAL_SYMMETRIC_INDEFINITE,
                LSM_REAL_UNSYMMETRIC, LSM_REAL_STRUCTURALLY_SYMMETRIC});
    const bool symmetric =
        type == LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE || type == LSM_REAL_SYMMETRIC_INDEFINITE;
    const Cond cond = type == LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE ? c.cond(false) : Cond::Well;
    const int kd = c.band_width(n);
    SCOPED_TRACE(kt::describe("cond", kCondName[int(cond)], "n", n, "kd", kd, "type", int(type),
                              "batch", batch, "cols", cols));
    int rank = 0;
    Dense a = spd(c, n, kd, cond, rank);
    if (cond == Cond::Well) {
        const double density = c.uniform(0.05, 1.0);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                if (i != j && (std::abs(i - j) > kd || c.uniform(0.0, 1.0) > density))
                    a(i, j) = a(j, i) = 0.0;
        for (int j = 0; j < n && !symmetric; ++j)
            for (int i = 0; i < n; ++i)
                if (i != j && a(i, j) != 0.0) // an unsymmetric pattern for the unsymmetric type
                    a(i, j) = type == LSM_REAL_UNSYMMETRIC && c.draw(0, 3) == 0
                                  ? 0.0
                                  : c.uniform(-1.0, 1.0);
        make_dominant(c, a, type == LSM_REAL_SYMMETRIC_INDEFINITE);
    }
    std::vector<int> ia(1, 1), ja;
    std::vector<double> av;
    for (int i = 0; i < n; ++i) {
        for (int j = symmetric ? i : 0; j < n; ++j)
            if (a(i, j) != 0.0 || i == j ||
                (type == LSM_REAL_STRUCTURALLY_SYMMETRIC && a(j, i) != 0.0)) {
                ja.push_back(j + 1);
                av.push_back(a(i, j));
            }
        ia.push_back(int(ja.size()) + 1);
    }
    const Dense b = kt::random_dense(c.rng, n, cols);
    LSMsolver solver(n, ia.data(), ja.data(), av.data(), batch, refinement, type);
    ASSERT_TRUE(solver.factor());
    kt::KelOf B(b), X(Dense(n, cols));
    const auto b0 = kt::snapshot(B);
    const bool raw = c.draw(0, 1);
    c.solved("LSMsolver",
             raw ? solver.solve(cols, B.GetElements(), X.GetElements()) : solver.solve(B, X), a, X,
             b);
    EXPECT_EQ(kt::snapshot(B), b0) << "LSMsolver::solve changed B";
}

const struct {
    const char* name;
    void (*run)(Case&);
} kFamilies[] = {{"general_solves", general_solves},
                 {"spd_family", spd_family},
                 {"least_squares", least_squares},
                 {"eigenproblems", eigenproblems},
                 {"native_cholesky", native_cholesky},
                 {"cyclic_cholesky", cyclic_cholesky},
                 {"cyclic_solve", cyclic_solve},
                 {"kronecker_solve", kronecker_solve},
                 {"kronecker_substitutions", kronecker_substitutions},
                 {"sparse_solver", sparse_solver}};

} // namespace

int kt::family_count()
{
    return int(std::size(kFamilies));
}

const char* kt::family_name(int family)
{
    return kFamilies[family].name;
}

std::vector<double> kt::run_case(int family, std::uint64_t seed, long k)
{
    std::seed_seq seq{std::uint32_t(seed), std::uint32_t(seed >> 32), std::uint32_t(family),
                      std::uint32_t(k)};
    Case c{std::mt19937_64(seq), {}};
    kFamilies[family].run(c);
    return c.out;
}
