// KELMATRIX fast route tests
// The direct-addressing routes of the native solvers against the generic accessor route, bit for
// bit: the same input once as a KelMatrix / KelMatrixBanded and once behind a storage type the
// library cannot address directly. Every check runs once per instruction set the machine has,
// forced through the library's internal switch (this test links a static build to reach it).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "band/kernel_table.h"
#include "kelmatrix/band.h"
#include "test_util.h"

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

// Forwards every element access to a library matrix: only the generic route can serve it.
class Forward : public KelGenericMatrix {
public:
    explicit Forward(KelGenericMatrix& m) : m_(m)
    {
        rowDim = m.GetRowDim();
        colDim = m.GetColDim();
        lowerBandWidth = m.GetLowerBandWidth();
        upperBandWidth = m.GetUpperBandWidth();
    }
    double& operator()(int i, int j) override { return m_(i, j); }
    double operator()(int i, int j) const override
    {
        return static_cast<const KelGenericMatrix&>(m_)(i, j);
    }

private:
    KelGenericMatrix& m_;
};

// A KelMatrix of a derived type: same storage and accessor, but the generic route.
struct DerivedKel : KelMatrix {};

// The storages under test: dense plain / upper / lower, band kl = 0, band kl = 1 mirrored lower,
// and bordered (band block of width bw, border m).
enum Storage { kDense, kDenseUpper, kDenseLower, kBand, kBandLower, kBordered };

/// An n x n zero matrix in storage s; the band ones hold upper width min(bw, n - 1).
std::unique_ptr<KelGenericMatrix> make(Storage s, int n, int bw, int border = 0)
{
    if (s == kBordered) {
        auto b = std::make_unique<KelMatrixBordered>();
        EXPECT_EQ(b->DimensionBordered(n, bw, border), KEL_BORDERED_OK);
        return b;
    }
    std::unique_ptr<KelGenericMatrix> m(
        s >= kBand ? static_cast<KelGenericMatrix*>(new KelMatrixBanded) : new KelMatrix);
    m->SetSymmetric(s == kDenseUpper || s == kDenseLower || s == kBandLower);
    if (s == kDenseLower || s == kBandLower)
        m->SetUsesLower();
    m->Dimension(n, n,
                 s == kBand        ? 0
                 : s == kBandLower ? 1
                                   : -1,
                 s >= kBand ? std::min(bw, n - 1) : -1);
    m->SetZero();
    return m;
}

// A twin in the same storage type (a bordered one already of the same sizes) with the same
// flags and bits.
void twin(KelGenericMatrix& src, KelGenericMatrix& dst)
{
    dst.SetSymmetric(src.SymmetricQ());
    if (src.UsesLowerQ())
        dst.SetUsesLower();
    dst.Dimension(src.GetRowDim(), src.GetColDim(), src.GetLowerBandWidth(),
                  src.GetUpperBandWidth());
    std::memcpy(dst.GetElements(), src.GetElements(), sizeof(double) * src.GetStorageSize());
}

// Bit for bit, except that any NaN equals any NaN: payloads are not part of the result.
bool same_storage(const KelGenericMatrix& a, const KelGenericMatrix& b)
{
    if (a.GetStorageSize() != b.GetStorageSize())
        return false;
    for (int k = 0; k < a.GetStorageSize(); ++k) {
        const double x = a.GetElements()[k], y = b.GetElements()[k];
        if (std::memcmp(&x, &y, sizeof x) != 0 && !(std::isnan(x) && std::isnan(y)))
            return false;
    }
    return true;
}

// Upper band of a nearly SPD matrix with the pivots' edge cases sprinkled in: tiny diagonals
// (dropped with tol > 0), zero rows (zero pivots with tol <= 0), NaN and negative diagonals, on
// 4 rows in 10, or on 4 in 100 when rare (long runs of kept rows between them). kFinite: as
// rare, but tiny where a NaN or negative diagonal would go; in a wide band one such pivot
// spreads NaN to every later column, leaving little finite to compare. Writes outside a
// bordered storage's pattern are lost, as documented.
enum Edges { kOften, kRare, kFinite };
void fill_band(KelGenericMatrix& A, int n, int bw, std::mt19937_64& rng, Edges edges = kOften)
{
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::uniform_int_distribution<int> pick(0, edges == kOften ? 9 : 99);
    for (int j = 0; j < n; ++j) {
        for (int i = std::max(0, j - bw); i < j; ++i)
            A(i, j) = u(rng);
        A(j, j) = 2.0 * bw + 1.0;
    }
    const double edge[] = {1e-9, 0.0, kNaN, -1.0}; // tiny, zero row, NaN, negative
    for (int i = 0; i < n; ++i) {
        const int kind = pick(rng);
        for (int k = std::max(0, i - bw); kind == 1 && k < i; ++k)
            A(k, i) = 0.0;
        if (kind < 4)
            A(i, i) = edges == kFinite && kind >= 2 ? edge[0] : edge[kind];
    }
}

