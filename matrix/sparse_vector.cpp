// KELMATRIX sparse vector
// A vector held as its non-zero entries: 1-based increasing positions and their values.
//
// Filled from and expanded to dense arrays; its dot product with a dense array is sparse BLAS
// ddoti, which takes the positions 1-based. Deliberate: assignment is a shallow member copy, so
// two vectors then share both blocks and the target's previous blocks are not released.
#include <cstdint>
#include <cstring>

#include "matrix_checks.h"
#include "mkl_bindings.h"
#include "storage_access.h"

namespace {

int* align_index(int* p)
{
    // 32-byte boundary only: the misalignment applies to doubles, not to positions.
    return reinterpret_cast<int*>((reinterpret_cast<std::uintptr_t>(p) + 31) & ~std::uintptr_t(31));
}

} // namespace

KelSparseVector::KelSparseVector(unsigned int n)
    : dim(n), weight_(0), index(nullptr), data(nullptr), indexStorage(nullptr), dataStorage(nullptr)
{
}

KelSparseVector::~KelSparseVector()
{
    setDim(static_cast<int>(dim));
}

KelSparseVector& KelSparseVector::operator=(const KelSparseVector& src)
{
    // Deliberate: shallow, both vectors share the blocks afterwards.
    dim = src.dim;
    weight_ = src.weight_;
    index = src.index;
    data = src.data;
    indexStorage = src.indexStorage;
    dataStorage = src.dataStorage;
    return *this;
}

void KelSparseVector::setDim(int n)
{
    KELMATRIX_CHECK(sparse_dimension(n, dim));
    delete[] indexStorage;
    delete[] dataStorage;
    indexStorage = nullptr;
    dataStorage = nullptr;
    index = nullptr;
    data = nullptr;
    weight_ = 0;
    dim = static_cast<unsigned int>(n);
}

bool KelSparseVector::setAllElements(unsigned int n, const double* dense)
{
    KELMATRIX_CHECK(sparse_array("KelSparseVector::setAllElements", "dense != nullptr", dense,
                                 n > dim ? 0 : n));
    if (n > dim)
        return false;
    setDim(static_cast<int>(dim));

    unsigned int count = 0;
    for (unsigned int k = 0; k < n; ++k)
        if (dense[k] != 0.0) // exact: NaN counts as non-zero, -0.0 as zero
            ++count;

    dataStorage = kelmatrix::internal::allocate_block(count);
    data = next_aligned_adr(dataStorage);
    indexStorage = new int[static_cast<std::size_t>(count) + 8];
    index = align_index(indexStorage);

    for (unsigned int k = 0; k < n; ++k) {
        if (dense[k] != 0.0) {
            index[weight_] = static_cast<int>(k + 1);
            data[weight_] = dense[k];
            ++weight_;
        }
    }
    return true;
}

bool KelSparseVector::getAllElements(unsigned int n, double* dense) const
{
    KELMATRIX_CHECK(sparse_array("KelSparseVector::getAllElements", "dense != nullptr", dense,
                                 n < dim ? 0 : n));
    if (n < dim)
        return false;
    if (n > 0)
        std::memset(dense, 0, sizeof(double) * n);
    if (data != nullptr)
        for (unsigned int k = 0; k < weight_; ++k)
            dense[index[k] - 1] = data[k];
    return true;
}

double KelSparseVector::multiply(const double* dense) const
{
    KELMATRIX_CHECK(sparse_array("KelSparseVector::multiply", "dense != nullptr", dense, weight_));
    const int nz = static_cast<int>(weight_);
    return ddoti(&nz, data, index, dense);
}
