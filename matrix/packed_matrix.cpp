// KELMATRIX packed symmetric matrix
// One triangle in LAPACK packed layout, a source for conversion to dense storage.
//
// Upper (usesLower clear): element (i, j), i <= j, at i + j*(j+1)/2. Lower: element (i, j),
// i >= j, at i + j*(2n - j - 1)/2 with n = rows. Both accessors always mirror into the stored
// triangle: a packed matrix cannot hold the other one, whatever the symmetric flag says.
#include <utility>

#include "matrix_checks.h"
#include "storage_access.h"

using kelmatrix::internal::StorageAccess;

namespace {

long long packed_index(int i, int j, int n, bool lower)
{
    if (lower) {
        if (j > i)
            std::swap(i, j);
        return i + static_cast<long long>(j) * (2LL * n - j - 1) / 2;
    }
    if (i > j)
        std::swap(i, j);
    return i + static_cast<long long>(j) * (j + 1) / 2;
}

} // namespace

KelMatrixPacked::KelMatrixPacked() = default;

KelMatrixPacked::~KelMatrixPacked() = default;

double& KelMatrixPacked::operator()(int i, int j)
{
    KELMATRIX_CHECK(packed_element("KelMatrixPacked::operator()", *this, i, j));
    return elements[packed_index(i, j, rowDim, usesLower)];
}

double KelMatrixPacked::operator()(int i, int j) const
{
    KELMATRIX_CHECK(packed_element("KelMatrixPacked::operator()", *this, i, j));
    return elements[packed_index(i, j, rowDim, usesLower)];
}

void KelMatrixPacked::Dimension(int rows, int cols, int kl, int ku)
{
    KELMATRIX_CHECK(packed_dimension(rows, cols));
    storageSize = static_cast<int>(static_cast<long long>(rows) * (rows + 1) / 2);
    StorageAccess::replace_block(*this, storageSize);
    StorageAccess::set_shape(*this, rows, cols, kl, ku); // the base's rules, packed sizing
}
