// KELMATRIX container checks
// The checks of the matrix classes, the sparse vector and the global misalignment.
//
// Element indices are checked against the shape before any mirroring; a band element also for
// the slot the accessor addresses (after mirroring), which must lie in the stored block: an
// index pair outside the band but inside it reaches another band row, as documented. Sizes must not
// be negative and their storage count must fit the int the matrices keep it in. Conversions are
// checked where their loops would leave the source's shape.
#if defined(KELMATRIX_CHECKED)

#    include <climits>

#    include "matrix/matrix_checks.h"
#    include "matrix/storage_access.h"

using kelmatrix::internal::StorageAccess;

namespace kelmatrix {
namespace checks {

bool share_storage(const KelGenericMatrix& a, const KelGenericMatrix& b)
{
    return &a == &b || (a.GetElements() != nullptr && a.GetElements() == b.GetElements());
}

void misalignment(int bytes)
{
    require(bytes >= 0 && bytes <= 32 && bytes % 8 == 0, "kelmatrix_set_mkl_misalignment",
            "bytes is one of 0, 8, 16, 24, 32", "bytes = %d", bytes);
}

void element(const char* function, const KelGenericMatrix& m, int i, int j)
{
    require(i >= 0 && i < m.GetRowDim(), function, "0 <= i < rows",
            "i = %d, j = %d, rows = %d, cols = %d", i, j, m.GetRowDim(), m.GetColDim());
    require(j >= 0 && j < m.GetColDim(), function, "0 <= j < cols",
            "i = %d, j = %d, rows = %d, cols = %d", i, j, m.GetRowDim(), m.GetColDim());
}

void band_element(const char* function, const KelGenericMatrix& m, int i, int j)
{
    element(function, m, i, j);
    // Outside the band the accessor addresses another band row's slot (defined, and relied on
    // by nothing but harmless) or, near the first and last columns, memory outside the block.
    const long long kl = m.GetLowerBandWidth(), ku = m.GetUpperBandWidth();
    const long long offset = StorageAccess::mirrored_offset(m, i, j, 2 * kl + ku, kl + ku);
    require(offset >= 0 && offset < m.GetStorageSize(), function,
            "the band slot of (i, j) lies in the stored block",
            "i = %d, j = %d, kl = %lld, ku = %lld, offset = %lld, storage = %d", i, j, kl, ku,
            offset, m.GetStorageSize());
}

void packed_element(const char* function, const KelGenericMatrix& m, int i, int j)
{
    element(function, m, i, j);
    require(i < m.GetRowDim() && j < m.GetRowDim(), function, "i, j < rows (the packed order)",
            "i = %d, j = %d, rows = %d", i, j, m.GetRowDim());
}

void dimension(const char* function, int rows, int cols)
{
    require(rows >= 0 && cols >= 0, function, "rows >= 0 and cols >= 0", "rows = %d, cols = %d",
            rows, cols);
    require(static_cast<long long>(rows) * cols <= INT_MAX, function, "rows * cols <= INT_MAX",
            "rows = %d, cols = %d", rows, cols);
}

void band_dimension(int rows, int cols, int kl, int ku)
{
    const char* function = "KelMatrixBanded::Dimension";
    require(rows >= 0 && cols >= 0, function, "rows >= 0 and cols >= 0", "rows = %d, cols = %d",
            rows, cols);
    require(kl >= 0 && ku >= 0, function, "kl >= 0 and ku >= 0", "kl = %d, ku = %d", kl, ku);
    require((2LL * kl + ku + 1) * cols <= INT_MAX, function, "(2 kl + ku + 1) * cols <= INT_MAX",
            "cols = %d, kl = %d, ku = %d", cols, kl, ku);
}

void packed_dimension(int rows, int cols)
{
    const char* function = "KelMatrixPacked::Dimension";
    require(rows >= 0 && cols >= 0, function, "rows >= 0 and cols >= 0", "rows = %d, cols = %d",
            rows, cols);
    require(static_cast<long long>(rows) * (rows + 1) / 2 <= INT_MAX, function,
            "rows * (rows + 1) / 2 <= INT_MAX", "rows = %d", rows);
}

void assignment(const KelMatrix& target, const KelMatrix& src)
{
    require(&target != &src, "KelMatrix::operator=", "&src != this (no self-assignment)",
            "rows = %d, cols = %d", src.GetRowDim(), src.GetColDim());
}

void from_packed(const KelGenericMatrix& src)
{
    require(src.GetRowDim() == src.GetColDim(), "KelMatrix::operator= (packed)",
            "src.rows == src.cols", "src.rows = %d, src.cols = %d", src.GetRowDim(),
            src.GetColDim());
}

void from_band(const KelGenericMatrix& src)
{
    // The conversion runs its rows up to max(rows, cols): a wide band would be read and written
    // outside its shape.
    require(src.GetColDim() <= src.GetRowDim(), "KelMatrix::operator= (band)",
            "src.cols <= src.rows", "src.rows = %d, src.cols = %d", src.GetRowDim(),
            src.GetColDim());
}

void sparse_dimension(int n, unsigned int dim)
{
    // The vector's own calls pass its current dimension back, whatever its size.
    require(n >= 0 || static_cast<unsigned int>(n) == dim, "KelSparseVector::setDim", "n >= 0",
            "n = %d", n);
}

void sparse_array(const char* function, const char* name, const void* array, unsigned int count)
{
    require(array != nullptr || count == 0, function, name, "count = %u", count);
}

} // namespace checks
} // namespace kelmatrix

#endif
