// KELMATRIX generic matrix and aligned storage
// The abstract matrix base: shape, band widths, flags and one aligned element block.
//
// Allocates count + 8 doubles per block and uses it from the next 32-byte boundary plus the
// process-wide misalignment. Deliberate quirks kept as the interface: the assignment is shallow,
// Swap leaves each block with the object that allocated it, and a dense re-dimension keeps an
// earlier band. Nothing is checked: sizes and indices go straight into products and addresses.
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "matrix_checks.h"
#include "storage_access.h"

namespace {
int mklMisalignment = 0; // bytes; not synchronised: set it before matrices are created
}

int kelmatrix_get_mkl_misalignment()
{
    return mklMisalignment;
}

void kelmatrix_set_mkl_misalignment(int bytes)
{
    KELMATRIX_CHECK(misalignment(bytes));
    mklMisalignment = bytes;
}

double* next_aligned_adr(double* p)
{
    const std::uintptr_t boundary =
        (reinterpret_cast<std::uintptr_t>(p) + 31) & ~std::uintptr_t(31);
    return reinterpret_cast<double*>(boundary + static_cast<std::intptr_t>(mklMisalignment));
}

namespace kelmatrix {
namespace internal {

namespace {

// Blocks from this size on are advised to use huge pages.
constexpr std::size_t kHugePageBlock = std::size_t(4) << 20;
constexpr std::uintptr_t kPage = 4096;

// A fresh block is first touched by the routine that asked for it, page by page. Where the
// system hands out transparent huge pages on request, asking for them on the whole pages inside
// the block turns 512 faults into one per 2 MiB (a 64 MiB block: about 4 times faster to touch
// on a machine where they are given on request). The advice changes no value; a system without
// it refuses, which is ignored, and errno is left as it was.
void advise_huge_pages(double* block, std::size_t bytes)
{
#ifdef MADV_HUGEPAGE
    if (bytes < kHugePageBlock)
        return;
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t begin = (at + kPage - 1) & ~(kPage - 1), end = (at + bytes) & ~(kPage - 1);
    const int saved = errno;
    madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
    errno = saved;
#else
    (void)block;
    (void)bytes;
#endif
}

} // namespace

double* allocate_block(long long count)
{
    // The 8 spare doubles absorb up to 31 bytes of rounding plus the misalignment.
    const long long total = count + 8;
    const long long largest = static_cast<long long>(PTRDIFF_MAX / sizeof(double));
    if (total < 0 || total > largest)
        throw std::bad_array_new_length(); // an allocation failure, as array new reports it
    double* block = new double[static_cast<std::size_t>(total)];
    advise_huge_pages(block, sizeof(double) * static_cast<std::size_t>(total));
    return block;
}

} // namespace internal
} // namespace kelmatrix

using kelmatrix::internal::StorageAccess;

KelGenericMatrix::KelGenericMatrix()
    : rowDim(0), colDim(0), lowerBandWidth(-1), upperBandWidth(-1), elements(nullptr),
      rawStorage(nullptr), storageSize(0), symmetric(0), triangular(0), banded(0), usesLower(0)
{
}

KelGenericMatrix::KelGenericMatrix(const KelGenericMatrix& src)
    : elements(nullptr), rawStorage(nullptr)
{
    StorageAccess::copy_shape_and_flags(*this, src);
    StorageAccess::attach_new_block(*this, storageSize);
    if (storageSize > 0)
        std::memcpy(elements, src.elements, sizeof(double) * storageSize);
}

KelGenericMatrix::~KelGenericMatrix()
{
    delete[] rawStorage;
}

KelGenericMatrix& KelGenericMatrix::operator=(const KelGenericMatrix& src)
{
    // Deliberate: shallow. Both objects refer to one block afterwards.
    StorageAccess::copy_shape_and_flags(*this, src);
    elements = src.elements;
    rawStorage = src.rawStorage;
    return *this;
}

void KelGenericMatrix::Dimension(int rows, int cols, int kl, int ku)
{
    KELMATRIX_CHECK(dimension("KelGenericMatrix::Dimension", rows, cols));
    // 32-bit product, wrapping as the int arithmetic of the interface does.
    storageSize = static_cast<int>(static_cast<unsigned>(rows) * static_cast<unsigned>(cols));
    StorageAccess::replace_block(*this, storageSize); // never reused, even at the same size
    StorageAccess::set_shape(*this, rows, cols, kl, ku);
}

void KelGenericMatrix::DimensionSquare(int n, int kl, int ku)
{
    Dimension(n, n, kl, ku);
}

void KelGenericMatrix::SetZero()
{
    if (storageSize > 0)
        std::memset(elements, 0, sizeof(double) * storageSize);
}

void KelGenericMatrix::SetIdentity()
{
    SetZero();
    const int k_end = rowDim < colDim ? rowDim : colDim;
    for (int k = 0; k < k_end; ++k)
        (*this)(k, k) = 1.0;
}

void KelGenericMatrix::Swap(KelGenericMatrix& other)
{
    // Deliberate: rawStorage stays with the object that allocated it.
    std::swap(rowDim, other.rowDim);
    std::swap(colDim, other.colDim);
    std::swap(lowerBandWidth, other.lowerBandWidth);
    std::swap(upperBandWidth, other.upperBandWidth);
    std::swap(elements, other.elements);
    std::swap(storageSize, other.storageSize);
    const bool s = symmetric, t = triangular, b = banded, l = usesLower;
    symmetric = other.symmetric;
    triangular = other.triangular;
    banded = other.banded;
    usesLower = other.usesLower;
    other.symmetric = s;
    other.triangular = t;
    other.banded = b;
    other.usesLower = l;
}
