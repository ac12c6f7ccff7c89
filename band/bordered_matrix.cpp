// KELMATRIX bordered band matrix
// KelMatrixBordered: the storage type of the cyclic band Cholesky, band + border + corner.
//
// One element block holds A11's upper band (LAPACK upper band storage), the border columns A12
// and the corner A22, and nothing else, so a periodic or bordered system of order 10^6 takes a
// few megabytes where a dense matrix would take terabytes. The accessors mirror into the upper
// triangle and hand out a spare zero outside the pattern (see band.h). Sizing checks its
// arguments and changes nothing when they are wrong or the allocation fails.
#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "kelmatrix/band.h"
#include "matrix/matrix_checks.h"
#include "matrix/storage_access.h"

KelMatrixBordered::KelMatrixBordered() : borderSize(0), outside(0.0)
{
}

KelMatrixBordered::~KelMatrixBordered() = default;

using kelmatrix::internal::StorageAccess;

KelMatrixBordered::KelMatrixBordered(const KelMatrixBordered& src) : KelMatrixBordered()
{
    *this = src;
}

KelMatrixBordered::KelMatrixBordered(KelMatrixBordered&& src) noexcept : KelMatrixBordered()
{
    *this = std::move(src);
}

KelMatrixBordered& KelMatrixBordered::operator=(const KelMatrixBordered& src)
{
    StorageAccess::copy_into(*this, src);
    borderSize = src.borderSize;
    return *this;
}

KelMatrixBordered& KelMatrixBordered::operator=(KelMatrixBordered&& src) noexcept
{
    if (this == &src)
        return *this;
    delete[] rawStorage;
    rawStorage = nullptr;
    StorageAccess::move_into(*this, src);
    borderSize = src.borderSize;
    src.borderSize = 0;
    return *this;
}

const char* KelMatrixBordered_message(int status)
{
    switch (status) {
    case KEL_BORDERED_OK:
        return "ok";
    case KEL_BORDERED_NEGATIVE_SIZE:
        return "the order, the half-bandwidth and the border size must not be negative";
    case KEL_BORDERED_BORDER_TOO_WIDE:
        return "the border size exceeds the order";
    case KEL_BORDERED_TOO_LARGE:
        return "the storage count nb (bw + 1) + nb m + m^2 exceeds the largest int";
    default:
        return "unknown status";
    }
}

double& KelMatrixBordered::operator()(int i, int j)
{
    KELMATRIX_CHECK(element("KelMatrixBordered::operator()", *this, i, j));
    if (i > j)
        std::swap(i, j);
    const long long nb = rowDim - borderSize, bw = upperBandWidth, m = borderSize;
    if (j < nb) {
        if (j - i > bw) {
            outside = 0.0;
            return outside;
        }
        return elements[bw + i - j + (bw + 1) * j];
    }
    const long long border = nb * (bw + 1);
    if (i < nb)
        return elements[border + i + nb * (j - nb)];
    return elements[border + nb * m + (i - nb) + m * (j - nb)];
}

double KelMatrixBordered::operator()(int i, int j) const
{
    KELMATRIX_CHECK(element("KelMatrixBordered::operator()", *this, i, j));
    if (i > j)
        std::swap(i, j);
    if (j < rowDim - borderSize && j - i > upperBandWidth)
        return 0.0;
    return const_cast<KelMatrixBordered&>(*this)(i, j); // inside the pattern: writes nothing
}

int KelMatrixBordered::DimensionBordered(int n, int bw, int m)
{
    if (n < 0 || bw < 0 || m < 0)
        return KEL_BORDERED_NEGATIVE_SIZE;
    if (m > n)
        return KEL_BORDERED_BORDER_TOO_WIDE;
    const long long nb = n - m;
    const long long count = nb * (bw + 1LL) + nb * m + static_cast<long long>(m) * m;
    if (count > INT_MAX)
        return KEL_BORDERED_TOO_LARGE;
    double* raw = kelmatrix::internal::allocate_block(count); // a failure leaves all as it was
    delete[] rawStorage;
    rawStorage = raw;
    elements = next_aligned_adr(raw);
    storageSize = static_cast<int>(count);
    std::memset(elements, 0, sizeof(double) * count);
    rowDim = colDim = n;
    lowerBandWidth = 0;
    upperBandWidth = bw;
    borderSize = m;
    symmetric = 1;
    triangular = 0;
    banded = 1;
    return KEL_BORDERED_OK;
}

void KelMatrixBordered::Dimension(int rows, int, int, int ku)
{
    DimensionBordered(rows, ku >= 0 ? ku : std::max(upperBandWidth, 0), borderSize);
}
