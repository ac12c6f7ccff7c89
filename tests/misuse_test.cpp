// KELMATRIX misuse suite (linked against libkelmatrix_checked)
// One case per class of misuse the checked library reports, each asserting the function named
// and the condition broken, and correct calls (edge cases included) that must not report.
//
// A throwing handler turns every report into a Misuse exception; the reporting function has
// changed nothing by then, which the cases check on the arguments they keep. The default
// handler (one line on stderr, then abort) is checked once in a death test.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kelmatrix/checked.h"
#include "kelmatrix/kelmatrix.h"
#include "test_util.h"

namespace {

struct Misuse {
    std::string function, condition, values;
};

void throwing_handler(const char* function, const char* condition, const char* values)
{
    throw Misuse{function, condition, values};
}

class MisuseTest : public ::testing::Test {
protected:
    void SetUp() override { previous = kelmatrix_set_check_handler(throwing_handler); }
    void TearDown() override { kelmatrix_set_check_handler(previous); }
    kelmatrix_check_handler previous = nullptr;
    std::mt19937_64 rng{kt::seed()};
};

// Runs call, which must report; returns what it reported ("none" when nothing was).
template <class Call> Misuse report_of(Call&& call)
{
    try {
        call();
    } catch (const Misuse& m) {
        return m;
    }
    return {"none", "none", ""};
}

#define EXPECT_MISUSE(call, fn, cond)                                                              \
    do {                                                                                           \
        const Misuse m_ = report_of([&] { call; });                                                \
        EXPECT_EQ(m_.function, fn) << #call;                                                       \
        EXPECT_EQ(m_.condition, cond) << #call << ": " << m_.values;                               \
    } while (0)

TEST_F(MisuseTest, DimensionsAsEachFunctionReadsThem)
{
    kt::KelOf A(kt::random_spd(rng, 4, 3)), B3(kt::random_dense(rng, 3, 2));
    kt::KelOf B4(kt::random_dense(rng, 4, 2)), X(kt::Dense(2, 2, 7.0));
    const std::vector<double> x_before = kt::snapshot(X);
    EXPECT_MISUSE(SolveSP(A, B3, X, 1), "SolveSP", "B.rows == A.cols");
    EXPECT_MISUSE(Solve(A, B3, X), "Solve", "B.rows == A.rows");
    EXPECT_MISUSE(ProductEx(1.0, A, B3, false, false, 0.0, X), "ProductEx",
                  "op(A).cols == op(B).rows");
    EXPECT_MISUSE(ProductEx(1.0, A, B4, false, false, 1.0, X), "ProductEx",
                  "C is op(A).rows x op(B).cols when beta != 0");
    EXPECT_MISUSE(SolveLS(A, B4, X), "SolveLS", "X.rows >= A.cols (X dimensioned by the caller)");
    kt::KelOf W(kt::Dense(3, 1)), Z(kt::Dense(4, 4));
    EXPECT_MISUSE(spdmEigenproblem(A, W, Z, 1), "spdmEigenproblem",
                  "W is A.cols x 1 (dimensioned by the caller)");
    kt::KelOf U(kt::random_spd(rng, 3, 2)), V(kt::random_spd(rng, 2, 1)), Y(kt::Dense(5, 1));
    EXPECT_MISUSE(kronecker_lower_substitute(0, 0, U, V, Y), "kronecker_lower_substitute",
                  "X.rows == U1.rows * U2.rows");
    EXPECT_EQ(kt::snapshot(X), x_before); // reported before anything was written
}

TEST_F(MisuseTest, BandWidthsAgainstTheStoredBand)
{
    KelMatrixBanded general, narrow;
    general.Dimension(5, 5, 1, 1); // general band storage: SolveBSP wants kl == 0
    general.SetIdentity();
    kt::KelOf B(kt::random_dense(rng, 5, 1)), X(kt::Dense(5, 1));
    EXPECT_MISUSE(SolveBSP(general, B, X, 1), "SolveBSP",
                  "kl == 0 and ku >= 0 (upper band storage)");
    kt::to_band_upper(kt::random_spd(rng, 6, 1), 1, narrow);
    const std::vector<double> before = kt::snapshot(narrow);
    EXPECT_MISUSE(Cholesky_factor(narrow, 3, 0.0), "Cholesky_factor",
                  "band width <= the stored upper band");
    EXPECT_MISUSE(cyclic_Cholesky_factor(narrow, 1, 2, 0.0), "cyclic_Cholesky_factor",
                  "band and border widths <= the stored upper band");
    EXPECT_EQ(kt::snapshot(narrow), before);
}

TEST_F(MisuseTest, AccessorIndicesAgainstTheShape)
{
    KelMatrix M;
    M.Dimension(3, 2, -1, -1);
    EXPECT_MISUSE(M(3, 0), "KelMatrix::operator()", "0 <= i < rows");
    EXPECT_MISUSE(M(0, -1), "KelMatrix::operator()", "0 <= j < cols");
    KelMatrixPacked P;
    P.Dimension(3, 3, -1, -1);
    EXPECT_MISUSE(P(1, 3), "KelMatrixPacked::operator()", "0 <= j < cols");
    KelMatrixBanded Bd; // taller than wide: the last rows' slots lie past the block
    Bd.Dimension(6, 2, 0, 1);
    EXPECT_MISUSE(Bd(5, 1), "KelMatrixBanded::operator()",
                  "the band slot of (i, j) lies in the stored block");
    KelMatrixBordered C;
    ASSERT_EQ(C.DimensionBordered(5, 1, 1), KEL_BORDERED_OK);
    const KelMatrixBordered& cc = C;
    EXPECT_MISUSE(cc(5, 0), "KelMatrixBordered::operator()", "0 <= i < rows");
    // A cyclic call whose m is not the bordered storage's border reads band storage as border.
    C.SetIdentity();
    KelMatrix B;
    B.Dimension(5, 1, -1, -1);
    B.SetZero();
    EXPECT_MISUSE(cyclic_Cholesky_factor(C, 1, 2, 0.0), "cyclic_Cholesky_factor",
                  "m == A's border size (KelMatrixBordered)");
    EXPECT_MISUSE(cyclic_Cholesky_subst(C, 1, 0, B), "cyclic_Cholesky_subst",
                  "m == A's border size (KelMatrixBordered)");
    EXPECT_EQ(cyclic_Cholesky_factor(C, 1, 1, 0.0), 1); // its own border: accepted
}

TEST_F(MisuseTest, CompressedRowsThroughTheChecker)
{
    // 2 x 2 upper triangle, 1-based, with a column index past n in row 2.
    int ia[] = {1, 3, 4}, ja[] = {1, 2, 3};
    double a[] = {4.0, 1.0, 3.0};
    LSMsolver s(2, ia, ja, a, 1, 0);
    const Misuse m = report_of([&] { s.factor(); });
    EXPECT_EQ(m.function, "LSMsolver::factor");
    const LSMsolver_csr_check expected =
        LSMsolver_check_csr(2, ia, ja, a, 3, LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE);
    ASSERT_NE(expected.code, LSM_CSR_OK);
    EXPECT_EQ(m.condition, expected.message); // the checker's own words
}

TEST_F(MisuseTest, OutputsThatAliasInputsWhereUndefined)
{
    kt::KelOf A(kt::random_spd(rng, 4, 3)), C(kt::Dense(4, 4));
    KelMatrix X;
    EXPECT_MISUSE(SolveSP(A, A, X, 0), "SolveSP",
                  "B shares no storage with A when copyInputs == 0");
    EXPECT_MISUSE(ProductEx(1.0, A, C, false, false, 1.0, A), "ProductEx",
                  "C shares no storage with A when beta != 0");
    EXPECT_MISUSE(spdCholeskySubstitute(A, A, X, 0), "spdCholeskySubstitute",
                  "B shares no storage with U when copyInputs == 0");
    std::vector<double> b(4, 1.0);
    int ia[] = {1, 2, 3, 4, 5}, ja[] = {1, 2, 3, 4};
    double a[] = {1.0, 2.0, 3.0, 4.0};
    LSMsolver s(4, ia, ja, a, 1, 0);
    ASSERT_TRUE(s.factor());
    EXPECT_MISUSE(s.solve(1, b.data(), b.data()), "LSMsolver::solve", "x != b");
}

TEST_F(MisuseTest, NegativeSizes)
{
    KelMatrix M;
    EXPECT_MISUSE(M.Dimension(-1, 3, -1, -1), "KelGenericMatrix::Dimension",
                  "rows >= 0 and cols >= 0");
    KelMatrixBanded Bd;
    EXPECT_MISUSE(Bd.Dimension(3, 3, 0, -1), "KelMatrixBanded::Dimension", "kl >= 0 and ku >= 0");
    kt::KelOf A(kt::random_spd(rng, 4, 3)), B(kt::random_dense(rng, 4, 1));
    EXPECT_MISUSE(cyclic_Cholesky_factor(A, 1, -1, 0.0), "cyclic_Cholesky_factor",
                  "0 <= m <= A.rows");
    KelMatrix X;
    EXPECT_MISUSE(SolveBSP_Cyclic(A, B, 3, -2, X), "SolveBSP_Cyclic", "bandWidth >= 0");
    const int m = -1, n = 2, k = 2, ld = 2;
    double buf[4] = {};
    EXPECT_MISUSE(kel_dgemm("N", "N", m, n, k, 1.0, buf, ld, buf, ld, 0.0, buf, ld), "kel_dgemm",
                  "m, n, k >= 0");
}

// Correct calls, the edges included, report nothing and give what the mathematics expects.
TEST_F(MisuseTest, CorrectCallsDoNotReport)
{
    const kt::Dense spd = kt::random_spd(rng, 6, 2), rhs = kt::random_dense(rng, 6, 3);
    kt::KelOf A(spd), B(rhs);
    KelMatrix X;
    EXPECT_TRUE(SolveSP(A, B, X, 1));
    EXPECT_LT(kt::residual_ratio(spd, kt::from_kel(X), rhs), 30.0);
    KelMatrixBanded Ab;
    kt::to_band_upper(spd, 2, Ab); // factored over exactly its stored band
    EXPECT_EQ(Cholesky_factor(Ab, 2, 0.0), 6);
    kt::KelOf Y(rhs);
    Cholesky_subst(Ab, 0, Y);
    EXPECT_LT(kt::residual_ratio(spd, kt::from_kel(Y), rhs), 30.0);
    ProductEx(1.0, A, B, false, false, 0.0, B); // beta = 0: C may be an operand
    EXPECT_LT(kt::norm1(kt::minus(kt::from_kel(B), kt::multiply(spd, rhs))),
              1e-13 * kt::norm1(spd) * kt::norm1(rhs));
    KelMatrix empty;
    empty.Dimension(0, 0, -1, -1);
    KelMatrixBanded corner;
    corner.Dimension(4, 4, 0, 1);
    corner(3, 3) = 1.0; // the last slot of the block
    EXPECT_EQ(corner(3, 3), 1.0);
}

TEST(MisuseDeathTest, DefaultHandlerWritesOneLineAndAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // MKL's threads may be running
    kt::KelOf A(kt::Dense(3, 3)), B(kt::Dense(2, 1));
    KelMatrix X;
    EXPECT_DEATH(SolveSP(A, B, X, 1), "kelmatrix: misuse in SolveSP: B.rows == A.cols does not "
                                      "hold \\(order = 3, B.rows = 2\\)");
}

} // namespace
