// KELMATRIX fast route tests
// The direct-addressing routes of the native solvers against the generic accessor route, bit for
// bit: the same input once as a KelMatrix / KelMatrixBanded and once behind a storage type the
// library cannot address directly.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

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

// The storages under test: dense plain / upper / lower, band kl = 0, band kl = 1 mirrored lower.
enum Storage { kDense, kDenseUpper, kDenseLower, kBand, kBandLower, kStorages };

void shape(KelGenericMatrix& m, Storage s, int n, int bw)
{
    m.SetSymmetric(s == kDenseUpper || s == kDenseLower || s == kBandLower);
    if (s == kDenseLower || s == kBandLower)
        m.SetUsesLower();
    if (s == kBand)
        m.Dimension(n, n, 0, std::min(bw, n - 1));
    else if (s == kBandLower)
        m.Dimension(n, n, 1, std::min(bw, n - 1));
    else
        m.Dimension(n, n, -1, -1);
    m.SetZero();
}

// A twin in the same storage type with the same flags and bits.
template <class M> void twin(M& src, M& dst)
{
    dst.SetSymmetric(src.SymmetricQ());
    if (src.UsesLowerQ())
        dst.SetUsesLower();
    dst.Dimension(src.GetRowDim(), src.GetColDim(), src.GetLowerBandWidth(),
                  src.GetUpperBandWidth());
    std::memcpy(dst.GetElements(), src.GetElements(), sizeof(double) * src.GetStorageSize());
}

bool same_storage(const KelGenericMatrix& a, const KelGenericMatrix& b)
{
    return a.GetStorageSize() == b.GetStorageSize() &&
           std::memcmp(a.GetElements(), b.GetElements(), sizeof(double) * a.GetStorageSize()) == 0;
}

// Upper band of a nearly SPD matrix with the pivots' edge cases sprinkled in: tiny diagonals
// (dropped with tol > 0), zero rows (zero pivots with tol <= 0), NaN and negative diagonals.
void fill_band(KelGenericMatrix& A, int n, int bw, std::mt19937_64& rng)
{
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::uniform_int_distribution<int> pick(0, 9);
    for (int j = 0; j < n; ++j) {
        for (int i = std::max(0, j - bw); i < j; ++i)
            A(i, j) = u(rng);
        A(j, j) = 2.0 * bw + 1.0;
    }
    for (int i = 0; i < n; ++i)
        switch (pick(rng)) {
        case 0:
            A(i, i) = 1e-9;
            break;
        case 1:
            for (int k = std::max(0, i - bw); k <= i; ++k)
                A(k, i) = 0.0;
            break;
        case 2:
            A(i, i) = kNaN;
            break;
        case 3:
            A(i, i) = -1.0;
            break;
        default:
            break;
        }
}

void random_rhs(KelMatrix& B, int rows, int cols, std::mt19937_64& rng)
{
    B.Dimension(rows, cols, -1, -1);
    kt::fill(B, kt::random_dense(rng, rows, cols));
}

template <class M>
void factor_and_solve_agree(Storage s, int n, int bw, double tol, std::mt19937_64& rng)
{
    SCOPED_TRACE("storage " + std::to_string(s) + " n " + std::to_string(n) + " bw " +
                 std::to_string(bw) + " tol " + std::to_string(tol));
    M fast, slow;
    shape(fast, s, n, bw);
    fill_band(fast, n, bw, rng);
    twin(fast, slow);
    Forward generic(slow);
    ASSERT_EQ(Cholesky_factor(fast, bw, tol), Cholesky_factor(generic, bw, tol));
    ASSERT_TRUE(same_storage(fast, slow));

    for (int nrhs : {1, 3, 19}) { // one column, a block of 2 + 1, blocks of 16 + 2 + 1
        KelMatrix b;
        random_rhs(b, n, nrhs, rng);
        DerivedKel bg;
        kt::to_kel(kt::from_kel(b), bg);
        Cholesky_subst(fast, bw, b);
        Cholesky_subst(generic, bw, bg);
        EXPECT_TRUE(same_storage(b, bg)) << nrhs << " right-hand sides";
    }
    // A symmetric right-hand side: mirrored on both sides of its diagonal.
    KelMatrix b;
    b.SetSymmetric(true);
    random_rhs(b, n, n, rng);
    DerivedKel bg;
    bg.SetSymmetric(true);
    twin<KelMatrix>(b, bg);
    Cholesky_subst(fast, bw, b);
    Cholesky_subst(generic, bw, bg);
    EXPECT_TRUE(same_storage(b, bg));
}

