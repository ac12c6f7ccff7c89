// KELMATRIX randomized residual campaign
// Thousands of random problems through every exported solver and factorisation, each judged by
// LAPACK's acceptance ratios computed here with plain loops.
//
// Every case draws a routine, a size (1, small, around the block sizes 16, 32, 64 and 128), a
// band width (0, 1, small, >= n), a right-hand-side count (0 included), a conditioning (well,
// near-singular, rank-deficient where the routine tolerates it), a storage and copy mode and a
// misalignment (0, 8, 24 bytes), then checks ||B - A X||_1 / (||A||_1 ||X||_1 n eps) <= 30 or the
// matching ratio of a factorisation or an eigen decomposition, and that inputs the copy rule
// protects are untouched. Slots a routine must not read hold NaN or kt::kGarbage.
//
// KELMATRIX_CAMPAIGN: unset or "ci" 10,000 cases, "long" 120,000, or a number of cases.
// KELMATRIX_TEST_SEED: the seed; case k draws from (seed, k) alone, so KELMATRIX_CAMPAIGN_CASE=k
// replays one case. The closing table gives per routine and check the count and largest ratio.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <sstream>
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

// ---- the run: its size, the record per routine and one case's context ----

long campaign_cases()
{
    const char* s = std::getenv("KELMATRIX_CAMPAIGN");
    if (!s || !*s || std::strcmp(s, "ci") == 0)
        return 10000;
    return std::strcmp(s, "long") == 0 ? 120000 : std::max(1L, std::strtol(s, nullptr, 10));
}

struct Record {
    long checks = 0;
    double worst = 0.0;
};
std::map<std::string, Record> g_record;
int g_failures = 0;

enum class Cond { Well, Near, Deficient };

class Case {
public:
    Case(std::uint64_t seed, long index) : seed_(seed), index_(index)
    {
        std::seed_seq seq{std::uint32_t(seed), std::uint32_t(seed >> 32), std::uint32_t(index)};
        rng.seed(seq);
        const int misalignment = pick({0, 8, 24});
        kelmatrix_set_mkl_misalignment(misalignment); // before any matrix of the case exists
        note("misalignment", misalignment);
    }

    int draw(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
    double uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }
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
    int band_width(int n)
    {
        return pick({0, 1, draw(2, 5), std::max(0, n - 1), n + draw(0, 3)});
    }
    int rhs_count() { return draw(0, 99) < 3 ? 0 : draw(0, 1) ? 1 : draw(2, 7); }
    Cond cond(bool deficient_allowed)
    {
        const Cond c = Cond(draw(0, deficient_allowed ? 2 : 1));
        note("cond", c == Cond::Well ? "well" : c == Cond::Near ? "near-singular" : "deficient");
        return c;
    }

    /// Key-value pairs describing the case, printed on failure.
    void note() {}
    template <class T, class... More> void note(const char* key, const T& value, const More&... more)
    {
        what_ << ' ' << key << '=' << value;
        note(more...);
    }
    void ratio(const std::string& routine, double r)
    {
        Record& rec = g_record[routine];
        ++rec.checks;
        if (!(r <= rec.worst))
            rec.worst = r; // NaN sticks
        expect(r <= 30.0, routine + ": ratio " + std::to_string(r) + " above 30");
    }
    bool expect(bool ok, const std::string& what)
    {
        if (!ok) {
            ++g_failures;
            ADD_FAILURE() << what << "\n  case " << index_ << " (KELMATRIX_TEST_SEED=" << seed_
                          << " KELMATRIX_CAMPAIGN_CASE=" << index_ << "):" << what_.str();
        }
        return ok;
    }
    /// A solve's checks: it succeeded, X is a.cols x b.cols, and the residual ratio.
    void solved(const std::string& routine, bool ok, const Dense& a, const KelGenericMatrix& X,
                const Dense& b)
    {
        if (expect(ok, routine + " failed") &&
            expect(X.GetRowDim() == a.cols && X.GetColDim() == b.cols, routine + ": X's shape"))
            ratio(routine, kt::residual_ratio(a, kt::from_kel(X), b));
    }

    std::mt19937_64 rng;

private:
    std::uint64_t seed_;
    long index_;
    std::ostringstream what_;
};

// ---- plain-loop references ----

Dense transpose(const Dense& a)
{
    Dense t(a.cols, a.rows);
    for (int j = 0; j < a.cols; ++j)
        for (int i = 0; i < a.rows; ++i)
            t(j, i) = a(i, j);
    return t;
}

Dense minus(Dense a, const Dense& b)
{
    for (std::size_t k = 0; k < a.v.size(); ++k)
        a.v[k] -= b.v[k];
    return a;
}

Dense columns(const Dense& a, int first, int count)
{
    Dense r(a.rows, count);
    std::copy(a.v.begin() + std::size_t(first) * a.rows,
              a.v.begin() + std::size_t(first + count) * a.rows, r.v.begin());
    return r;
}

