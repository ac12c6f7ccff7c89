// KELMATRIX failure-path tests
// Each documented failure of the dense and banded wrappers and drivers not pinned elsewhere: the
// result it gives, and that the output, and the inputs a copy protects, keep their block, shape
// and bits.
//
// Illegal sizes reach LAPACK's own argument check, which prints "Intel MKL ERROR: Parameter k
// was incorrect" and returns info = -k; the int-returning wrappers pass that k through.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "kelmatrix/band.h"
#include "kelmatrix/dense.h"
#include "test_util.h"

namespace {

using kt::Dense;

/// Records block, shape and bits of matrices; true while none of them has changed.
class Untouched {
public:
    Untouched(std::initializer_list<const KelGenericMatrix*> ms) : ms_(ms), saved_(state()) {}
    bool operator()() const { return state() == saved_; }

private:
    using State = std::vector<std::tuple<const double*, int, int, std::string>>;
    State state() const
    {
        State s;
        for (const KelGenericMatrix* m : ms_)
            s.emplace_back(m->GetElements(), m->GetRowDim(), m->GetColDim(),
                           std::string(reinterpret_cast<const char*>(m->GetElements()),
                                       sizeof(double) * m->GetStorageSize()));
        return s;
    }
    std::vector<const KelGenericMatrix*> ms_;
    State saved_;
};

TEST(FailurePaths, IllegalSizesAreRejectedByLapackAndChangeNothing)
{
    std::mt19937_64 rng(kt::seed());
    SCOPED_TRACE(kt::seed_note());
    const int n = 5;
    const Dense spd = kt::random_spd(rng, n, n - 1);
    KelMatrix empty; // 0 x 0, so every leading dimension handed over is 0
    kt::KelOf A(spd), Bshort(kt::random_dense(rng, n - 2, 2)), B0(Dense(0, 2));
    kt::KelOf X(kt::random_dense(rng, 3, 2)), W(Dense(2, 1)), Z(Dense(2, 2));
    KelMatrixBanded Ab, Aempty, Anegative;
    kt::to_band_upper(spd, 2, Ab);
    Aempty.Dimension(0, 0, 1, 1);
    Anegative.Dimension(n, n, 0, -1); // kd = -1

    const Untouched all{&empty, &X, &W, &Z, &A, &Bshort, &B0, &Ab, &Aempty, &Anegative};
    // B with fewer rows than n: ldb < n.
    EXPECT_FALSE(Solve(A, Bshort, X));
    EXPECT_FALSE(SolveSP(A, Bshort, X, 0)); // in place, yet nothing was written
    EXPECT_FALSE(SolveBSP(Ab, Bshort, X, 0));
    EXPECT_FALSE(SolveLS(A, Bshort, X));
    // n = 0: LAPACK requires every leading dimension >= 1.
    EXPECT_FALSE(Solve(empty, B0, X));
    EXPECT_FALSE(Solve(Aempty, B0, X));
    EXPECT_FALSE(SolveSP(empty, B0, X, 1));
    EXPECT_EQ(spdMatrixCholeskyFactorization(empty, 1), -4);        // lda
    EXPECT_EQ(spdCholeskySubstitute(empty, B0, X, 1), -5);          // lda
    EXPECT_EQ(symmPositiveDefiniteInverse(empty, 1), -4);           // lda
    EXPECT_FALSE(spdBandMatrixCholeskyFactorization(Anegative, 1)); // kd < 0
    EXPECT_FALSE(spdBandCholeskySubstitute(Anegative, A, X, 1));
    EXPECT_EQ(solveUpperTriangularBandSystem(Anegative, false, A, X, 1), -5); // kd
    double lambda[2] = {7.0, 7.0};
    EXPECT_FALSE(EigenValuesS(empty, lambda, &Z, 1)); // ldz
    EXPECT_EQ(lambda[0], 7.0);
    EXPECT_EQ(spdmEigenproblem(empty, W, Z, 1), -5); // lda
    EXPECT_TRUE(all());

    // MinNormLeastSquares with m = 0: false from the workspace query, X and B as they were, jpvt
    // as dgelsy left it (not converted to 0-based).
    KelMatrix M;
    M.Dimension(0, 3, -1, -1);
    kt::KelOf Bm(Dense(3, 1, 1.0));
    const Untouched b_and_x{&Bm, &X};
    int jpvt[3] = {0, 0, 0}, rank = -7;
    EXPECT_FALSE(MinNormLeastSquares(M, Bm, jpvt, 1e-10, rank, X));
    EXPECT_TRUE(b_and_x());
    EXPECT_EQ(jpvt[0], 0);
}

// A zero pivot, an indefinite matrix, a rank-deficient one, a zero diagonal of a factor: false
// or LAPACK's info, and the output (X, or A for the inverse) and every input a copy protects as
// they were. In place, a failed factorization leaves the partial factor instead.
TEST(FailurePaths, SingularIndefiniteAndDeficientInputsLeaveOutputsAsTheyWere)
{
    std::mt19937_64 rng(kt::seed() + 1);
    SCOPED_TRACE(kt::seed_note());
    const int n = 6;
    Dense singular = kt::random_dense(rng, n, n), tall = kt::random_dense(rng, 9, n);
    Dense indefinite = kt::random_spd(rng, n, 2);
    indefinite(3, 3) = -1.0;    // the leading minor of order 4 is not positive definite
    for (int i = 0; i < 9; ++i) // exactly zero columns: exactly zero pivots in LU and in R
        tall(i, 2) = singular(i % n, 2) = 0.0;
    kt::KelOf S(singular), P(indefinite), T(tall), B(kt::random_dense(rng, n, 5));
    kt::KelOf Bt(kt::random_dense(rng, 9, 5)), X(Dense(n, 5, 7.0)); // SolveLS: nrhs from X
    KelMatrixBanded Sb, Pb, Tb;
    Sb.Dimension(n, n, 2, 1);
    Sb.SetZero();
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - 1); i <= std::min(n - 1, j + 2); ++i)
            Sb(i, j) = singular(i, j);
    kt::to_band_upper(indefinite, 2, Pb);
    Tb.Dimension(n, n, 0, 1);
    Tb.SetIdentity();
    Tb(2, 2) = 0.0; // a triangular factor with a zero diagonal
    KelMatrix F;
    kt::to_kel_upper(kt::random_spd(rng, n, n - 1), F);
    F(2, 2) = 0.0;

    const Untouched all{&S, &P, &T, &B, &Bt, &X, &Sb, &Pb, &Tb, &F};
    EXPECT_FALSE(Solve(S, B, X));
    EXPECT_FALSE(Solve(Sb, B, X));
    EXPECT_FALSE(SolveSP(P, B, X, 1));
    EXPECT_FALSE(SolveBSP(Pb, B, X, 1));
    EXPECT_FALSE(SolveLS(T, Bt, X));
    EXPECT_EQ(solveUpperTriangularBandSystem(Tb, false, B, X, 1), 3);
    for (int copy : {1, 2})
        EXPECT_EQ(symmPositiveDefiniteInverse(F, copy), 3); // no write-back, no mirroring
    EXPECT_TRUE(all());

    for (int copy : {1, 2, -1}) { // only 1 copies
        SCOPED_TRACE(copy);
        KelMatrix A;
        KelMatrixBanded Ab;
        kt::to_kel_upper(indefinite, A);
        kt::to_band_upper(indefinite, 2, Ab);
        const Untouched a{&A}, ab{&Ab};
        EXPECT_EQ(spdMatrixCholeskyFactorization(A, copy), 4);
        EXPECT_FALSE(spdBandMatrixCholeskyFactorization(Ab, copy));
        EXPECT_EQ(a(), copy == 1);
        EXPECT_EQ(ab(), copy == 1);
    }
}

