// KELMATRIX compressed-row checker and builder tests
// LSMsolver_check_csr: one case per rule, each with the row and position it must name;
// LSMsolver_prepare_csr: 0-based, lower-triangle, full and unsorted inputs with repeats, judged
// by the dense matrix they describe, and a collection matrix that arrives 0-based in its lower
// triangle, judged by the upper rows it must become.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kelmatrix/sparse.h"
#include "matrix_market.h"

namespace {

constexpr LSMsolver_mattype kSpd = LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE;
constexpr LSMsolver_mattype kInd = LSM_REAL_SYMMETRIC_INDEFINITE;
constexpr LSMsolver_mattype kUns = LSM_REAL_UNSYMMETRIC;

struct Rows {
    int n;
    std::vector<int> ia, ja;
    std::vector<double> a;
    LSMsolver_csr_check check(LSMsolver_mattype mtype, int nnz = -1) const
    {
        return LSMsolver_check_csr(n, ia.data(), ja.data(), a.data(),
                                   nnz < 0 ? static_cast<int>(ja.size()) : nnz, mtype);
    }
};

// The upper triangle of [4 1 0; 1 5 2; 0 2 6], 1-based: valid for every type.
Rows valid()
{
    return {3, {1, 3, 5, 6}, {1, 2, 2, 3, 3}, {4, 1, 5, 2, 6}};
}

// Each case is valid() with one entry of ia, ja or a replaced (field 'i', 'j', 'a'; 0: none), or
// rows of its own.
TEST(CsrCheck, EachRuleIsReportedWithItsRowAndPosition)
{
    const double inf = std::numeric_limits<double>::infinity();
    const Rows no_diagonal{3, {1, 3, 4, 5}, {1, 2, 3, 3}, {4, 1, 2, 6}}; // (1,1) left out
    const Rows empty_last{3, {1, 3, 5, 5}, {1, 2, 2, 3}, {4, 1, 5, 2}};  // row 2 has no entry
    struct Case {
        const char* what;
        LSMsolver_mattype mtype;
        LSMsolver_csr_problem code;
        int row, position;
        char field;
        int index;
        double value;
        Rows rows = valid();
    };
    const Case cases[] = {
        {"valid SPD", kSpd, LSM_CSR_OK, 0, 0, 0, 0, 0},
        {"valid unsymmetric", kUns, LSM_CSR_OK, 0, 0, 0, 0, 0},
        {"unknown type", LSMsolver_mattype(3), LSM_CSR_BAD_MATRIX_TYPE, 0, 0, 0, 0, 0},
        {"n = 0", kSpd, LSM_CSR_ORDER_BELOW_ONE, 0, 0, 0, 0, 0, {0, {1}, {}, {}}},
        {"0-based", kSpd, LSM_CSR_NOT_ONE_BASED, 0, 0, 'i', 0, 0},
        {"row pointers decrease", kSpd, LSM_CSR_ROW_POINTERS_DECREASE, 2, 0, 'i', 2, 2},
        {"ia[n] != nnz + 1", kSpd, LSM_CSR_ROW_POINTERS_END, 3, 0, 'i', 3, 5},
        {"column 4 of 3", kSpd, LSM_CSR_COLUMN_OUT_OF_RANGE, 2, 4, 'j', 3, 4},
        {"column 0", kUns, LSM_CSR_COLUMN_OUT_OF_RANGE, 3, 5, 'j', 4, 0},
        {"repeated column", kSpd, LSM_CSR_DUPLICATE_COLUMN, 1, 2, 'j', 1, 1},
        {"descending columns", kUns, LSM_CSR_COLUMNS_NOT_ASCENDING, 1, 2, 'j', 0, 3},
        {"lower entry", kInd, LSM_CSR_BELOW_DIAGONAL, 2, 3, 'j', 2, 1},
        {"missing diagonal", kInd, LSM_CSR_MISSING_DIAGONAL, 2, 3, 0, 0, 0, no_diagonal},
        {"empty last row", kSpd, LSM_CSR_MISSING_DIAGONAL, 3, 5, 0, 0, 0, empty_last},
        {"zero SPD diagonal", kSpd, LSM_CSR_NONPOSITIVE_DIAGONAL, 2, 3, 'a', 2, 0.0},
        {"NaN", kUns, LSM_CSR_NOT_FINITE, 2, 4, 'a', 3, std::nan("")},
        {"infinite diagonal", kSpd, LSM_CSR_NOT_FINITE, 3, 5, 'a', 4, -inf},
        // Lower entries and missing diagonals are allowed for the unsymmetric types.
        {"lower, unsymmetric", kUns, LSM_CSR_OK, 0, 0, 'j', 2, 1},
        {"negative diagonal, indefinite", kInd, LSM_CSR_OK, 0, 0, 'a', 2, -5.0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Rows rows = c.rows;
        if (c.field == 'i' || c.field == 'j')
            (c.field == 'i' ? rows.ia : rows.ja)[c.index] = static_cast<int>(c.value);
        else if (c.field == 'a')
            rows.a[c.index] = c.value;
        const LSMsolver_csr_check r = rows.check(c.mtype);
        EXPECT_EQ(r.code, c.code);
        EXPECT_EQ(r.row, c.row);
        EXPECT_EQ(r.position, c.position);
        ASSERT_NE(r.message, nullptr);
        EXPECT_FALSE(std::string(r.message).empty());
    }
    // Stated lengths are honoured: a short nnz is caught before ja or a is read.
    EXPECT_EQ(valid().check(kSpd, 4).code, LSM_CSR_ROW_POINTERS_END);
    EXPECT_EQ(LSMsolver_check_csr(3, nullptr, nullptr, nullptr, 0, kSpd).code, LSM_CSR_NULL_ARRAY);
}

/// The dense matrix compressed rows describe (1-based; upper_only mirrored).
std::map<std::pair<int, int>, double> dense_of(const LSMsolver_csr& c, bool upper_only)
{
    std::map<std::pair<int, int>, double> m;
    for (int i = 0; i < c.n; ++i)
        for (int k = c.ia[i] - 1; k < c.ia[i + 1] - 1; ++k) {
            const int j = c.ja[k] - 1;
            m[{i, j}] += c.a[k];
            if (upper_only && i != j)
                m[{j, i}] += c.a[k];
        }
    return m;
}

// A 4 x 4 symmetric matrix given 0-based and unsorted as its full form, its lower triangle
// (with a repeated entry to be summed) and its upper one, built for every type; entry (3,3) is
// absent, so the symmetric types get an explicit zero there.
TEST(CsrPrepare, EveryInputFormDescribesTheSameMatrix)
{
    // [ 4 1 0 2 ; 1 5 3 0 ; 0 3 6 0 ; 2 0 0 0 ], 0-based.
    const std::map<std::pair<int, int>, double> want = {{{0, 0}, 4}, {{0, 1}, 1}, {{0, 3}, 2},
                                                        {{1, 0}, 1}, {{1, 1}, 5}, {{1, 2}, 3},
                                                        {{2, 1}, 3}, {{2, 2}, 6}, {{3, 0}, 2}};
    const Rows full{4, {0, 3, 6, 8, 9}, {3, 0, 1, 2, 1, 0, 2, 1, 0}, {2, 4, 1, 3, 5, 1, 6, 3, 2}};
    // (2,1) = 3 given twice as 1.5; an explicit 0.0 at (2,0) stays a stored zero.
    const Rows lower{4, {0, 1, 3, 7, 8}, {0, 1, 0, 2, 1, 1, 0, 0}, {4, 5, 1, 6, 1.5, 1.5, 0, 2}};
    const Rows upper{4, {0, 3, 5, 6, 6}, {3, 1, 0, 2, 1, 2}, {2, 1, 4, 3, 5, 6}};
    const struct {
        const char* what;
        const Rows* rows;
        LSMsolver_stored stored;
    } inputs[] = {{"full", &full, LSM_STORED_FULL},
                  {"lower with a repeat", &lower, LSM_STORED_LOWER},
                  {"upper", &upper, LSM_STORED_UPPER}};
    for (const auto& in : inputs)
        for (const LSMsolver_mattype mtype : {kInd, kUns, LSM_REAL_STRUCTURALLY_SYMMETRIC}) {
            SCOPED_TRACE(testing::Message() << in.what << ", type " << mtype);
            LSMsolver_csr out;
            const LSMsolver_csr_check r =
                LSMsolver_prepare_csr(4, in.rows->ia.data(), in.rows->ja.data(), in.rows->a.data(),
                                      0, in.stored, mtype, out);
            ASSERT_EQ(r.code, LSM_CSR_OK) << r.message;
            const bool upper_only = mtype == kInd;
            auto got = dense_of(out, upper_only);
            if (upper_only) { // the explicit zero diagonal at (3,3), and nothing else extra
                EXPECT_EQ(got.at({3, 3}), 0.0);
                got.erase({3, 3});
            }
            for (auto it = got.begin(); it != got.end();)
                it = it->second == 0.0 && !want.count(it->first) ? got.erase(it) : ++it;
            EXPECT_EQ(got, want);
        }

    // Rejected input leaves the output as it was; a built one is checked for the type.
    LSMsolver_csr out;
    out.n = 7;
    const auto prepare = [&](int base, LSMsolver_stored stored, LSMsolver_mattype mtype) {
        return LSMsolver_prepare_csr(4, upper.ia.data(), upper.ja.data(), upper.a.data(), base,
                                     stored, mtype, out);
    };
    EXPECT_EQ(prepare(0, LSM_STORED_LOWER, kInd).code, LSM_CSR_OUTSIDE_TRIANGLE);
    EXPECT_EQ(prepare(2, LSM_STORED_UPPER, kInd).code, LSM_CSR_BAD_BASE);
    EXPECT_EQ(prepare(1, LSM_STORED_UPPER, kInd).code, LSM_CSR_NOT_ONE_BASED); // 0-based rows
    EXPECT_EQ(out.n, 7);
    const LSMsolver_csr_check spd = prepare(0, LSM_STORED_UPPER, kSpd);
    EXPECT_EQ(spd.code, LSM_CSR_NONPOSITIVE_DIAGONAL); // the zero put at (3,3)
    EXPECT_EQ(spd.row, 4);
    EXPECT_EQ(out.n, 4);
}

// A collection matrix as users hold it (0-based, lower triangle, as the file stores it) builds
// exactly the sorted 1-based upper rows that the sparse solver's collection test solves.
TEST(CsrPrepare, ZeroBasedLowerTriangleOfACollectionMatrixBuildsItsUpperRows)
{
    const std::string path = std::string(KELMATRIX_TEST_MATRICES) + "/bcsstk13.mtx";
    kt::Coordinate coo;
    ASSERT_TRUE(kt::read_matrix_market(path, coo)) << path;
    kt::Csr lower = kt::full_csr(coo); // the file's lower triangle; 0-based, columns descending
    for (int& p : lower.ia)
        --p;
    for (int& j : lower.ja)
        --j;
    for (int i = 0; i < coo.n; ++i) {
        std::reverse(lower.ja.begin() + lower.ia[i], lower.ja.begin() + lower.ia[i + 1]);
        std::reverse(lower.a.begin() + lower.ia[i], lower.a.begin() + lower.ia[i + 1]);
    }
    LSMsolver_csr A;
    ASSERT_EQ(LSMsolver_prepare_csr(coo.n, lower.ia.data(), lower.ja.data(), lower.a.data(), 0,
                                    LSM_STORED_LOWER, kSpd, A)
                  .code,
              LSM_CSR_OK);
    const kt::Csr reference = kt::upper_csr(coo);
    EXPECT_TRUE(A.ia == reference.ia && A.ja == reference.ja && A.a == reference.a);
}

// Triplets as files hold them (1-based, lower triangle, shuffled, with one entry split in two)
// build the same upper rows as the reference builder; a triplet's problem names its position.
TEST(CsrPrepare, TripletsInAnyOrderBuildTheUpperRowsAndNameTheirProblems)
{
    const std::string path = std::string(KELMATRIX_TEST_MATRICES) + "/494_bus.mtx";
    kt::Coordinate coo;
    ASSERT_TRUE(kt::read_matrix_market(path, coo)) << path;
    std::vector<int> rows, cols;
    std::vector<double> values;
    for (std::size_t k = coo.entries.size(); k-- > 0;) { // reversed: columns and rows descend
        const kt::Triplet& t = coo.entries[k];
        const int pieces = k == 7 ? 2 : 1; // one entry given as two halves, summed back
        for (int p = 0; p < pieces; ++p) {
            rows.push_back(t.row + 1);
            cols.push_back(t.col + 1);
            values.push_back(t.value / pieces);
        }
    }
    const int nnz = static_cast<int>(rows.size());
    LSMsolver_csr A;
    const LSMsolver_csr_check built = LSMsolver_prepare_csr(
        coo.n, nnz, rows.data(), cols.data(), values.data(), 1, LSM_STORED_LOWER, kSpd, A);
    ASSERT_EQ(built.code, LSM_CSR_OK) << built.message;
    const kt::Csr reference = kt::upper_csr(coo);
    EXPECT_EQ(A.ia, reference.ia);
    EXPECT_EQ(A.ja, reference.ja);
    for (std::size_t p = 0; p < A.a.size(); ++p) // the halves sum exactly: a power of two apart
        ASSERT_EQ(A.a[p], reference.a[p]) << p;

    // Rejected triplets leave the output as it was.
    const int r[] = {1, 2, 3}, c[] = {1, 1, 3};
    const double v[] = {4, 1, 6};
    const auto code_of = [&](int n, const int* rr, const int* cc, LSMsolver_stored stored,
                             int base = 1, int count = 3) {
        LSMsolver_csr out;
        out.n = -5;
        const LSMsolver_csr_check k =
            LSMsolver_prepare_csr(n, count, rr, cc, v, base, stored, kUns, out);
        EXPECT_EQ(out.n, k.code == LSM_CSR_OK ? n : -5);
        return std::make_pair(k.code, k.position);
    };
    const int bad_row[] = {1, 4, 3}, bad_col[] = {1, 1, 0};
    using Found = std::pair<LSMsolver_csr_problem, int>;
    EXPECT_EQ(code_of(3, r, c, LSM_STORED_FULL), Found(LSM_CSR_OK, 0));
    EXPECT_EQ(code_of(3, bad_row, c, LSM_STORED_FULL), Found(LSM_CSR_ROW_OUT_OF_RANGE, 2));
    EXPECT_EQ(code_of(3, r, bad_col, LSM_STORED_FULL), Found(LSM_CSR_COLUMN_OUT_OF_RANGE, 3));
    EXPECT_EQ(code_of(3, r, c, LSM_STORED_UPPER), Found(LSM_CSR_OUTSIDE_TRIANGLE, 2));
    EXPECT_EQ(code_of(3, r, c, LSM_STORED_FULL, 0), Found(LSM_CSR_ROW_OUT_OF_RANGE, 3));
    EXPECT_EQ(code_of(3, r, c, LSM_STORED_FULL, 1, -1), Found(LSM_CSR_ORDER_BELOW_ONE, 0));
    EXPECT_EQ(code_of(3, nullptr, c, LSM_STORED_FULL), Found(LSM_CSR_NULL_ARRAY, 0));
    EXPECT_EQ(code_of(0, r, c, LSM_STORED_FULL), Found(LSM_CSR_ORDER_BELOW_ONE, 0));
}

} // namespace