double max_diagonal(const Dense& a)
{
    double d = 0.0;
    for (int i = 0; i < a.rows; ++i)
        d = std::max(d, std::fabs(a(i, i)));
    return d;
}

/// The pivot tolerance of the native factorisations: relative to the largest diagonal.
double tolerance(const Dense& a) { return 1e-12 * std::max(1.0, max_diagonal(a)); }

/// ||A^T (B - A X)||_1 / (||A||_1 (||A||_1 ||X||_1 + ||B||_1) max(m, n) eps): the least-squares
/// optimality ratio, bounded for any backward-stable solver whatever the residual.
double normal_equations_ratio(const Dense& a, const Dense& x, const Dense& b)
{
    const Dense g = kt::multiply(a, minus(b, kt::multiply(a, x)), true, false);
    const double na = kt::norm1(a);
    const double denom = na * (na * kt::norm1(x) + kt::norm1(b)) * std::max(a.rows, a.cols) * kEps;
    return denom > 0.0 ? kt::norm1(g) / denom : kt::norm1(g);
}

/// P kron Q: element (a q + s, b q + u) is P(a, b) Q(s, u), q = Q's order.
Dense kron(const Dense& P, const Dense& Q)
{
    const int q = Q.rows;
    Dense k(P.rows * q, P.cols * q);
    for (int b = 0; b < P.cols; ++b)
        for (int a = 0; a < P.rows; ++a)
            for (int u = 0; u < q; ++u)
                for (int s = 0; s < q; ++s)
                    k(a * q + s, b * q + u) = P(a, b) * Q(s, u);
    return k;
}

/// Orthonormal columns (modified Gram-Schmidt, twice) of a random rows x cols matrix.
Dense orthonormal(std::mt19937_64& rng, int rows, int cols)
{
    Dense q = kt::random_dense(rng, rows, cols);
    for (int j = 0; j < cols; ++j)
        for (int pass = 0; pass < 2; ++pass) {
            for (int k = 0; k < j; ++k) {
                double dot = 0.0;
                for (int i = 0; i < rows; ++i)
                    dot += q(i, k) * q(i, j);
                for (int i = 0; i < rows; ++i)
                    q(i, j) -= dot * q(i, k);
            }
            double norm = 0.0;
            for (int i = 0; i < rows; ++i)
                norm += q(i, j) * q(i, j);
            for (int i = 0; i < rows; ++i)
                q(i, j) /= std::sqrt(norm);
        }
    return q;
}

// ---- generators ----