TEST(FastRoute, BandCholeskyMatchesTheGenericRoute)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    // Widths: narrow, wider than the band storage's diagonals reach (kBand: in order), the
    // column kernel (> 96) and the whole matrix; bw <= 0 resolves from the matrix.
    const int cases[][2] = {{1, 1},  {7, 1},   {30, 2},    {30, 3},
                            {40, 8}, {25, 24}, {130, 100}, {20, 0}};
    for (const auto& c : cases)
        for (double tol : {1e-3, 0.0, -1.0})
            for (int s = 0; s < kStorages; ++s) {
                if (s == kBand || s == kBandLower)
                    factor_and_solve_agree<KelMatrixBanded>(Storage(s), c[0], c[1], tol, rng);
                else
                    factor_and_solve_agree<KelMatrix>(Storage(s), c[0], c[1], tol, rng);
            }

    // Band storage narrower than the width used: the accessor's out-of-band addresses.
    KelMatrixBanded narrow, narrow2;
    shape(narrow, kBand, 12, 1);
    fill_band(narrow, 12, 1, rng);
    twin(narrow, narrow2);
    Forward generic(narrow2);
    EXPECT_EQ(Cholesky_factor(narrow, 2, 0.0), Cholesky_factor(generic, 2, 0.0));
    EXPECT_TRUE(same_storage(narrow, narrow2));
}

template <class M>
void cyclic_agrees(Storage s, int nb, int bw, int m, double tol, std::mt19937_64& rng)
{
    const int n = nb + m;
    SCOPED_TRACE("storage " + std::to_string(s) + " nb " + std::to_string(nb) + " bw " +
                 std::to_string(bw) + " m " + std::to_string(m) + " tol " + std::to_string(tol));
    M fast, slow;
    shape(fast, s, n, n - 1); // band storage holding the whole upper triangle
    fill_band(fast, n, n - 1, rng);
    twin(fast, slow);
    Forward generic(slow);
    ASSERT_EQ(cyclic_Cholesky_factor(fast, bw, m, tol),
              cyclic_Cholesky_factor(generic, bw, m, tol));
    ASSERT_TRUE(same_storage(fast, slow));
    for (int nrhs : {1, 3}) {
        KelMatrix b;
        random_rhs(b, n, nrhs, rng);
        DerivedKel bg;
        kt::to_kel(kt::from_kel(b), bg);
        cyclic_Cholesky_subst(fast, bw, m, b);
        cyclic_Cholesky_subst(generic, bw, m, bg);
        EXPECT_TRUE(same_storage(b, bg)) << nrhs << " right-hand sides";
    }
}

TEST(FastRoute, CyclicCholeskyMatchesTheGenericRoute)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int cases[][3] = {{12, 2, 2}, {9, 1, 1},  {10, 3, 0}, {0, 2, 5},
                            {8, 0, 2},  {8, -1, 2}, {6, 9, 3},  {120, 100, 2}};
    for (const auto& c : cases)
        for (double tol : {1e-3, 0.0})
            for (Storage s : {kDense, kDenseUpper, kDenseLower, kBand}) {
                if (s == kBand)
                    cyclic_agrees<KelMatrixBanded>(s, c[0], c[1], c[2], tol, rng);
                else
                    cyclic_agrees<KelMatrix>(s, c[0], c[1], c[2], tol, rng);
            }
}

TEST(FastRoute, KroneckerSubstitutionsMatchTheGenericRoute)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int p = 7, q = 6, w1 = 2, w2 = 3;
    for (double tol : {1e-3, 0.0}) {
        KelMatrixBanded U1, U1g;
        KelMatrix U2, U2g;
        shape(U1, kBand, p, w1);
        fill_band(U1, p, w1, rng);
        Cholesky_factor(U1, w1, tol);
        twin(U1, U1g);
        shape(U2, kDenseUpper, q, w2);
        fill_band(U2, q, w2, rng);
        Cholesky_factor(U2, w2, tol);
        twin(U2, U2g);
        Forward g1(U1g), g2(U2g);
        KelMatrix x;
        random_rhs(x, p * q, 3, rng);
        DerivedKel xg;
        kt::to_kel(kt::from_kel(x), xg);
        kronecker_lower_substitute(w1, w2, U1, U2, x);
        kronecker_lower_substitute(w1, w2, g1, g2, xg);
        EXPECT_TRUE(same_storage(x, xg)) << "lower, tol " << tol;
        kronecker_upper_substitute(w1, 0, U1, U2, x);
        kronecker_upper_substitute(w1, 0, g1, g2, xg);
        EXPECT_TRUE(same_storage(x, xg)) << "upper, tol " << tol;
    }
}

TEST(FastRoute, KroneckerTranspositionsMatchTheGenericRoute)
{
    std::mt19937_64 rng(kt::seed() + 3);
    SCOPED_TRACE(kt::seed_note());
    const int nA = 37, nB = 45; // not multiples of the tile
    KelMatrixBanded A, B, A2, B2;
    kt::to_band_upper(kt::random_spd(rng, nA, 2), 2, A);
    kt::to_band_upper(kt::random_spd(rng, nB, 3), 3, B);
    for (bool copy : {true, false}) {
        twin(A, A2);
        twin(B, B2);
        KelMatrix x;
        random_rhs(x, nB, 2 * nA + 5, rng); // two groups and five trailing columns
        DerivedKel xg;
        kt::to_kel(kt::from_kel(x), xg);
        ASSERT_TRUE(Solve_Kronecker(A2, B2, x, copy));
        twin(A, A2);
        twin(B, B2);
        ASSERT_TRUE(Solve_Kronecker(A2, B2, xg, copy));
        EXPECT_TRUE(same_storage(x, xg)) << "copy " << copy;
    }
}

} // namespace
