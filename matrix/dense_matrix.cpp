// KELMATRIX dense matrix
// Column-major dense storage with symmetric mirroring, deep copies, conversions and scaling.
//
// Element (i, j) lies at elements[rows * j + i]; with the symmetric flag the accessors mirror
// into the stored triangle. The band-to-dense and packed-to-dense assignments keep the source's
// storage count, zero only that many doubles and do not release the target's previous block:
// deliberate quirks of the interface that later SetZero, copies and scaling observe.
#include <algorithm>
#include <cstring>

#include "matrix_checks.h"
#include "storage_access.h"

using kelmatrix::internal::StorageAccess;

namespace {

// Doubles a converted dense target is given: rows x cols, but never fewer than the source's
// count that is zero-filled, and room for the out-of-shape writes that the conversion loops
// make for non-square shapes, so those stay inside the block.
long long conversion_block(int rows, int cols, int source_count)
{
    long long count = static_cast<long long>(rows) * cols;
    if (rows != cols) {
        const long long side = std::max(rows, cols);
        count = std::max(count, side * side);
    }
    return std::max<long long>(count, source_count);
}

// The opening both conversions share: the source's shape, flags and storage count, then a fresh
// block zeroed to that count (not rows x cols). Deliberate: the earlier block is not released.
void open_conversion(KelMatrix& dst, const KelGenericMatrix& src)
{
    StorageAccess::copy_shape_and_flags(dst, src);
    StorageAccess::attach_new_block(
        dst, conversion_block(dst.GetRowDim(), dst.GetColDim(), dst.GetStorageSize()));
    dst.SetZero();
}

} // namespace

KelMatrix::KelMatrix() = default;

KelMatrix::~KelMatrix() = default;

double& KelMatrix::operator()(int i, int j)
{
    KELMATRIX_CHECK(element("KelMatrix::operator()", *this, i, j));
    return elements[StorageAccess::mirrored_offset(*this, i, j, rowDim, 0)];
}

KelMatrix::KelMatrix(KelMatrix&& src) noexcept : KelMatrix()
{
    StorageAccess::move_into(*this, src);
}

double KelMatrix::operator()(int i, int j) const
{
    KELMATRIX_CHECK(element("KelMatrix::operator()", *this, i, j));
    return elements[StorageAccess::mirrored_offset(*this, i, j, rowDim, 0)];
}

KelMatrix& KelMatrix::operator=(const KelMatrix& src)
{
    KELMATRIX_CHECK(assignment(*this, src));
    // Deliberate: no self-assignment guard, as the interface documents.
    StorageAccess::copy_shape_and_flags(*this, src);
    StorageAccess::replace_block(*this, storageSize);
    if (storageSize > 0)
        std::memcpy(elements, src.elements, sizeof(double) * storageSize);
    return *this;
}

KelMatrix& KelMatrix::operator=(const KelMatrixPacked& src)
{
    KELMATRIX_CHECK(from_packed(src));
    const KelGenericMatrix& s = src; // only the base fields and the const accessor are used
    open_conversion(*this, s);
    if (usesLower) {
        for (int i = 0; i < rowDim; ++i)
            for (int j = 0; j <= i; ++j)
                (*this)(i, j) = s(i, j);
    } else {
        for (int i = 0; i < rowDim; ++i)
            for (int j = i; j < colDim; ++j)
                (*this)(i, j) = s(i, j);
    }
    return *this;
}

KelMatrix& KelMatrix::operator=(const KelMatrixBanded& src)
{
    KELMATRIX_CHECK(from_band(src));
    const KelGenericMatrix& s = src;
    open_conversion(*this, s);
    const int kl = lowerBandWidth, ku = upperBandWidth;
    const int i_end = std::max(rowDim, colDim); // the same bound for tall and wide shapes
    for (int i = 0; i < i_end; ++i)
        for (int j = std::max(i - kl, 0); j <= std::min(i + ku, colDim - 1); ++j)
            (*this)(i, j) = s(i, j);
    return *this;
}

KelMatrix& KelMatrix::operator*=(double factor)
{
    const long long ld = rowDim;
    if (banded) {
        // The row count serves as the column count.
        const int kl = lowerBandWidth, ku = upperBandWidth;
        for (int j = 0; j < rowDim; ++j)
            for (int i = std::max(0, j - ku); i < std::min(rowDim, j + kl + 1); ++i)
                elements[ld * j + i] *= factor;
    } else if (!symmetric && !triangular) {
        for (int k = 0; k < storageSize; ++k)
            elements[k] *= factor;
    } else if (usesLower) {
        for (int j = 0; j < rowDim; ++j)
            for (int i = j; i < rowDim; ++i)
                elements[ld * j + i] *= factor;
    } else {
        for (int j = 0; j < rowDim; ++j)
            for (int i = 0; i <= j; ++i)
                elements[ld * j + i] *= factor;
    }
    return *this;
}