/// Adds delta = 1e-6..1e-9 times the largest diagonal: a smallest eigenvalue of about delta.
void shift_near_singular(Case& c, Dense& a)
{
    const double delta = std::pow(10.0, -c.uniform(6.0, 9.0)) * std::max(1.0, max_diagonal(a));
    for (int i = 0; i < a.rows; ++i)
        a(i, i) += delta;
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

/// General square: uniform entries, or a last row that nearly repeats the sum of two others.
Dense general(Case& c, int n, Cond cond)
{
    Dense a = kt::random_dense(c.rng, n, n);
    if (cond == Cond::Near && n >= 2)
        for (int j = 0; j < n; ++j)
            a(n - 1, j) = a(0, j) + (n > 2 ? a(1, j) : 0.0) + 1e-10 * c.uniform(-1.0, 1.0);
    return a;
}

/// Symmetric bordered: a band block of order nb (half-bandwidth bw) and a dense border of m.
/// Well: diagonally dominant. Otherwise the Laplacian of the graph with the band edges and every
/// edge to the border (connected: rank n - 1), shifted by delta for near-singular.
Dense bordered(Case& c, int nb, int bw, int m, Cond cond, int& rank)
{
    const int n = nb + m;
    Dense a(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < j; ++i)
            if (j >= nb || j - i <= bw) {
                a(i, j) = a(j, i) = cond == Cond::Well ? c.uniform(-1.0, 1.0) : -c.uniform(0.1, 1.0);
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
bool bordered_read(int i, int j, int nb, int bw) { return i <= j && (j >= nb || j - i <= bw); }

// ---- storages for the routines that read through the accessor ----

enum class Store { Dense, DenseSymmetric, Band, BandWide };
const char* const kStoreName[] = {"dense", "dense-symmetric", "band", "band-wide"};

bool is_band(Store s) { return s == Store::Band || s == Store::BandWide; }

Store pick_store(Case& c)
{
    const Store s = c.pick({Store::Dense, Store::DenseSymmetric, Store::Band, Store::BandWide});
    c.note("storage", kStoreName[int(s)]);
    return s;
}

/// a's entries where read(i, j) holds, in the chosen storage (band: upper width ku, and kl extra
/// lower diagonals for band-wide); every other slot of the array holds NaN.
template <class Read>
std::unique_ptr<KelGenericMatrix> store(Case& c, const Dense& a, Store s, int ku, Read read)
{
    const int n = a.rows;
    std::unique_ptr<KelGenericMatrix> m;
    if (is_band(s)) {
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

// ---- the families: LAPACK wrappers ----

void general_solves(Case& c)
{
    const int n = c.size(), nrhs = c.rhs_count();
    const Cond cond = c.cond(false);
    const bool band = c.draw(0, 1);
    const int kl = band ? c.band_width(n) : n, ku = band ? c.band_width(n) : n;
    c.note("n", n, "nrhs", nrhs, "kl", kl, "ku", ku);
    int rank = 0; // near-singular band: a shifted Laplacian inside the band
    Dense a = band && cond == Cond::Near ? spd(c, n, std::min(kl, ku), cond, rank)
                                         : general(c, n, band ? Cond::Well : cond);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
            if (i - j > kl || j - i > ku)
                a(i, j) = 0.0;
    const Dense b = kt::random_dense(c.rng, n, nrhs);
    kt::KelOf Ad(a), B(b), X(kt::random_dense(c.rng, 2, 3)); // X's earlier shape must not matter
    KelMatrixBanded Ab;
    if (band) {
        Ab.Dimension(n, n, kl, ku);
        std::fill(Ab.GetElements(), Ab.GetElements() + Ab.GetStorageSize(), kt::kGarbage); // fill-in
        for (int j = 0; j < n; ++j)
            for (int i = std::max(0, j - ku); i <= std::min(n - 1, j + kl); ++i)
                Ab(i, j) = a(i, j);
    }
    const KelGenericMatrix& A = band ? static_cast<const KelGenericMatrix&>(Ab) : Ad;
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    const std::string name = band ? "Solve (band)" : "Solve (dense)";
    c.solved(name, band ? Solve(Ab, B, X) : Solve(Ad, B, X), a, X, b);
    c.expect(kt::snapshot(A) == a0 && kt::snapshot(B) == b0, name + " changed A or B");
}

/// SolveSP / SolveBSP, then the Cholesky family on the same matrix: dense or band.
void spd_family(Case& c)
{
    const int n = c.size(), nrhs = c.rhs_count(), copy = c.pick({0, 1, 2, -1});
    const int copy_s = c.pick({0, 1, 2}), copy_t = c.pick({1, 0, 2});
    const bool band = c.draw(0, 1);
    const int kd = band ? c.band_width(n) : n - 1;
    int rank = 0;
    const Dense a = spd(c, n, kd, c.cond(false), rank), b = kt::random_dense(c.rng, n, nrhs);
    c.note("n", n, "kd", kd, "nrhs", nrhs, "copy", copy, "copy-subst", copy_s, "copy-third", copy_t);
    kt::KelOf B(b);
    KelMatrix X, Ad;
    KelMatrixBanded Ab;
    kt::to_band_upper(a, kd, Ab);
    kt::to_kel_upper(a, Ad);
    if (c.draw(0, 1)) { // flags claiming lower storage change nothing: the upper array is read
        Ad.SetSymmetric(true);
        Ad.SetUsesLower();
    }
    const KelGenericMatrix& A = band ? static_cast<const KelGenericMatrix&>(Ab) : Ad;
    const std::string name = band ? "SolveBSP" : "SolveSP";
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    c.solved(name, band ? SolveBSP(Ab, B, X, copy) : SolveSP(Ad, B, X, copy), a, X, b);
    Ad.SetSymmetric(false);
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < n; ++i)
            c.expect(Ad(i, j) == kt::kGarbage, "SolveSP touched the lower triangle");
    if (copy) {
        c.expect(kt::snapshot(A) == a0 && kt::snapshot(B) == b0, name + " changed A or B");
    } else { // in place: B holds the solution and A the factor
        c.expect(kt::snapshot(B) == kt::snapshot(X), name + ": B is not X");
        c.ratio(name + " in-place U'U", kt::cholesky_ratio(kt::upper_of(A, std::min(kd, n)), a));
    }


    kt::to_kel(b, B); // the Cholesky family; X keeps the solve's shape, which must not matter
    if (!band) {
        KelMatrix U;
        kt::to_kel_upper(a, U);
        c.expect(spdMatrixCholeskyFactorization(U, copy) == 0, "spdMatrixCholeskyFactorization failed");
        c.ratio("spdMatrixCholeskyFactorization U'U", kt::cholesky_ratio(kt::upper_of(U), a));
        c.expect(n < 2 || U(n - 1, 0) == kt::kGarbage, "the dense factorization touched the lower triangle");
        const auto u0 = kt::snapshot(U);
        c.solved("spdCholeskySubstitute", spdCholeskySubstitute(U, B, X, copy_s) == 0, a, X, b);
        c.expect(kt::snapshot(U) == u0, "spdCholeskySubstitute changed U");
        c.expect(kt::snapshot(B) == (copy_s ? b0 : kt::snapshot(X)), "spdCholeskySubstitute: B");

        c.expect(symmPositiveDefiniteInverse(U, copy_t) == 0, "symmPositiveDefiniteInverse failed");
        U.SetSymmetric(false);
        const Dense inv = kt::from_kel(U);
        Dense r = kt::multiply(a, inv);
        for (int i = 0; i < n; ++i)
            r(i, i) -= 1.0;
        c.ratio("symmPositiveDefiniteInverse I-A*inv",
                kt::norm1(r) / (kt::norm1(a) * kt::norm1(inv) * n * kEps));
        c.expect(kt::same_bits(inv, transpose(inv)), "the inverse is not exactly symmetric");
        return;
    }
    KelMatrixBanded U;
    kt::to_band_upper(a, kd, U);
    c.expect(spdBandMatrixCholeskyFactorization(U, copy), "spdBandMatrixCholeskyFactorization failed");
    const Dense u = kt::upper_of(U, kd);
    c.ratio("spdBandMatrixCholeskyFactorization U'U", kt::cholesky_ratio(u, a));
    const auto u0 = kt::snapshot(U);
    c.solved("spdBandCholeskySubstitute", spdBandCholeskySubstitute(U, B, X, copy_s), a, X, b);
    c.expect(kt::snapshot(B) == (copy_s ? b0 : kt::snapshot(X)), "spdBandCholeskySubstitute: B");

    kt::to_kel(b, B); // U^T Y = B, then U Z = Y
    KelMatrix Y, Z;
    const std::string tri = "solveUpperTriangularBandSystem";
    c.solved(tri, solveUpperTriangularBandSystem(U, true, B, Y, copy_t) == 0, transpose(u), Y, b);
    const Dense y = kt::from_kel(Y);
    c.solved(tri, solveUpperTriangularBandSystem(U, false, Y, Z, copy_t) == 0, u, Z, y);
    c.expect(kt::snapshot(U) == u0, "the band substitutions changed U");
    c.expect(copy_t != 1 || kt::snapshot(B) == b0, tri + " changed B");
}

void least_squares(Case& c)
{
    const int m = c.size(65), n = c.size(65);
    const bool minimum_norm = m < n || c.draw(0, 1);
    const Cond cond = c.cond(minimum_norm);
    const int r = cond == Cond::Deficient ? c.draw(0, std::min(m, n) - 1) : std::min(m, n);
    const double kappa = cond == Cond::Near ? 1e7 : 10.0;
    // A = Q1 diag(sigma) Q2^T with sigma log-spaced in [1 / kappa, 1].
    const Dense q1 = orthonormal(c.rng, m, r), q2 = orthonormal(c.rng, n, r);
    Dense a(m, n);
    for (int k = 0; k < r; ++k) {
        const double sigma = r > 1 ? std::pow(kappa, -double(k) / (r - 1)) : 1.0;
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < m; ++i)
                a(i, j) += q1(i, k) * sigma * q2(j, k);
    }
    const int nrhs = (minimum_norm && m != n) ? 1 : c.draw(1, 4);
    const bool consistent = c.draw(0, 1);
    c.note("m", m, "n", n, "rank", r, "nrhs", nrhs, "consistent", consistent);
    const Dense b = consistent ? kt::multiply(a, kt::random_dense(c.rng, n, nrhs))
                               : kt::random_dense(c.rng, m, nrhs);
    kt::KelOf A(a), B(b);
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    const std::string name = minimum_norm ? "MinNormLeastSquares" : "SolveLS";
    Dense x, bs = b;
    if (!minimum_norm) {
        const int extra = c.draw(0, 2), solved = c.draw(1, nrhs);
        kt::KelOf X(Dense(n + extra, solved, 7.0));
        c.expect(SolveLS(A, B, X), "SolveLS failed");
        x = kt::from_kel(X);
        bs = columns(b, 0, solved);
        for (int j = 0; j < solved; ++j)
            for (int i = n; i < n + extra; ++i)
                c.expect(x(i, j) == 7.0, "SolveLS wrote past row n");
        for (int k = 0; k < extra; ++k)
            x = kt::remove_index(x, n, false);
        c.expect(kt::snapshot(A) == a0, "SolveLS changed A");
    } else {
        std::vector<int> jpvt(n, 0), seen(n, 0);
        const int fixed = c.draw(0, 2) == 0 && r > 0 ? c.draw(0, n - 1) : -1;
        if (fixed >= 0)
            jpvt[fixed] = 1;
        int rank = -1;
        KelMatrix X;
        c.expect(MinNormLeastSquares(A, B, jpvt.data(), 1e-10, rank, X), "MinNormLeastSquares failed");
        c.expect(rank == r, "MinNormLeastSquares: rank " + std::to_string(rank));
        for (int k = 0; k < n && r > 0; ++k) // dgelsy returns at once for a zero A, jpvt unset
            c.expect(jpvt[k] >= 0 && jpvt[k] < n && !seen[jpvt[k]]++, "jpvt is not a permutation");
        c.expect(fixed < 0 || jpvt[0] == fixed, "the fixed column is not first");
        c.expect(X.GetRowDim() == n && X.GetColDim() == nrhs, "MinNormLeastSquares: X's shape");
        x = kt::from_kel(X);
        // The minimum-norm solution lies in A's row space: x - Q2 Q2^T x ~ kappa eps ||x||.
        const Dense outside = minus(x, kt::multiply(q2, kt::multiply(q2, x, true, false)));
        const double xn = kt::norm1(x);
        c.ratio(name + " row space",
                xn > 0.0 ? kt::norm1(outside) / (xn * std::max(m, n) * kEps * kappa) : 0.0);
    }
    c.expect(kt::snapshot(B) == b0, name + " changed B");
    c.ratio(name + " A'r", normal_equations_ratio(a, x, bs));
    if (consistent)
        c.ratio(name, kt::residual_ratio(a, x, bs));
}

void eigenproblems(Case& c)
{
    const int n = c.size(65); // the reduction's block crossovers lie at 32 and 64
    const Cond cond = c.cond(true);
    Dense a = kt::random_dense(c.rng, n, n);
    if (cond != Cond::Well) { // Q diag(lambda) Q^T: clusters 1e-12 apart, or half the spectrum 0
        const Dense q = orthonormal(c.rng, n, n);
        std::vector<double> lambda(n);
        for (int k = 0; k < n; ++k)
            lambda[k] = cond == Cond::Near ? (k % 3) + 1e-12 * k : (k % 2 ? 0.0 : c.uniform(-2.0, 2.0));
        a = Dense(n, n);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i <= j; ++i)
                for (int k = 0; k < n; ++k)
                    a(i, j) += q(i, k) * lambda[k] * q(j, k);
    }
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < j; ++i)
            a(j, i) = a(i, j);
    KelMatrix A, Z, W;
    kt::to_kel_upper(a, A);
    const auto a0 = kt::snapshot(A);
    std::vector<double> lambda(n + 1, 7.0);
    const bool packed = c.draw(0, 1), vectors = !packed || c.draw(0, 2) > 0;
    const int copy = c.pick({0, 1, 2});
    const std::string name = packed ? "EigenValuesS" : "spdmEigenproblem";
    c.note("n", n, "routine", name, "vectors", vectors, "copy", copy);
    if (packed) {
        c.expect(EigenValuesS(A, lambda.data(), vectors ? &Z : nullptr, copy), "EigenValuesS failed");
        c.expect(lambda[n] == 7.0, "EigenValuesS wrote past n values");
        c.expect(copy == 0 || kt::snapshot(A) == a0, "EigenValuesS changed A");
    } else {
        W.Dimension(n, 1, -1, -1);
        Z.Dimension(n, n, -1, -1);
        c.expect(spdmEigenproblem(A, W, Z, copy) == 0, "spdmEigenproblem failed");
        std::copy(W.GetElements(), W.GetElements() + n, lambda.begin());
        c.expect(copy != 1 || kt::snapshot(A) == a0, "spdmEigenproblem changed A");
    }
    for (int k = 1; k < n; ++k)
        c.expect(lambda[k - 1] <= lambda[k], name + ": eigenvalues not ascending");
    const double na = kt::norm1(a);
    if (!vectors) { // the trace and the Frobenius norm: sum lambda = tr A, sum lambda^2 = ||A||_F^2
        double trace = 0.0, frobenius = 0.0, s1 = 0.0, s2 = 0.0;
        for (int i = 0; i < n; ++i) {
            trace += a(i, i);
            s1 += lambda[i];
            s2 += lambda[i] * lambda[i];
            for (int j = 0; j < n; ++j)
                frobenius += a(i, j) * a(i, j);
        }
        if (na > 0.0) {
            c.ratio(name + " trace", std::fabs(s1 - trace) / (n * kEps * na));
            c.ratio(name + " Frobenius", std::fabs(s2 - frobenius) / (n * kEps * na * na));
        }
        return;
    }
    c.expect(Z.GetRowDim() == n && Z.GetColDim() == n, name + ": Z's shape");
    const Dense z = kt::from_kel(Z);
    Dense r = kt::multiply(a, z), o = kt::multiply(z, z, true, false);
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < n; ++i)
            r(i, j) -= z(i, j) * lambda[j];
        o(j, j) -= 1.0;
    }
    c.ratio(name + " AZ-ZL", na > 0.0 ? kt::norm1(r) / (na * n * kEps) : kt::norm1(r));
    c.ratio(name + " Z'Z-I", kt::norm1(o) / (n * kEps));
}

