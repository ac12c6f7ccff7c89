// KELMATRIX compressed-row input checks
// LSMsolver_check_csr: the first broken rule of compressed rows, before they reach PARDISO, for
// the whole matrix or (LSMsolver_check_csr_rows) one block of its rows;
// LSMsolver_prepare_csr: the arrays PARDISO expects, built from 0- or 1-based rows holding the
// full matrix or one triangle.
//
// The checker reads ia once, then each (ja, a) entry once, in storage order, and stops at the
// first problem: O(n + nnz), no allocation, nothing written. It trusts only the stated lengths
// (ia: n + 1 entries, ja and a: nnz), and reads ja and a only after ia has been proven to stay
// inside 1..nnz + 1. The builder validates its input the same way before it allocates, so a
// rejected input leaves the output untouched; it sums repeated entries in their input order.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "kelmatrix/sparse.h"
#include "sparse/matrix_type.h"

using kelmatrix::internal::known_type;
using kelmatrix::internal::symmetric_type;

namespace {

const char* const kRules[] = {
    "no problem",
    "the matrix type is not 1, 2, -2 or 11",
    "the order n must be at least 1 and nnz not negative",
    "ia, or ja and a with nnz > 0, is a null pointer",
    "ia[0] must equal the index base (1 for LSMsolver)",
    "row pointers must not decrease",
    "ia[n] must equal nnz + 1",
    "column index outside 1..n",
    "column index repeated within a row",
    "column indices must ascend within each row",
    "symmetric types take the upper triangle only: entry below the diagonal",
    "symmetric types need every diagonal entry stored (0.0 where absent)",
    "a positive definite matrix needs positive diagonal values",
    "value is infinite or NaN",
    "base must be 0 or 1",
    "entry outside the stated triangle",
    "the block of rows must lie within 1..n and hold at least one row",
    "row index outside 1..n",
    "count must not be negative; x, y and b not null (count > 0) and x not the same array as y",
    "MKL's sparse BLAS reported an error",
};
constexpr int kRuleCount = static_cast<int>(sizeof kRules / sizeof kRules[0]);

LSMsolver_csr_check problem(LSMsolver_csr_problem code, int row, int position)
{
    return {code, row, position, kRules[code]};
}

/// The row pointers of `rows` rows with indices from base: first base, never decreasing, last
/// nnz + base. Rows reported 1-based, counted from first_row (the block's first global row).
LSMsolver_csr_check check_row_pointers(int rows, const int* ia, int nnz, int base,
                                       int first_row = 1)
{
    if (ia[0] != base)
        return problem(LSM_CSR_NOT_ONE_BASED, 0, 0);
    for (int i = 1; i <= rows; ++i)
        if (ia[i] < ia[i - 1])
            return problem(LSM_CSR_ROW_POINTERS_DECREASE, first_row - 1 + i, 0);
    if (static_cast<long long>(ia[rows]) != static_cast<long long>(nnz) + base)
        return problem(LSM_CSR_ROW_POINTERS_END, first_row - 1 + rows, 0);
    return problem(LSM_CSR_OK, 0, 0);
}

/// Hands visit(row, col, value), 0-based, what one input entry (i, j) becomes in the built
/// matrix: for the symmetric types its place in the upper triangle (a full input's lower part
/// skipped, values ignored; a lower one transposed), for the others itself and, from a triangle,
/// its mirror.
template <class Visit>
void place(int i, int j, double v, LSMsolver_stored stored, bool symmetric, Visit& visit)
{
    if (symmetric) {
        if (stored == LSM_STORED_FULL && j < i)
            return;
        visit(std::min(i, j), std::max(i, j), v);
        return;
    }
    visit(i, j, v);
    if (stored != LSM_STORED_FULL && i != j)
        visit(j, i, v);
}

/// Calls visit for every entry the built matrix receives from compressed rows, in input order.
struct RowsInput {
    int n;
    const int* ia;
    const int* ja;
    const double* a;
    int base;
    template <class Visit> void each(LSMsolver_stored stored, bool symmetric, Visit&& visit) const
    {
        for (int i = 0; i < n; ++i)
            for (int p = ia[i] - base; p < ia[i + 1] - base; ++p)
                place(i, ja[p] - base, a[p], stored, symmetric, visit);
    }
};

/// The same from triplets (rows[k], cols[k], a[k]), in input order.
struct TripletInput {
    int nnz;
    const int* rows;
    const int* cols;
    const double* a;
    int base;
    template <class Visit> void each(LSMsolver_stored stored, bool symmetric, Visit&& visit) const
    {
        for (int k = 0; k < nnz; ++k)
            place(rows[k] - base, cols[k] - base, a[k], stored, symmetric, visit);
    }
};

/// An entry's problem with respect to the order and the stated triangle, 0-based (i, j).
LSMsolver_csr_problem entry_problem(int n, int i, int j, LSMsolver_stored stored)
{
    if (i < 0 || i >= n)
        return LSM_CSR_ROW_OUT_OF_RANGE;
    if (j < 0 || j >= n)
        return LSM_CSR_COLUMN_OUT_OF_RANGE;
    if ((stored == LSM_STORED_UPPER && j < i) || (stored == LSM_STORED_LOWER && j > i))
        return LSM_CSR_OUTSIDE_TRIANGLE;
    return LSM_CSR_OK;
}

/// What both inputs are checked for first: the type, the base and the order.
LSMsolver_csr_check check_common(int n, int base, LSMsolver_mattype mtype)
{
    if (!known_type(mtype))
        return problem(LSM_CSR_BAD_MATRIX_TYPE, 0, 0);
    if (base != 0 && base != 1)
        return problem(LSM_CSR_BAD_BASE, 0, 0);
    if (n < 1)
        return problem(LSM_CSR_ORDER_BELOW_ONE, 0, 0);
    return problem(LSM_CSR_OK, 0, 0);
}

/// The structural checks of compressed rows before anything is allocated: ia readable and sound,
/// every entry inside the matrix and the stated triangle.
LSMsolver_csr_check check_rows_input(const RowsInput& in, LSMsolver_stored stored)
{
    const int n = in.n, base = in.base;
    if (in.ia == nullptr)
        return problem(LSM_CSR_NULL_ARRAY, 0, 0);
    const long long stated = static_cast<long long>(in.ia[n]) - base;
    if (stated < 0 || stated > 0x7fffffff)
        return problem(LSM_CSR_ROW_POINTERS_END, n, 0);
    const int nnz = static_cast<int>(stated);
    if (nnz > 0 && (in.ja == nullptr || in.a == nullptr))
        return problem(LSM_CSR_NULL_ARRAY, 0, 0);
    const LSMsolver_csr_check pointers = check_row_pointers(n, in.ia, nnz, base);
    if (pointers.code != LSM_CSR_OK)
        return pointers;
    for (int i = 0; i < n; ++i)
        for (int p = in.ia[i] - base; p < in.ia[i + 1] - base; ++p) {
            const LSMsolver_csr_problem code = entry_problem(n, i, in.ja[p] - base, stored);
            if (code != LSM_CSR_OK)
                return problem(code, i + 1, p + 1);
        }
    return problem(LSM_CSR_OK, 0, 0);
}

/// The same for triplets: rows reported as given (base 1), positions 1-based into the arrays.
LSMsolver_csr_check check_triplet_input(int n, const TripletInput& in, LSMsolver_stored stored)
{
    if (in.nnz < 0)
        return problem(LSM_CSR_ORDER_BELOW_ONE, 0, 0);
    if (in.nnz > 0 && (in.rows == nullptr || in.cols == nullptr || in.a == nullptr))
        return problem(LSM_CSR_NULL_ARRAY, 0, 0);
    for (int k = 0; k < in.nnz; ++k) {
        const int i = in.rows[k] - in.base;
        const LSMsolver_csr_problem code = entry_problem(n, i, in.cols[k] - in.base, stored);
        if (code != LSM_CSR_OK)
            return problem(code, code == LSM_CSR_ROW_OUT_OF_RANGE ? 0 : i + 1, k + 1);
    }
    return problem(LSM_CSR_OK, 0, 0);
}

/// Every target entry grouped by row, each row sorted by column, repeated entries adjacent and
/// in their input order: row r holds col[row_start[r]..row_start[r + 1]), 0-based.
struct SortedRows {
    std::vector<int> row_start, col;
    std::vector<double> val;
};

/// Two stable bucket passes (by column, then by row): O(n + nnz), no comparison sort.
template <class Input>
SortedRows sort_rows(int n, const Input& in, LSMsolver_stored stored, bool symmetric)
{
    std::size_t total = 0;
    std::vector<int> col_start(static_cast<std::size_t>(n) + 1, 0);
    in.each(stored, symmetric, [&](int, int c, double) {
        ++col_start[c + 1];
        ++total;
    });
    for (int c = 0; c < n; ++c)
        col_start[c + 1] += col_start[c];
    std::vector<int> by_col_row(total), next(col_start.begin(), col_start.end() - 1);
    std::vector<double> by_col_val(total);
    SortedRows sorted{std::vector<int>(static_cast<std::size_t>(n) + 1, 0), std::vector<int>(total),
                      std::vector<double>(total)};
    in.each(stored, symmetric, [&](int r, int c, double v) {
        by_col_row[next[c]] = r;
        by_col_val[next[c]++] = v;
        ++sorted.row_start[r + 1];
    });
    for (int r = 0; r < n; ++r)
        sorted.row_start[r + 1] += sorted.row_start[r];
    next.assign(sorted.row_start.begin(), sorted.row_start.end() - 1);
    for (int c = 0; c < n; ++c)
        for (int q = col_start[c]; q < col_start[c + 1]; ++q) {
            const int r = by_col_row[q];
            sorted.col[next[r]] = c;
            sorted.val[next[r]++] = by_col_val[q];
        }
    return sorted;
}

/// Whether sorted row r starts with its diagonal (which a symmetric type must store).
bool diagonal_first(const SortedRows& s, int r)
{
    return s.row_start[r] < s.row_start[r + 1] && s.col[s.row_start[r]] == r;
}

/// The 1-based arrays from sorted rows: repeated entries summed in input order, and for the
/// symmetric types an explicit 0.0 diagonal where none was given. Sizes first, so that each
/// array is allocated once at its final length.
LSMsolver_csr assemble(int n, const SortedRows& s, bool symmetric)
{
    LSMsolver_csr built;
    built.n = n;
    built.ia = std::vector<int>(static_cast<std::size_t>(n) + 1);
    built.ia[0] = 1;
    for (int r = 0; r < n; ++r) {
        int length = symmetric && !diagonal_first(s, r);
        for (int q = s.row_start[r]; q < s.row_start[r + 1]; ++q)
            length += q == s.row_start[r] || s.col[q] != s.col[q - 1];
        built.ia[r + 1] = built.ia[r] + length;
    }
    built.ja = std::vector<int>(static_cast<std::size_t>(built.ia[n] - 1));
    built.a = std::vector<double>(built.ja.size());
    for (int r = 0; r < n; ++r) {
        int out_p = built.ia[r] - 1;
        if (symmetric && !diagonal_first(s, r)) {
            built.ja[out_p] = r + 1;
            built.a[out_p++] = 0.0;
        }
        for (int q = s.row_start[r]; q < s.row_start[r + 1]; ++q) {
            if (q > s.row_start[r] && s.col[q] == s.col[q - 1]) {
                built.a[out_p - 1] += s.val[q]; // repeated entries summed in input order
                continue;
            }
            built.ja[out_p] = s.col[q] + 1;
            built.a[out_p++] = s.val[q];
        }
    }
    return built;
}

/// Builds from input already checked, then judges the result as LSMsolver would.
template <class Input>
LSMsolver_csr_check build(int n, const Input& in, LSMsolver_stored stored, LSMsolver_mattype mtype,
                          LSMsolver_csr& out)
{
    const bool symmetric = symmetric_type(mtype);
    out = assemble(n, sort_rows(n, in, stored, symmetric), symmetric);
    return LSMsolver_check_csr(n, out.ia.data(), out.ja.data(), out.a.data(),
                               static_cast<int>(out.ja.size()), mtype);
}

} // namespace

