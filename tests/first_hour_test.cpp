// KELMATRIX first-hour tests
// What a new user writes in the first hour, as plain C++: matrices and solvers returned by value
// and kept in containers, copies of solvers released in any order, the default-constructed
// solver's trap, settings before init(), triplets into the solver and the residual check after
// it. Each must run clean under AddressSanitizer and give a reason where it is refused.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kelmatrix/band.h"
#include "kelmatrix/sparse.h"
#include "test_util.h"

namespace {

constexpr LSMsolver_mattype kSpd = LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE;

/// The 1-D Laplacian tridiag(-1, 2, -1) of order n as the triplets a user types in: 1-based,
/// the lower triangle row by row, in no order that the solver wants.
struct Triplets {
    int n;
    std::vector<int> rows, cols;
    std::vector<double> values;
};

Triplets laplacian_triplets(int n)
{
    Triplets t{n, {}, {}, {}};
    for (int i = n; i >= 1; --i) {
        t.rows.push_back(i);
        t.cols.push_back(i);
        t.values.push_back(2.0);
        if (i > 1) {
            t.rows.push_back(i);
            t.cols.push_back(i - 1);
            t.values.push_back(-1.0);
        }
    }
    return t;
}

LSMsolver_csr prepared(const Triplets& t)
{
    LSMsolver_csr A;
    const LSMsolver_csr_check c =
        LSMsolver_prepare_csr(t.n, static_cast<int>(t.rows.size()), t.rows.data(), t.cols.data(),
                              t.values.data(), 1, LSM_STORED_LOWER, kSpd, A);
    EXPECT_EQ(c.code, LSM_CSR_OK) << c.message;
    return A;
}

double solve_and_check(LSMsolver& s, LSMsolver_csr& A)
{
    std::vector<double> b(static_cast<std::size_t>(A.n), 1.0), x(b.size());
    if (!s.solve(1, b.data(), x.data()))
        return -1.0;
    double ratio = -1.0;
    EXPECT_EQ(LSMsolver_residual_ratio(A.n, A.ia.data(), A.ja.data(), A.a.data(), kSpd, 1, x.data(),
                                       b.data(), ratio)
                  .code,
              LSM_CSR_OK);
    return ratio;
}

// Solvers: a vector that grows, the copies of the issue reports, the default-constructed trap.
TEST(FirstHour, SolversInContainersAndCopies)
{
    LSMsolver_csr A = prepared(laplacian_triplets(50));
    std::vector<LSMsolver> solvers;
    for (int k = 0; k < 3; ++k) { // the third push grows the vector
        solvers.emplace_back(A.n, A.ia.data(), A.ja.data(), A.a.data(), 1, 0);
        ASSERT_TRUE(solvers.back().factor());
    }
    for (LSMsolver& s : solvers)
        EXPECT_LT(solve_and_check(s, A), 30.0);

    LSMsolver& s = solvers[0];
    {
        LSMsolver t(s);
    } // t's destructor releases the shared factorization
    EXPECT_EQ(solve_and_check(s, A), -1.0);
    EXPECT_EQ(s.diagnostics().refusal, LSM_REFUSAL_RELEASED_BY_COPY);

    LSMsolver t;
    t = solvers[1];
    solvers[1].clear();
    EXPECT_EQ(solve_and_check(t, A), -1.0);
    EXPECT_STREQ(t.diagnostics().refusalMessage,
                 "a copy sharing this factorization has released its memory");
    solvers.erase(solvers.begin()); // element assignment copies; destruction releases once

    LSMsolver fresh;
    EXPECT_FALSE(fresh.set_settings(LSMsolver_settings()));
    EXPECT_EQ(fresh.diagnostics().refusal, LSM_REFUSAL_NOT_INITIALISED);
    ASSERT_TRUE(fresh.init(A.n, A.ia.data(), A.ja.data(), A.a.data(), 1, 0, kSpd));
    EXPECT_TRUE(fresh.set_settings(LSMsolver_settings()));
    EXPECT_FALSE(fresh.factor());
    EXPECT_EQ(fresh.diagnostics().refusal, LSM_REFUSAL_NEEDS_CLEAR);
    EXPECT_EQ(fresh.state(), LSMsolver_state::Unset);
    EXPECT_TRUE(fresh.clear() && fresh.factor());
    EXPECT_LT(solve_and_check(fresh, A), 30.0);
}

KelMatrix filled(int rows, int cols, double start)
{
    KelMatrix M;
    M.Dimension(rows, cols, -1, -1);
    for (int k = 0; k < rows * cols; ++k)
        M.GetElements()[k] = start + k;
    return M; // needs the move constructor
}

// Matrices: returned by value, kept in vectors, and the bordered matrix copied deeply.
TEST(FirstHour, MatricesAsValues)
{
    std::vector<KelMatrix> dense;
    for (int k = 0; k < 9; ++k)
        dense.push_back(filled(3, 2, 10.0 * k));
    for (int k = 0; k < 9; ++k)
        EXPECT_EQ(kt::snapshot(dense[k]), kt::snapshot(filled(3, 2, 10.0 * k))) << k;
    KelMatrix moved(std::move(dense[0]));
    EXPECT_EQ(dense[0].GetElements(), nullptr);
    EXPECT_EQ(dense[0].GetRowDim(), 0);
    KelMatrix copy;
    copy = std::move(moved); // Deliberate: still the deep copy
    EXPECT_NE(copy.GetElements(), moved.GetElements());
    EXPECT_EQ(kt::snapshot(copy), kt::snapshot(moved));

    std::vector<KelMatrixBanded> bands(1);
    bands[0].Dimension(6, 6, 1, 2);
    bands[0].SetZero();
    bands[0](2, 3) = 7.0;
    bands.emplace_back();
    bands.emplace_back(); // grown twice: moved, block kept
    EXPECT_EQ(bands[0](2, 3), 7.0);
    EXPECT_EQ(bands[0].GetUpperBandWidth(), 2);

    KelMatrixBordered C;
    ASSERT_EQ(C.DimensionBordered(8, 2, 2), KEL_BORDERED_OK);
    C(1, 2) = 3.0;
    C(0, 7) = 5.0;
    KelMatrixBordered D(C);
    D(1, 2) = -1.0;
    EXPECT_EQ(C(1, 2), 3.0); // a copy of its own
    EXPECT_EQ(D.GetBorderSize(), 2);
    D = C;
    D = D; // harmless
    EXPECT_EQ(D(1, 2), 3.0);
    EXPECT_EQ(D(7, 0), 5.0);
    std::vector<KelMatrixBordered> bordered;
    for (int k = 0; k < 5; ++k)
        bordered.push_back(C);
    bordered.erase(bordered.begin() + 1);
    EXPECT_EQ(bordered.back()(0, 7), 5.0);
    KelMatrixBordered E(std::move(D));
    EXPECT_EQ(E(0, 7), 5.0);
    EXPECT_EQ(D.GetRowDim(), 0);
}

} // namespace