// ---- the families: the library's own band algorithms ----

void native_cholesky(Case& c)
{
    const int n = c.size(), kd = std::min(c.band_width(n), n - 1), nrhs = c.rhs_count();
    int rank = 0;
    const Dense a = spd(c, n, kd, c.cond(true), rank);
    const Store s = pick_store(c);
    const int ku = std::max(1, kd + c.draw(0, 2)); // stored upper width
    // bw: exact, <= 0 (the stored width or the order), or wider (only where stored).
    const int bw = c.pick({std::max(1, kd), 0, -1, is_band(s) ? ku : n + 2});
    c.note("n", n, "kd", kd, "ku", ku, "bw", bw, "nrhs", nrhs);
    auto A = store(c, a, s, ku, [](int, int) { return true; });
    const int count = Cholesky_factor(*A, bw, tolerance(a));
    c.expect(count == rank, "Cholesky_factor: " + std::to_string(count) + " pivots, rank " + std::to_string(rank));
    std::vector<int> dropped;
    for (int i = 0; i < n; ++i)
        if ((*A)(i, i) == -1.0)
            dropped.push_back(i);
    c.expect(int(dropped.size()) == n - count, "Cholesky_factor: dropped pivots are not -1");
    if (rank == n)
        c.ratio("Cholesky_factor U'U", kt::cholesky_ratio(kt::upper_of(*A, std::max(kd, 0)), a));

    const Dense b = kt::multiply(a, kt::random_dense(c.rng, n, nrhs)); // consistent
    kt::KelOf B(b);
    Cholesky_subst(*A, bw, B);
    const Dense x = kt::from_kel(B);
    c.ratio("Cholesky_subst", kt::residual_ratio(a, x, b));
    for (int i : dropped)
        for (int j = 0; j < nrhs; ++j)
            c.expect(x(i, j) == 0.0, "Cholesky_subst: the unknown of a dropped pivot is not 0");
}

