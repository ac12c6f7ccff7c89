// KELMATRIX test utilities
// Seeded generators, plain-loop norms and residual ratios: independent of the library.
//
// Every random test draws from seed(), a fixed value overridable by KELMATRIX_TEST_SEED and
// printed by SCOPED_TRACE on failure. Norms, products and residuals are computed here with
// plain loops on std::vector, never through the library under test.
#ifndef KELMATRIX_TEST_UTIL_H
#define KELMATRIX_TEST_UTIL_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kelmatrix/matrix.h"

namespace kt {

/// Column-major dense array with its shape, the tests' own reference matrix.
struct Dense {
    int rows = 0, cols = 0;
    std::vector<double> v;
    Dense() = default;
    Dense(int r, int c, double fill = 0.0)
        : rows(r), cols(c), v(static_cast<std::size_t>(r) * c, fill)
    {
    }
    double& operator()(int i, int j) { return v[static_cast<std::size_t>(j) * rows + i]; }
    double operator()(int i, int j) const { return v[static_cast<std::size_t>(j) * rows + i]; }
};

inline std::uint64_t seed()
{
    const char* s = std::getenv("KELMATRIX_TEST_SEED");
    return s ? std::strtoull(s, nullptr, 10) : 20261121u;
}

inline std::string seed_note()
{
    return "seed " + std::to_string(seed()) + " (set KELMATRIX_TEST_SEED to reproduce)";
}

/// Uniform values in [-1, 1].
inline Dense random_dense(std::mt19937_64& rng, int rows, int cols)
{
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Dense a(rows, cols);
    for (double& x : a.v)
        x = u(rng);
    return a;
}

/// Symmetric positive definite with half-bandwidth bw (bw >= n - 1: dense), diagonally dominant.
inline Dense random_spd(std::mt19937_64& rng, int n, int bw)
{
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Dense a(n, n);
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - bw); i < j; ++i)
            a(i, j) = a(j, i) = u(rng);
    for (int i = 0; i < n; ++i) {
        double s = 1.0;
        for (int j = 0; j < n; ++j)
            if (j != i)
                s += std::fabs(a(i, j));
        a(i, i) = s;
    }
    return a;
}

inline Dense multiply(const Dense& a, const Dense& b, bool ta = false, bool tb = false)
{
    const int m = ta ? a.cols : a.rows, k = ta ? a.rows : a.cols, n = tb ? b.rows : b.cols;
    Dense c(m, n);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i) {
            double s = 0.0;
            for (int l = 0; l < k; ++l)
                s += (ta ? a(l, i) : a(i, l)) * (tb ? b(j, l) : b(l, j));
            c(i, j) = s;
        }
    return c;
}

inline double norm1(const Dense& a)
{
    double best = 0.0;
    for (int j = 0; j < a.cols; ++j) {
        double s = 0.0;
        for (int i = 0; i < a.rows; ++i)
            s += std::fabs(a(i, j));
        best = std::max(best, s);
    }
    return best;
}

/// LAPACK's acceptance ratio ||B - A X||_1 / (||A||_1 ||X||_1 max(m, n) eps); ~1 for a
/// backward-stable solve. Given x0 with B = A X0, ||X||_1 becomes max(||X||_1, ||X0||_1): a
/// rank-revealing least-squares solver drops singular values at rounding level, which leaves a
/// residual of about eps ||A|| ||X0||, and the minimum-norm X (X0's projection on A's row space)
/// can be far shorter than X0, so dividing by ||X|| alone would overstate the residual.
inline double residual_ratio(const Dense& a, const Dense& x, const Dense& b,
                             const Dense* x0 = nullptr)
{
    Dense r = multiply(a, x);
    for (std::size_t k = 0; k < r.v.size(); ++k)
        r.v[k] = b.v[k] - r.v[k];
    const double eps = std::numeric_limits<double>::epsilon();
    const double xn = x0 ? std::max(norm1(x), norm1(*x0)) : norm1(x);
    const double denom = norm1(a) * xn * std::max(a.rows, a.cols) * eps;
    return denom > 0.0 ? norm1(r) / denom : norm1(r);
}