/// A random rows x cols right-hand side (symmetric: mirrored on both sides of its diagonal),
/// once as a KelMatrix and once as a derived type, through subst(generic, b); bit for bit.
template <class Subst>
void rhs_agrees(int rows, int cols, bool symmetric, std::mt19937_64& rng, Subst subst)
{
    KelMatrix b;
    DerivedKel bg;
    b.SetSymmetric(symmetric);
    b.Dimension(rows, cols, -1, -1);
    b.SetZero(); // a symmetric b is filled in one triangle only; the whole block is compared
    kt::fill(b, kt::random_dense(rng, rows, cols));
    twin(b, bg);
    subst(false, b);
    subst(true, bg);
    EXPECT_TRUE(same_storage(b, bg)) << cols << " right-hand sides, symmetric " << symmetric;
}

/// A random band matrix of width bw in storage s factored directly and through Forward, then
/// each count of right-hand sides (and a symmetric n x n one if asked) through both factors.
template <class Factor, class Subst>
void routes_agree(Storage s, int n, int bw, std::initializer_list<int> rhs, bool symmetric_rhs,
                  std::mt19937_64& rng, Factor factor, Subst subst, int m = 0, Edges edges = kOften)
{
    auto fast = make(s, n, bw, m), slow = make(s, n, bw, m);
    fill_band(*fast, n, s == kBordered ? n - 1 : bw, rng, edges); // bordered: the border too
    twin(*fast, *slow);
    Forward generic(*slow);
    ASSERT_EQ(factor(*fast), factor(generic));
    ASSERT_TRUE(same_storage(*fast, *slow));
    auto both = [&](bool g, KelMatrix& b) { subst(g ? generic : *fast, b); };
    for (int nrhs : rhs)
        rhs_agrees(n, nrhs, false, rng, both);
    if (symmetric_rhs)
        rhs_agrees(n, n, true, rng, both);
}

using kelmatrix::internal::Isa;

// The fast-route checks, once per instruction set: a set the machine lacks is skipped.
class FastRoute : public testing::TestWithParam<Isa> {
protected:
    void SetUp() override
    {
        if (static_cast<int>(GetParam()) > static_cast<int>(kelmatrix::internal::best_isa()))
            GTEST_SKIP() << "instruction set not on this machine";
        ASSERT_EQ(kelmatrix::internal::force_kernel_isa(GetParam()), GetParam());
    }
    void TearDown() override
    {
        kelmatrix::internal::force_kernel_isa(kelmatrix::internal::best_isa());
    }
};

std::string isa_name(const testing::TestParamInfo<Isa>& info)
{
    const char* names[] = {"Sse2", "Avx2", "Avx512"};
    return names[static_cast<int>(info.param)];
}

INSTANTIATE_TEST_SUITE_P(Isa, FastRoute, testing::Values(Isa::kSse2, Isa::kAvx2, Isa::kAvx512),
                         isa_name);

TEST_P(FastRoute, BandCholeskyMatchesTheGenericRoute)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    // Widths: narrow, wider than the band storage's diagonals reach (kBand: in order), the ring
    // kernel's vector rows (16 .. 63, rows cut by the band's edge), the column kernel (> 63)
    // and the whole matrix; bw <= 0 resolves from the matrix.
    const int cases[][2] = {{1, 1},   {7, 1},   {30, 2},    {30, 3}, {40, 8},
                            {25, 24}, {90, 21}, {130, 100}, {20, 0}};
    for (const auto& c : cases)
        for (double tol : {1e-3, 0.0, -1.0})
            for (int s = 0; s <= kBandLower; ++s) {
                const int n = c[0], bw = c[1];
                SCOPED_TRACE(testing::Message()
                             << "storage " << s << " n " << n << " bw " << bw << " tol " << tol);
                // Right-hand sides: one column, a block of 2 + 1, blocks of 16 + 2 + 1.
                routes_agree(
                    Storage(s), n, bw, {1, 3, 19}, true, rng,
                    [&](KelGenericMatrix& A) { return Cholesky_factor(A, bw, tol); },
                    [&](KelGenericMatrix& A, KelMatrix& b) { Cholesky_subst(A, bw, b); });
            }
    // A band too wide for the ring of solved rows: the blocks keep them in b, in tiles (the
    // last of each pass cut short); the edge cases once finite, once with NaN.
    for (Edges edges : {kFinite, kOften})
        routes_agree(
            kDense, 563, 540, {17}, false, rng,
            [](KelGenericMatrix& A) { return Cholesky_factor(A, 540, 1e-3); },
            [](KelGenericMatrix& A, KelMatrix& b) { Cholesky_subst(A, 540, b); }, 0, edges);
    // The whole triangle of larger orders (the tiled kernel: several blocks of rows, several
    // chunks of rows above a block, a last block and tile cut short), edge cases rare or not.
    for (const int n : {97, 301})
        for (Edges edges : {kRare, kOften})
            for (double tol : {1e-3, -1.0})
                for (Storage s : {kDense, kDenseLower, kBand}) {
                    SCOPED_TRACE(testing::Message() << "storage " << s << " n " << n << " edges "
                                                    << edges << " tol " << tol);
                    routes_agree(
                        s, n, n - 1, {1, 17}, false, rng,
                        [&](KelGenericMatrix& A) { return Cholesky_factor(A, n - 1, tol); },
                        [&](KelGenericMatrix& A, KelMatrix& b) { Cholesky_subst(A, n - 1, b); }, 0,
                        edges);
                }
    // Band storage narrower than the width used: the accessor's out-of-band addresses.
    routes_agree(
        kBand, 12, 1, {}, false, rng,
        [](KelGenericMatrix& A) { return Cholesky_factor(A, 2, 0.0); },
        [](KelGenericMatrix&, KelMatrix&) {});
}