void cyclic_cholesky(Case& c)
{
    const int m = c.pick({0, 1, 1, 2, 3, 5}), nb = c.draw(0, 19) ? c.size() : 0, n = nb + m;
    if (n == 0)
        return;
    const int bw = c.pick({0, 1, c.draw(2, 5), std::max(0, nb - 1), nb + 2}), nrhs = c.rhs_count();
    int rank = 0;
    const Cond cond = c.cond(true);
    const Dense a = bordered(c, nb, bw, m, cond, rank);
    const Store s = c.draw(0, 1) ? Store::Dense : c.pick({Store::Band, Store::BandWide});
    c.note("storage", kStoreName[int(s)], "nb", nb, "bw", bw, "m", m, "nrhs", nrhs);
    auto read = [&](int i, int j) { return bordered_read(i, j, nb, bw); };
    auto A = store(c, a, s, n - 1, read);
    const int want = cond != Cond::Deficient ? m : std::max(0, m - 1);
    const int count = cyclic_Cholesky_factor(*A, bw, m, tolerance(a));
    c.expect(count == want, "cyclic_Cholesky_factor: " + std::to_string(count) + " pivots, want " + std::to_string(want));
    if (rank == n) { // A = U^T U with U = [U11 W; 0 U22]
        Dense u(n, n);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i <= j; ++i)
                u(i, j) = read(i, j) ? (*A)(i, j) : 0.0;
        c.ratio("cyclic_Cholesky_factor U'U", kt::cholesky_ratio(u, a));
    }
    const Dense b = kt::multiply(a, kt::random_dense(c.rng, n, nrhs));
    kt::KelOf B(b);
    cyclic_Cholesky_subst(*A, bw, m, B);
    c.ratio("cyclic_Cholesky_subst", kt::residual_ratio(a, kt::from_kel(B), b));
}