TEST(FailurePaths, BandedDriversRejectEmptyBlocksAndMismatchedRightHandSides)
{
    std::mt19937_64 rng(kt::seed() + 2);
    SCOPED_TRACE(kt::seed_note());
    const int n = 6;
    kt::KelOf A(kt::random_spd(rng, n, n - 1)), B(kt::random_dense(rng, n, 2));
    kt::KelOf X(kt::random_dense(rng, 2, 3));
    const Untouched cyclic{&A, &B, &X};
    EXPECT_FALSE(SolveBSP_Cyclic(A, B, 0, 3, X));  // nb = 0: a leading dimension of 0
    EXPECT_FALSE(SolveBSP_Cyclic(A, B, 4, -2, X)); // kd = -1
    EXPECT_TRUE(cyclic());

    // Solve_Kronecker with X shorter than B: the first SolveBSP rejects ldb < n.
    KelMatrixBanded Ak, Bk;
    kt::to_band_upper(kt::random_spd(rng, 3, 1), 1, Ak);
    kt::to_band_upper(kt::random_spd(rng, 4, 1), 1, Bk);
    kt::KelOf Xk(kt::random_dense(rng, 3, 6));
    const Untouched kron{&Ak, &Bk, &Xk};
    EXPECT_FALSE(Solve_Kronecker(Ak, Bk, Xk, true));
    EXPECT_FALSE(Solve_Kronecker(Ak, Bk, Xk, false)); // nothing reaches the arrays either
    EXPECT_TRUE(kron());
}

// Deliberate: a band-to-dense or packed-to-dense assignment does not release the target's
// earlier block. Each earlier block stays readable (a release would be a use after free under
// the sanitizer and valgrind passes) and is leaked. The suppressions in lsan.supp and
// valgrind.supp name this function, which allocates every block that is leaked.
__attribute__((noinline)) void leak_earlier_blocks_by_conversion(KelMatrix& target,
                                                                 const KelMatrixBanded& band,
                                                                 const KelMatrixPacked& packed,
                                                                 const double*& earlier,
                                                                 const double*& converted)
{
    kt::to_kel(Dense(2, 2, 5.0), target);
    earlier = target.GetElements();
    target = band;
    converted = target.GetElements();
    target = packed;
}

TEST(Conversions, KeepTheTargetsEarlierBlock)
{
    KelMatrixBanded band;
    band.Dimension(3, 3, 1, 1);
    band.SetIdentity();
    KelMatrixPacked packed;
    packed.Dimension(3, 3, -1, -1);
    std::fill(packed.GetElements(), packed.GetElements() + packed.GetStorageSize(), 2.0);
    KelMatrix target;
    const double *earlier = nullptr, *converted = nullptr;
    leak_earlier_blocks_by_conversion(target, band, packed, earlier, converted);
    EXPECT_EQ(target(0, 2), 2.0);
    EXPECT_EQ(earlier[3], 5.0);
    EXPECT_EQ(converted[4], 1.0); // element (1, 1) of the band conversion
}

} // namespace
