// KELMATRIX test sparse matrices
// A small Matrix Market reader, compressed-row builders and plain-loop sparse residuals.
//
// The reader takes coordinate files with field real or integer and symmetry general or
// symmetric (the lower triangle stored, as the collection's files do). The builders give the
// 1-based, row-sorted compressed-row arrays the sparse solver expects: the upper triangle with
// every diagonal entry present for the symmetric types, the whole matrix otherwise.
#ifndef KELMATRIX_TEST_MATRIX_MARKET_H
#define KELMATRIX_TEST_MATRIX_MARKET_H

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace kt {

struct Triplet {
    int row, col; // 0-based
    double value;
};

/// A square matrix as read: symmetric files give their stored (lower) triangle only.
struct Coordinate {
    int n = 0;
    bool symmetric = false;
    std::vector<Triplet> entries;
};

/// False on anything but a square real/integer general/symmetric coordinate file.
inline bool read_matrix_market(const std::string& path, Coordinate& m)
{
    std::ifstream in(path);
    std::string line;
    if (!std::getline(in, line))
        return false;
    std::istringstream banner(line);
    std::string tag, object, format, field, symmetry;
    banner >> tag >> object >> format >> field >> symmetry;
    for (std::string* s : {&object, &format, &field, &symmetry})
        for (char& c : *s)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (tag != "%%MatrixMarket" || object != "matrix" || format != "coordinate" ||
        (field != "real" && field != "integer") ||
        (symmetry != "general" && symmetry != "symmetric"))
        return false;
    while (std::getline(in, line) && (line.empty() || line[0] == '%')) {
    }
    int rows = 0, cols = 0;
    long long count = 0;
    if (!(std::istringstream(line) >> rows >> cols >> count) || rows != cols)
        return false;
    m.n = rows;
    m.symmetric = symmetry == "symmetric";
    m.entries.clear();
    m.entries.reserve(static_cast<std::size_t>(count));
    for (long long k = 0; k < count; ++k) {
        int i = 0, j = 0;
        double v = 0.0;
        if (!(in >> i >> j >> v) || i < 1 || j < 1 || i > rows || j > cols)
            return false;
        m.entries.push_back({i - 1, j - 1, v});
    }
    return true;
}

/// Compressed rows, 1-based as the solver takes them; upper_only: the upper triangle of a
/// symmetric matrix.
struct Csr {
    int n = 0;
    bool upper_only = false;
    std::vector<int> ia, ja;
    std::vector<double> a;
};

inline Csr build_csr(int n, std::vector<Triplet> entries, bool upper_only)
{
    std::sort(entries.begin(), entries.end(), [](const Triplet& x, const Triplet& y) {
        return std::tie(x.row, x.col) < std::tie(y.row, y.col);
    });
    Csr c;
    c.n = n;
    c.upper_only = upper_only;
    c.ia.assign(static_cast<std::size_t>(n) + 1, 0);
    for (const Triplet& t : entries) {
        ++c.ia[static_cast<std::size_t>(t.row) + 1];
        c.ja.push_back(t.col + 1);
        c.a.push_back(t.value);
    }
    c.ia[0] = 1;
    for (int i = 0; i < n; ++i)
        c.ia[i + 1] += c.ia[i];
    return c;
}

/// Upper triangle of a symmetric matrix (the stored triangle mirrored), with an explicit zero
/// on every diagonal position the file leaves out.
inline Csr upper_csr(const Coordinate& m)
{
    std::vector<Triplet> upper;
    std::vector<bool> has_diagonal(static_cast<std::size_t>(m.n), false);
    for (const Triplet& t : m.entries) {
        upper.push_back({std::min(t.row, t.col), std::max(t.row, t.col), t.value});
        if (t.row == t.col)
            has_diagonal[static_cast<std::size_t>(t.row)] = true;
    }
    for (int i = 0; i < m.n; ++i)
        if (!has_diagonal[static_cast<std::size_t>(i)])
            upper.push_back({i, i, 0.0});
    return build_csr(m.n, std::move(upper), true);
}

inline Csr full_csr(const Coordinate& m)
{
    return build_csr(m.n, m.entries, false);
}

/// y = A x for ncols columns of length n stored one after another.
inline std::vector<double> multiply(const Csr& A, const std::vector<double>& x, int ncols)
{
    const std::size_t n = static_cast<std::size_t>(A.n);
    std::vector<double> y(n * ncols, 0.0);
    for (int c = 0; c < ncols; ++c) {
        const double* xc = x.data() + c * n;
        double* yc = y.data() + c * n;
        for (int i = 0; i < A.n; ++i)
            for (int k = A.ia[i] - 1; k < A.ia[i + 1] - 1; ++k) {
                const int j = A.ja[k] - 1;
                yc[i] += A.a[k] * xc[j];
                if (A.upper_only && j != i)
                    yc[j] += A.a[k] * xc[i];
            }
    }
    return y;
}

/// Largest column sum of |A| (the mirrored triangle counted for upper_only).
inline double norm1(const Csr& A)
{
    std::vector<double> sums(static_cast<std::size_t>(A.n), 0.0);
    for (int i = 0; i < A.n; ++i)
        for (int k = A.ia[i] - 1; k < A.ia[i + 1] - 1; ++k) {
            const int j = A.ja[k] - 1;
            sums[j] += std::fabs(A.a[k]);
            if (A.upper_only && j != i)
                sums[i] += std::fabs(A.a[k]);
        }
    return sums.empty() ? 0.0 : *std::max_element(sums.begin(), sums.end());
}

/// ||B - A X||_1 / (||A||_1 ||X||_1 n eps) over ncols columns.
inline double residual_ratio(const Csr& A, const std::vector<double>& x,
                             const std::vector<double>& b, int ncols)
{
    const std::vector<double> ax = multiply(A, x, ncols);
    const std::size_t n = static_cast<std::size_t>(A.n);
    double r_norm = 0.0, x_norm = 0.0;
    for (int c = 0; c < ncols; ++c) {
        double r = 0.0, s = 0.0;
        for (std::size_t i = c * n; i < (c + 1) * n; ++i) {
            r += std::fabs(b[i] - ax[i]);
            s += std::fabs(x[i]);
        }
        if (!std::isfinite(r) || !std::isfinite(s)) // NaN would slip through std::max
            return std::numeric_limits<double>::infinity();
        r_norm = std::max(r_norm, r);
        x_norm = std::max(x_norm, s);
    }
    const double denom = norm1(A) * x_norm * A.n * std::numeric_limits<double>::epsilon();
    return denom > 0.0 ? r_norm / denom : r_norm;
}

} // namespace kt

#endif