void cyclic_solve(Case& c)
{
    const int nb = c.size(), m = c.pick({1, 1, 2, 3, 5}), n = nb + m, nrhs = c.rhs_count();
    const int kd = c.band_width(nb), band_width = 2 * kd + c.draw(0, 1);
    const int kind = c.draw(0, m <= nb ? 2 : 1);
    c.note("cond", kind == 0 ? "well" : kind == 1 ? "near-singular" : "saddle point", "nb", nb,
           "kd", kd, "m", m, "nrhs", nrhs);
    int rank = 0;
    Dense a = bordered(c, nb, kd, m, kind == 1 ? Cond::Near : Cond::Well, rank);
    if (kind == 2) // A22 = 0 with a full-rank border: a negative definite Schur complement
        for (int j = nb; j < n; ++j)
            for (int i = nb; i < n; ++i)
                a(i, j) = 0.0;
    auto stored = store(c, a, Store::Dense, n - 1, [&](int i, int j) { return bordered_read(i, j, nb, kd); });
    const KelMatrix& A = static_cast<const KelMatrix&>(*stored);
    const Dense b = kt::random_dense(c.rng, n, nrhs);
    kt::KelOf B(b), X(kt::random_dense(c.rng, 1, 2));
    const Dense a0 = kt::from_kel(A); // NaN where not read: compared bit for bit
    const auto b0 = kt::snapshot(B);
    c.solved("SolveBSP_Cyclic", SolveBSP_Cyclic(A, B, nb, band_width, X), a, X, b);
    c.expect(kt::same_bits(kt::from_kel(A), a0) && kt::snapshot(B) == b0,
             "SolveBSP_Cyclic changed A or B");
}