TEST_P(FastRoute, CyclicCholeskyMatchesTheGenericRoute)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int cases[][3] = {{12, 2, 2}, {9, 1, 1}, {10, 3, 0},    {0, 2, 5}, {8, 0, 2},
                            {8, -1, 2}, {6, 9, 3}, {120, 100, 2}, {60, 3, 9}};
    for (const auto& c : cases)
        for (double tol : {1e-3, 0.0, -1.0})
            for (Storage s : {kDense, kDenseUpper, kDenseLower, kBand, kBordered}) {
                const int nb = c[0], bw = c[1], m = c[2], n = nb + m;
                SCOPED_TRACE(testing::Message() << "storage " << s << " nb " << nb << " bw " << bw
                                                << " m " << m << " tol " << tol);
                // Band storage holding the whole upper triangle; bordered storage of this m and
                // of width bw, or one wider than the routines use.
                const int stored = s == kBordered ? std::max(bw, 0) + (tol == 0.0) : n - 1;
                routes_agree(
                    s, n, stored, {1, 3}, false, rng,
                    [&](KelGenericMatrix& A) { return cyclic_Cholesky_factor(A, bw, m, tol); },
                    [&](KelGenericMatrix& A, KelMatrix& b) { cyclic_Cholesky_subst(A, bw, m, b); },
                    m);
            }
}

TEST_P(FastRoute, KroneckerSubstitutionsMatchTheGenericRoute)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int p = 7, q = 6, w1 = 2, w2 = 3;
    for (double tol : {1e-3, 0.0}) {
        SCOPED_TRACE(testing::Message() << "tol " << tol);
        auto U1 = make(kBand, p, w1), U2 = make(kDenseUpper, q, w2);
        auto U1g = make(kBand, p, w1), U2g = make(kDenseUpper, q, w2);
        fill_band(*U1, p, w1, rng);
        fill_band(*U2, q, w2, rng);
        Cholesky_factor(*U1, w1, tol);
        Cholesky_factor(*U2, w2, tol);
        twin(*U1, *U1g);
        twin(*U2, *U2g);
        Forward g1(*U1g), g2(*U2g);
        rhs_agrees(p * q, 3, false, rng, [&](bool g, KelMatrix& x) {
            kronecker_lower_substitute(w1, w2, g ? g1 : *U1, g ? g2 : *U2, x);
        });
        rhs_agrees(p * q, 3, false, rng, [&](bool g, KelMatrix& x) {
            kronecker_upper_substitute(w1, 0, g ? g1 : *U1, g ? g2 : *U2, x);
        });
    }
}

TEST_P(FastRoute, KroneckerTranspositionsMatchTheGenericRoute)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int nA = 37, nB = 45; // not multiples of the tile
    KelMatrixBanded A, B, A2, B2;
    kt::to_band_upper(kt::random_spd(rng, nA, 2), 2, A);
    kt::to_band_upper(kt::random_spd(rng, nB, 3), 3, B);
    for (bool copy : {true, false}) // two groups and five trailing columns
        rhs_agrees(nB, 2 * nA + 5, false, rng, [&](bool, KelMatrix& x) {
            twin(A, A2);
            twin(B, B2);
            ASSERT_TRUE(Solve_Kronecker(A2, B2, x, copy)) << "copy " << copy;
        });
}

} // namespace