/// " key=value key=value ...": a case's description for SCOPED_TRACE.
template <class... T> std::string describe(const T&... key_value_pairs)
{
    std::ostringstream out;
    int k = 0;
    ((out << (k++ % 2 ? "=" : " ") << key_value_pairs), ...);
    return out.str();
}

/// Sets the process-wide misalignment for a scope and restores the earlier value however the
/// scope ends (a failed ASSERT returns early).
struct ScopedMisalignment {
    const int saved = kelmatrix_get_mkl_misalignment();
    explicit ScopedMisalignment(int bytes) { kelmatrix_set_mkl_misalignment(bytes); }
    ~ScopedMisalignment() { kelmatrix_set_mkl_misalignment(saved); }
    ScopedMisalignment(const ScopedMisalignment&) = delete;
    ScopedMisalignment& operator=(const ScopedMisalignment&) = delete;
};

/// Copies a reference matrix into a library matrix through its accessor.
inline void fill(KelGenericMatrix& m, const Dense& a)
{
    for (int j = 0; j < a.cols; ++j)
        for (int i = 0; i < a.rows; ++i)
            m(i, j) = a(i, j);
}

/// A dense KelMatrix holding a (general storage, no flags).
inline void to_kel(const Dense& a, KelMatrix& m)
{
    m.Dimension(a.rows, a.cols, -1, -1);
    fill(m, a);
}

/// Upper symmetric band storage (kl = 0, ku = kd) of the upper band of a.
inline void to_band_upper(const Dense& a, int kd, KelMatrixBanded& m)
{
    m.Dimension(a.rows, a.cols, 0, kd);
    m.SetZero();
    for (int j = 0; j < a.cols; ++j)
        for (int i = std::max(0, j - kd); i <= j; ++i)
            m(i, j) = a(i, j);
}

inline Dense from_kel(const KelGenericMatrix& m)
{
    Dense a(m.GetRowDim(), m.GetColDim());
    for (int j = 0; j < a.cols; ++j)
        for (int i = 0; i < a.rows; ++i)
            a(i, j) = m(i, j);
    return a;
}

/// Exact copy of a matrix's storage, for "left untouched" checks.
inline std::vector<double> snapshot(const KelGenericMatrix& m)
{
    return std::vector<double>(m.GetElements(), m.GetElements() + m.GetStorageSize());
}

/// a without row p (and without column p too when square is set).
inline Dense remove_index(const Dense& a, int p, bool square)
{
    Dense r(a.rows - 1, square ? a.cols - 1 : a.cols);
    for (int j = 0; j < r.cols; ++j)
        for (int i = 0; i < r.rows; ++i)
            r(i, j) = a(i < p ? i : i + 1, square && j >= p ? j + 1 : j);
    return r;
}

/// A dense KelMatrix built from a reference matrix in place (KelMatrix has no copy constructor).
struct KelOf : KelMatrix {
    explicit KelOf(const Dense& a) { to_kel(a, *this); }
};

/// Bit-for-bit equality (NaN payloads and signed zeros included).
inline bool same_bits(const std::vector<double>& a, const std::vector<double>& b)
{
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), sizeof(double) * a.size()) == 0);
}
inline bool same_bits(const Dense& a, const Dense& b)
{
    return a.rows == b.rows && a.cols == b.cols && same_bits(a.v, b.v);
}

/// The upper band (j - kd <= i <= j) of a matrix through its accessor, zeros elsewhere; kd < 0
/// takes the whole upper triangle. Reads a dense or a kl = 0 band matrix alike.
inline Dense upper_of(const KelGenericMatrix& m, int kd = -1)
{
    Dense u(m.GetRowDim(), m.GetColDim());
    for (int j = 0; j < u.cols; ++j)
        for (int i = kd < 0 ? 0 : std::max(0, j - kd); i <= j && i < u.rows; ++i)
            u(i, j) = m(i, j);
    return u;
}

