// KELMATRIX band matrix
// LAPACK general-band storage with kl fill-in rows on top of each column.
//
// Element (i, j) lies in band row kl + ku + i - j of column j, leading dimension 2*kl + ku + 1.
// With kl = 0 this is LAPACK's upper symmetric band storage (leading dimension ku + 1), which is
// how the symmetric band routines expect their matrices. No test that (i, j) lies in the band.
#include "matrix_checks.h"
#include "storage_access.h"

using kelmatrix::internal::StorageAccess;

KelMatrixBanded::KelMatrixBanded() = default;

KelMatrixBanded::~KelMatrixBanded() = default;

KelMatrixBanded::KelMatrixBanded(KelMatrixBanded&& src) noexcept : KelMatrixBanded()
{
    StorageAccess::move_into(*this, src);
}

KelMatrixBanded& KelMatrixBanded::operator=(const KelMatrixBanded& src)
{
    KelGenericMatrix::operator=(src); // Deliberate: shallow, as before the move constructor
    return *this;
}

double& KelMatrixBanded::operator()(int i, int j)
{
    KELMATRIX_CHECK(band_element("KelMatrixBanded::operator()", *this, i, j));
    const long long kl = lowerBandWidth, ku = upperBandWidth;
    return elements[StorageAccess::mirrored_offset(*this, i, j, 2 * kl + ku, kl + ku)];
}

double KelMatrixBanded::operator()(int i, int j) const
{
    KELMATRIX_CHECK(band_element("KelMatrixBanded::operator()", *this, i, j));
    const long long kl = lowerBandWidth, ku = upperBandWidth;
    return elements[StorageAccess::mirrored_offset(*this, i, j, 2 * kl + ku, kl + ku)];
}

void KelMatrixBanded::Dimension(int rows, int cols, int kl, int ku)
{
    KELMATRIX_CHECK(band_dimension(rows, cols, kl, ku));
    // The row count does not enter the size; symmetric and triangular are kept.
    storageSize =
        static_cast<int>(static_cast<unsigned>(2 * kl + ku + 1) * static_cast<unsigned>(cols));
    StorageAccess::replace_block(*this, storageSize);
    rowDim = rows;
    colDim = cols;
    lowerBandWidth = kl;
    upperBandWidth = ku;
    banded = 1; // unconditionally, unlike the base
}
