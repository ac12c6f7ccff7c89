// KELMATRIX products over a stored pattern (internal)
// Y = A X, ||A||_1 and the residual ratio ||B - A X||_1 / (||A||_1 ||X||_1 n eps) for any matrix
// whose stored elements a visitor lists, shared by the dense, band and bordered helpers.
//
// The visitor calls visit(i, j, a_ij) for every element of the whole matrix that its storage
// holds (mirrored ones included), columns ascending, rows ascending within each column. Every
// sum is taken in that fixed order, one product and one addition at a time, so the bits do not
// depend on the instruction set or the thread count. Nothing here allocates but the caller's
// result vectors.
#ifndef KELMATRIX_PATTERN_PRODUCT_H
#define KELMATRIX_PATTERN_PRODUCT_H

#include <cmath>
#include <limits>
#include <vector>

#include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace internal {

/// The shape rules of A X (and of B when given): KEL_PRODUCT_OK or the first broken one.
inline int product_status(const KelGenericMatrix& A, const KelMatrix& X, const KelMatrix* B,
                          bool has_pattern)
{
    if (!has_pattern || A.GetElements() == nullptr)
        return KEL_PRODUCT_EMPTY;
    if (X.GetRowDim() != A.GetColDim() ||
        (B != nullptr && (B->GetRowDim() != A.GetRowDim() || B->GetColDim() != X.GetColDim())))
        return KEL_PRODUCT_SHAPE;
    return KEL_PRODUCT_OK;
}

/// y = A x for each of X's columns, column-major with leading dimension rows.
template <class Each> std::vector<double> pattern_product(int rows, const KelMatrix& X, Each&& each)
{
    const int cols = X.GetColDim(), ldx = X.GetRowDim();
    const double* x = X.GetElements();
    std::vector<double> y(static_cast<std::size_t>(rows) * cols, 0.0);
    for (int c = 0; c < cols; ++c) {
        double* yc = y.data() + static_cast<std::size_t>(c) * rows;
        const double* xc = x + static_cast<std::size_t>(c) * ldx;
        each([&](int i, int j, double a) { yc[i] += a * xc[j]; });
    }
    return y;
}

/// ||A||_1: the largest column sum of absolute values.
template <class Each> double pattern_norm1(int cols, Each&& each)
{
    std::vector<double> sums(static_cast<std::size_t>(cols), 0.0);
    each([&](int, int j, double a) { sums[j] += std::fabs(a); });
    double norm = 0.0;
    for (double s : sums)
        norm = std::fmax(norm, s);
    return norm;
}

/// The largest column 1-norm of a column-major rows x cols array with leading dimension ld.
inline double norm1(const double* a, int rows, int cols, int ld)
{
    double norm = 0.0;
    for (int c = 0; c < cols; ++c) {
        double sum = 0.0;
        for (int i = 0; i < rows; ++i)
            sum += std::fabs(a[static_cast<std::size_t>(c) * ld + i]);
        norm = std::fmax(norm, sum);
    }
    return norm;
}

/// ||B - A X||_1 / (||A||_1 ||X||_1 n eps) for rows x cols arrays, column-major with leading
/// dimension rows (ax, b) and x_rows (x); n = A's order (its row count). 0 when B == A X
/// exactly, infinite when the denominator vanishes otherwise.
inline double residual_ratio(double norm_a, int n, const double* ax, const double* x, int x_rows,
                             const double* b, int rows, int cols)
{
    std::vector<double> r(static_cast<std::size_t>(rows) * cols);
    for (std::size_t k = 0; k < r.size(); ++k)
        r[k] = b[k] - ax[k];
    const double residual = norm1(r.data(), rows, cols, rows);
    const double scale =
        norm_a * norm1(x, x_rows, cols, x_rows) * n * std::numeric_limits<double>::epsilon();
    if (residual == 0.0)
        return 0.0;
    return scale > 0.0 ? residual / scale : std::numeric_limits<double>::infinity();
}

/// The same for matrices: X (A.cols x cols) and B (A.rows x cols).
inline double residual_ratio(double norm_a, int n, const double* ax, const KelMatrix& X,
                             const KelMatrix& B)
{
    return residual_ratio(norm_a, n, ax, X.GetElements(), X.GetRowDim(), B.GetElements(),
                          B.GetRowDim(), B.GetColDim());
}

/// Writes rows x cols of y into Y, re-dimensioned dense (its earlier band and flags as
/// Dimension keeps them).
inline void store_product(const std::vector<double>& y, int rows, int cols, KelMatrix& Y)
{
    Y.Dimension(rows, cols, -1, -1);
    for (std::size_t k = 0; k < y.size(); ++k)
        Y.GetElements()[k] = y[k];
}

} // namespace internal
} // namespace kelmatrix

#endif
