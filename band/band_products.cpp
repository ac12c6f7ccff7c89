// KELMATRIX band and bordered products
// Y = A X and the residual ratio ||B - A X||_1 / (||A||_1 ||X||_1 n eps) for KelMatrixBanded and
// KelMatrixBordered, over their stored pattern only (O(n bw) a column of X, not O(n^2)).
//
// Elements are read through the matrices' own accessors, which mirror where the storage says
// so; sums run in a fixed order (see matrix/pattern_product.h), so the bits are the same on
// every instruction set. A shape or aliasing problem is returned as a KelProduct_status and
// leaves Y untouched; nothing is printed.
#include <algorithm>

#include "kelmatrix/band.h"
#include "matrix/pattern_product.h"
#include "matrix/storage_access.h"

using namespace kelmatrix::internal;

namespace {

/// Every element in A's band, by columns: kl below and ku above the diagonal, or max(kl, ku)
/// on both sides when A is flagged symmetric (its accessor mirrors the other half).
struct BandPattern {
    const KelMatrixBanded& A;
    template <class Visit> void operator()(Visit&& visit) const
    {
        const int kl = A.GetLowerBandWidth(), ku = A.GetUpperBandWidth();
        const bool symmetric = StorageAccess::symmetric(A);
        const int below = symmetric ? std::max(kl, ku) : kl;
        const int above = symmetric ? std::max(kl, ku) : ku;
        for (int j = 0; j < A.GetColDim(); ++j)
            for (int i = std::max(0, j - above); i <= std::min(A.GetRowDim() - 1, j + below); ++i)
                visit(i, j, A(i, j));
    }
};

/// Every element of the bordered pattern: A11's band, the border rows and columns, the corner.
struct BorderedPattern {
    const KelMatrixBordered& A;
    template <class Visit> void operator()(Visit&& visit) const
    {
        const int n = A.GetRowDim(), nb = n - A.GetBorderSize(), bw = A.GetUpperBandWidth();
        for (int j = 0; j < n; ++j) {
            const int band_last = j < nb ? std::min(nb - 1, j + bw) : nb - 1;
            for (int i = j < nb ? std::max(0, j - bw) : 0; i <= band_last; ++i)
                visit(i, j, A(i, j));
            for (int i = nb; i < n; ++i) // the border rows below, or the corner
                visit(i, j, A(i, j));
        }
    }
};

bool aliased(const KelGenericMatrix& A, const KelMatrix& X, const KelMatrix& Y)
{
    const double* y = Y.GetElements();
    return y != nullptr && (y == A.GetElements() || y == X.GetElements());
}

template <class Pattern>
int multiply(const KelGenericMatrix& A, bool has_band, const Pattern& pattern, const KelMatrix& X,
             KelMatrix& Y)
{
    const int status = product_status(A, X, nullptr, has_band);
    if (status != KEL_PRODUCT_OK)
        return status;
    if (aliased(A, X, Y))
        return KEL_PRODUCT_ALIASED;
    store_product(pattern_product(A.GetRowDim(), X, pattern), A.GetRowDim(), X.GetColDim(), Y);
    return KEL_PRODUCT_OK;
}

template <class Pattern>
int ratio_of(const KelGenericMatrix& A, bool has_band, const Pattern& pattern, const KelMatrix& X,
             const KelMatrix& B, double& ratio)
{
    const int status = product_status(A, X, &B, has_band);
    if (status != KEL_PRODUCT_OK)
        return status;
    const std::vector<double> ax = pattern_product(A.GetRowDim(), X, pattern);
    ratio = residual_ratio(pattern_norm1(A.GetColDim(), pattern), A.GetRowDim(), ax.data(), X, B);
    return KEL_PRODUCT_OK;
}

bool has_band(const KelMatrixBanded& A)
{
    return A.GetLowerBandWidth() >= 0 && A.GetUpperBandWidth() >= 0;
}

} // namespace

int multiplyBanded(const KelMatrixBanded& A, const KelMatrix& X, KelMatrix& Y)
{
    return multiply(A, has_band(A), BandPattern{A}, X, Y);
}

int multiplyBordered(const KelMatrixBordered& A, const KelMatrix& X, KelMatrix& Y)
{
    return multiply(A, true, BorderedPattern{A}, X, Y);
}

int residualRatio(const KelMatrixBanded& A, const KelMatrix& X, const KelMatrix& B, double& ratio)
{
    return ratio_of(A, has_band(A), BandPattern{A}, X, B, ratio);
}

int residualRatio(const KelMatrixBordered& A, const KelMatrix& X, const KelMatrix& B, double& ratio)
{
    return ratio_of(A, true, BorderedPattern{A}, X, B, ratio);
}