void kronecker_solve(Case& c)
{
    const int nA = c.size(33), nB = c.size(33), kdA = c.band_width(nA), kdB = c.band_width(nB);
    const int groups = c.draw(0, 3), extra = nA < 2 || c.draw(0, 4) ? 0 : c.draw(1, nA - 1);
    const bool copy = c.draw(0, 1);
    int rank = 0;
    const Dense a = spd(c, nA, kdA, c.cond(false), rank), b = spd(c, nB, kdB, c.cond(false), rank);
    const Dense x = kt::random_dense(c.rng, nB, groups * nA + extra);
    c.note("nA", nA, "kdA", kdA, "nB", nB, "kdB", kdB, "cols", x.cols, "copy", copy);
    KelMatrixBanded A, B;
    kt::to_band_upper(a, kdA, A);
    kt::to_band_upper(b, kdB, B);
    kt::KelOf X(x);
    const auto a0 = kt::snapshot(A), b0 = kt::snapshot(B);
    c.expect(Solve_Kronecker(A, B, X, copy), "Solve_Kronecker failed");
    const Dense y = kt::from_kel(X);
    // Group k: X_k = B Y_k A, i.e. (A kron B) vec(Y_k) = vec(X_k), one column per group.
    Dense yv(nA * nB, groups), xv(nA * nB, groups);
    std::copy(y.v.begin(), y.v.begin() + yv.v.size(), yv.v.begin());
    std::copy(x.v.begin(), x.v.begin() + xv.v.size(), xv.v.begin());
    if (groups > 0)
        c.ratio("Solve_Kronecker", kt::residual_ratio(kron(a, b), yv, xv));
    if (extra > 0) { // trailing columns: their input with copies, B^-1 times it without
        const Dense xt = columns(x, groups * nA, extra), yt = columns(y, groups * nA, extra);
        if (copy)
            c.expect(kt::same_bits(yt, xt), "Solve_Kronecker changed the trailing columns");
        else
            c.ratio("Solve_Kronecker trailing", kt::residual_ratio(b, yt, xt));
    }
    if (copy)
        c.expect(kt::snapshot(A) == a0 && kt::snapshot(B) == b0, "Solve_Kronecker changed A or B");
}

void kronecker_substitutions(Case& c)
{
    const int p = c.size(24), q = c.size(24), nrhs = c.rhs_count();
    const int kd1 = std::min(c.band_width(p), p - 1), kd2 = std::min(c.band_width(q), q - 1);
    int r1 = 0, r2 = 0;
    const Dense a1 = spd(c, p, kd1, c.cond(true), r1), a2 = spd(c, q, kd2, c.cond(true), r2);
    const Store s1 = pick_store(c), s2 = pick_store(c);
    const int ku1 = std::max(1, kd1 + c.draw(0, 2)), ku2 = std::max(1, kd2 + c.draw(0, 2));
    auto all = [](int, int) { return true; };
    auto U1 = store(c, a1, s1, ku1, all), U2 = store(c, a2, s2, ku2, all);
    const int f1 = Cholesky_factor(*U1, ku1, tolerance(a1)), f2 = Cholesky_factor(*U2, ku2, tolerance(a2));
    c.expect(f1 == r1 && f2 == r2, "Cholesky_factor: wrong rank of a Kronecker operand");
    // Widths: the stored ones, or <= 0 where the default stays inside the storage and covers
    // the band (the upper substitution's inner default is p, deliberately not q).
    const bool w1_default = !is_band(s1) || ku1 >= p - 1;
    const int w1 = w1_default && c.draw(0, 1) ? c.pick({0, -1}) : ku1;
    const int w2_lower = (!is_band(s2) || ku2 >= q - 1) && c.draw(0, 1) ? 0 : ku2;
    const int reach = std::min(p, q - 1);
    const bool upper_default = reach >= kd2 && (!is_band(s2) || ku2 >= reach);
    const int w2_upper = upper_default && c.draw(0, 1) ? 0 : ku2;
    c.note("p", p, "q", q, "kd1", kd1, "kd2", kd2, "w1", w1, "w2-lower", w2_lower, "w2-upper",
           w2_upper, "nrhs", nrhs);

    const Dense x = kt::multiply(kron(a1, a2), kt::random_dense(c.rng, p * q, nrhs)); // consistent
    kt::KelOf X(x);
    kronecker_lower_substitute(w1, w2_lower, *U1, *U2, X);
    const Dense z = kt::from_kel(X);
    kronecker_upper_substitute(w1, w2_upper, *U1, *U2, X);
    const Dense y = kt::from_kel(X);
    if (r1 == p && r2 == q) {
        const Dense u = kron(kt::upper_of(*U1, kd1), kt::upper_of(*U2, kd2));
        c.ratio("kronecker_lower_substitute", kt::residual_ratio(transpose(u), z, x));
        c.ratio("kronecker_upper_substitute", kt::residual_ratio(u, y, z));
    }
    c.ratio("kronecker lower+upper", kt::residual_ratio(kron(a1, a2), y, x));
    for (int i = 0; i < p; ++i)
        for (int t = 0; t < q; ++t)
            for (int j = 0; j < nrhs && ((*U1)(i, i) == -1.0 || (*U2)(t, t) == -1.0); ++j)
                c.expect(y(i * q + t, j) == 0.0, "a dropped pivot's unknown is not 0");
}

