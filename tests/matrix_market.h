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
    std::string line, tag, object, format, field, symmetry;
    if (!std::getline(in, line))
        return false;
    std::istringstream(line) >> tag >> object >> format >> field >> symmetry;
    m.symmetric = symmetry == "symmetric";
    if (tag != "%%MatrixMarket" || object != "matrix" || format != "coordinate" ||
        (field != "real" && field != "integer") || (!m.symmetric && symmetry != "general"))
        return false;
    while (std::getline(in, line) && (line.empty() || line[0] == '%')) {
    }
    int cols = 0;
    long long count = 0;
    if (!(std::istringstream(line) >> m.n >> cols >> count) || m.n != cols)
        return false;
    m.entries.resize(static_cast<std::size_t>(count));
    for (Triplet& t : m.entries)
        if (!(in >> t.row >> t.col >> t.value) || --t.row < 0 || --t.col < 0 || t.row >= m.n ||
            t.col >= m.n)
            return false;
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
    Csr c{n, upper_only, std::vector<int>(static_cast<std::size_t>(n) + 1, 1), {}, {}};
    for (const Triplet& t : entries) {
        ++c.ia[static_cast<std::size_t>(t.row) + 1];
        c.ja.push_back(t.col + 1);
        c.a.push_back(t.value);
    }
    for (int i = 0; i < n; ++i)
        c.ia[i + 1] += c.ia[i] - 1;
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

/// ||B - A X||_1 / (||A||_1 ||X||_1 n eps) over ncols columns of length n stored one after
/// another (the mirrored triangle counted for upper_only); infinite if anything is not finite.
inline double residual_ratio(const Csr& A, const std::vector<double>& x,
                             const std::vector<double>& b, int ncols)
{
    const std::size_t n = static_cast<std::size_t>(A.n);
    std::vector<double> r(b.begin(), b.begin() + n * ncols), col_sums(n, 0.0);
    for (int i = 0; i < A.n; ++i)
        for (int k = A.ia[i] - 1; k < A.ia[i + 1] - 1; ++k) {
            const int j = A.ja[k] - 1;
            const bool mirror = A.upper_only && j != i;
            col_sums[j] += std::fabs(A.a[k]);
            col_sums[i] += mirror ? std::fabs(A.a[k]) : 0.0;
            for (std::size_t c = 0; c < static_cast<std::size_t>(ncols); ++c) {
                r[c * n + i] -= A.a[k] * x[c * n + j];
                r[c * n + j] -= mirror ? A.a[k] * x[c * n + i] : 0.0;
            }
        }
    double r_norm = 0.0, x_norm = 0.0;
    for (std::size_t c = 0; c < static_cast<std::size_t>(ncols); ++c) {
        double rs = 0.0, xs = 0.0;
        for (std::size_t i = c * n; i < (c + 1) * n; ++i) {
            rs += std::fabs(r[i]);
            xs += std::fabs(x[i]);
        }
        if (!std::isfinite(rs) || !std::isfinite(xs)) // NaN would slip through std::max
            return std::numeric_limits<double>::infinity();
        r_norm = std::max(r_norm, rs);
        x_norm = std::max(x_norm, xs);
    }
    const double a_norm = *std::max_element(col_sums.begin(), col_sums.end());
    return r_norm / (a_norm * x_norm * A.n * std::numeric_limits<double>::epsilon());
}

} // namespace kt

#endif