const char* LSMsolver_csr_rule(LSMsolver_csr_problem code)
{
    return code >= 0 && code < kRuleCount ? kRules[code] : "unknown problem";
}

LSMsolver_csr_check LSMsolver_check_csr(int n, const int* ia, const int* ja, const double* a,
                                        int nnz, LSMsolver_mattype mtype)
{
    return LSMsolver_check_csr_rows(n, 1, n, ia, ja, a, nnz, mtype); // the whole matrix
}

LSMsolver_csr_check LSMsolver_check_csr_rows(int n, int firstRow, int lastRow, const int* ia,
                                             const int* ja, const double* a, int nnz,
                                             LSMsolver_mattype mtype)
{
    if (!known_type(mtype))
        return problem(LSM_CSR_BAD_MATRIX_TYPE, 0, 0);
    if (n < 1 || nnz < 0)
        return problem(LSM_CSR_ORDER_BELOW_ONE, 0, 0);
    if (firstRow < 1 || lastRow > n || lastRow < firstRow) // never for the whole matrix
        return problem(LSM_CSR_BAD_ROW_RANGE, 0, 0);
    if (ia == nullptr || (nnz > 0 && (ja == nullptr || a == nullptr)))
        return problem(LSM_CSR_NULL_ARRAY, 0, 0);
    const LSMsolver_csr_check pointers =
        check_row_pointers(lastRow - firstRow + 1, ia, nnz, 1, firstRow);
    if (pointers.code != LSM_CSR_OK)
        return pointers;

    // ia is indexed by the block's own rows, columns and reported rows are global.
    const bool symmetric = symmetric_type(mtype);
    for (int row = firstRow; row <= lastRow; ++row) {
        const int start = ia[row - firstRow], end = ia[row - firstRow + 1];
        bool diagonal_seen = false;
        for (int p = start; p < end; ++p) {
            const int col = ja[p - 1];
            if (col < 1 || col > n)
                return problem(LSM_CSR_COLUMN_OUT_OF_RANGE, row, p);
            if (p > start && col <= ja[p - 2])
                return problem(col == ja[p - 2] ? LSM_CSR_DUPLICATE_COLUMN
                                                : LSM_CSR_COLUMNS_NOT_ASCENDING,
                               row, p);
            if (symmetric && col < row)
                return problem(LSM_CSR_BELOW_DIAGONAL, row, p);
            const double v = a[p - 1];
            if (!std::isfinite(v))
                return problem(LSM_CSR_NOT_FINITE, row, p);
            if (col == row) {
                diagonal_seen = true;
                if (mtype == LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE && !(v > 0.0))
                    return problem(LSM_CSR_NONPOSITIVE_DIAGONAL, row, p);
            }
        }
        if (symmetric && !diagonal_seen) // where the diagonal belongs: first in its row
            return problem(LSM_CSR_MISSING_DIAGONAL, row, start);
    }
    return problem(LSM_CSR_OK, 0, 0);
}

LSMsolver_csr_check LSMsolver_prepare_csr(int n, const int* ia, const int* ja, const double* a,
                                          int base, LSMsolver_stored stored,
                                          LSMsolver_mattype mtype, LSMsolver_csr& out)
{
    LSMsolver_csr_check found = check_common(n, base, mtype);
    const RowsInput in{n, ia, ja, a, base};
    if (found.code == LSM_CSR_OK)
        found = check_rows_input(in, stored);
    return found.code == LSM_CSR_OK ? build(n, in, stored, mtype, out) : found;
}

LSMsolver_csr_check LSMsolver_prepare_csr(int n, int nnz, const int* rows, const int* cols,
                                          const double* a, int base, LSMsolver_stored stored,
                                          LSMsolver_mattype mtype, LSMsolver_csr& out)
{
    LSMsolver_csr_check found = check_common(n, base, mtype);
    const TripletInput in{nnz, rows, cols, a, base};
    if (found.code == LSM_CSR_OK)
        found = check_triplet_input(n, in, stored);
    return found.code == LSM_CSR_OK ? build(n, in, stored, mtype, out) : found;
}