// ---- the sparse direct solver ----

void sparse_solver(Case& c)
{
    const int n = c.size(65), batch = c.draw(1, 4), cols = c.rhs_count();
    const LSMsolver_mattype type = c.pick({LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE,
                                           LSM_REAL_SYMMETRIC_INDEFINITE, LSM_REAL_UNSYMMETRIC,
                                           LSM_REAL_STRUCTURALLY_SYMMETRIC});
    const bool symmetric = type == LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE || type == LSM_REAL_SYMMETRIC_INDEFINITE;
    const Cond cond = type == LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE ? c.cond(false) : Cond::Well;
    c.note("n", n, "type", int(type), "batch", batch, "cols", cols);
    // A sparse pattern (symmetric unless unsymmetric), diagonally dominant values.
    const int kd = c.band_width(n);
    int rank = 0;
    Dense a = spd(c, n, kd, cond, rank);
    if (cond == Cond::Well) {
        const double density = c.uniform(0.05, 1.0);
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                if (i != j && (std::abs(i - j) > kd || c.uniform(0.0, 1.0) > density))
                    a(i, j) = a(j, i) = 0.0;
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                if (i != j && a(i, j) != 0.0 && !symmetric) {
                    const bool drop = type == LSM_REAL_UNSYMMETRIC && c.draw(0, 3) == 0; // unsymmetric pattern
                    a(i, j) = drop ? 0.0 : c.uniform(-1.0, 1.0);
                }
        for (int i = 0; i < n; ++i) {
            double s = 1.0;
            for (int j = 0; j < n; ++j)
                s += j != i ? std::fabs(a(i, j)) + std::fabs(a(j, i)) : 0.0;
            a(i, i) = type == LSM_REAL_SYMMETRIC_INDEFINITE && c.draw(0, 1) ? -s : s;
        }
    }
    std::vector<int> ia(1, 1), ja;
    std::vector<double> av;
    for (int i = 0; i < n; ++i) {
        for (int j = symmetric ? i : 0; j < n; ++j)
            if (a(i, j) != 0.0 || i == j || (type == LSM_REAL_STRUCTURALLY_SYMMETRIC && a(j, i) != 0.0)) {
                ja.push_back(j + 1);
                av.push_back(a(i, j));
            }
        ia.push_back(int(ja.size()) + 1);
    }
    const Dense b = kt::random_dense(c.rng, n, cols);
    LSMsolver solver(n, ia.data(), ja.data(), av.data(), batch, c.draw(0, 2), type);
    c.expect(solver.factor(), "LSMsolver::factor failed");
    kt::KelOf B(b), X(Dense(n, cols));
    const auto b0 = kt::snapshot(B);
    const bool raw = c.draw(0, 1);
    c.solved("LSMsolver", raw ? solver.solve(cols, B.GetElements(), X.GetElements()) : solver.solve(B, X),
             a, X, b);
    c.expect(kt::snapshot(B) == b0, "LSMsolver::solve changed B");
}

// ---- the run ----

TEST(Campaign, RandomProblemsMeetLapackAcceptanceRatios)
{
    void (*const families[])(Case&) = {general_solves,  spd_family,
                                       least_squares,   eigenproblems,   native_cholesky,
                                       cyclic_cholesky, cyclic_solve,    kronecker_solve,
                                       kronecker_substitutions, sparse_solver};
    const int weights[] = {4, 8, 3, 2, 4, 3, 3, 3, 3, 1};
    const std::uint64_t seed = kt::seed();
    const char* only = std::getenv("KELMATRIX_CAMPAIGN_CASE");
    const long first = only ? std::strtol(only, nullptr, 10) : 0;
    const long end = only ? first + 1 : campaign_cases();
    const int misalignment = kelmatrix_get_mkl_misalignment();
    long run = 0;
    for (long k = first; k < end && g_failures < 20; ++k, ++run) {
        Case c(seed, k);
        families[std::discrete_distribution<int>(std::begin(weights), std::end(weights))(c.rng)](c);
    }
    kelmatrix_set_mkl_misalignment(misalignment);

    std::printf("\n%ld cases, seed %" PRIu64 "\n%-44s %8s %12s\n", run, seed, "routine and check",
                "checks", "max ratio");
    for (const auto& r : g_record)
        std::printf("%-44s %8ld %12.3g\n", r.first.c_str(), r.second.checks, r.second.worst);
    EXPECT_EQ(run, end - first) << "stopped after 20 failures";
}

} // namespace