/// ||U^T U - A||_1 / (||A||_1 n eps): the Cholesky reconstruction ratio, ~1 for a good factor.
inline double cholesky_ratio(const Dense& u, const Dense& a)
{
    Dense r = multiply(u, u, true, false);
    for (std::size_t k = 0; k < r.v.size(); ++k)
        r.v[k] -= a.v[k];
    return norm1(r) / (norm1(a) * a.rows * std::numeric_limits<double>::epsilon());
}

/// Wrecks any result it enters: stands in the triangle a routine must not read.
constexpr double kGarbage = 1.0e150;

/// A dense KelMatrix holding a's upper triangle, kGarbage in the strictly lower one.
inline void to_kel_upper(const Dense& a, KelMatrix& m)
{
    to_kel(a, m);
    for (int j = 0; j < a.cols; ++j)
        for (int i = j + 1; i < a.rows; ++i)
            m(i, j) = kGarbage;
}

/// a^T.
inline Dense transpose(const Dense& a)
{
    Dense t(a.cols, a.rows);
    for (int j = 0; j < a.cols; ++j)
        for (int i = 0; i < a.rows; ++i)
            t(j, i) = a(i, j);
    return t;
}

/// a - b (same shapes).
inline Dense minus(Dense a, const Dense& b)
{
    for (std::size_t k = 0; k < a.v.size(); ++k)
        a.v[k] -= b.v[k];
    return a;
}

/// The leading rows x cols block of a.
inline Dense leading(const Dense& a, int rows, int cols)
{
    Dense r(rows, cols);
    for (int j = 0; j < cols; ++j)
        std::copy_n(a.v.begin() + std::size_t(j) * a.rows, rows,
                    r.v.begin() + std::size_t(j) * rows);
    return r;
}

/// P kron Q: element (a q + s, b q' + u) is P(a, b) Q(s, u), Q of shape q x q'.
inline Dense kronecker(const Dense& P, const Dense& Q)
{
    Dense k(P.rows * Q.rows, P.cols * Q.cols);
    for (int b = 0; b < P.cols; ++b)
        for (int a = 0; a < P.rows; ++a)
            for (int u = 0; u < Q.cols; ++u)
                for (int s = 0; s < Q.rows; ++s)
                    k(a * Q.rows + s, b * Q.cols + u) = P(a, b) * Q(s, u);
    return k;
}

/// Orthonormal columns (modified Gram-Schmidt, twice) of a random rows x cols matrix.
inline Dense orthonormal(std::mt19937_64& rng, int rows, int cols)
{
    Dense q = random_dense(rng, rows, cols);
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

/// ||A^T (B - A X)||_1 / (||A||_1 (||A||_1 ||X||_1 + ||B||_1) max(m, n) eps): the least-squares
/// optimality ratio, bounded for any backward-stable solver whatever the residual.
inline double normal_equations_ratio(const Dense& a, const Dense& x, const Dense& b)
{
    const double eps = std::numeric_limits<double>::epsilon(), na = norm1(a);
    const Dense g = multiply(a, minus(b, multiply(a, x)), true, false);
    const double denom = na * (na * norm1(x) + norm1(b)) * std::max(a.rows, a.cols) * eps;
    return denom > 0.0 ? norm1(g) / denom : norm1(g);
}

/// ||A Z - Z diag(lambda)||_1 / (||A||_1 n eps) and ||Z^T Z - I||_1 / (n eps): the eigenpair
/// ratios of a symmetric eigendecomposition.
inline std::pair<double, double> eigen_ratios(const Dense& a, const double* lambda, const Dense& z)
{
    const int n = a.rows;
    const double eps = std::numeric_limits<double>::epsilon(), na = norm1(a);
    Dense r = multiply(a, z), o = multiply(z, z, true, false);
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < n; ++i)
            r(i, j) -= z(i, j) * lambda[j];
        o(j, j) -= 1.0;
    }
    return {na > 0.0 ? norm1(r) / (na * n * eps) : norm1(r), norm1(o) / (n * eps)};
}

} // namespace kt

#endif
