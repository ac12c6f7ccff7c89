// KELMATRIX aligned work buffer (internal)
// The one RAII owner of the temporary arrays handed to MKL.
//
// A buffer of c doubles is a block of c + 8 doubles used from next_aligned_adr of the block,
// exactly as the matrices allocate, and is released by the destructor on every path (an
// allocation failure of a later buffer included).
#ifndef KELMATRIX_ALIGNED_BUFFER_H
#define KELMATRIX_ALIGNED_BUFFER_H

#include <cstring>

#include "storage_access.h"

namespace kelmatrix {
namespace internal {

class AlignedBuffer {
public:
    AlignedBuffer() = default;
    explicit AlignedBuffer(long long count) { allocate(count); }
    ~AlignedBuffer() { delete[] raw_; }
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;

    /// A fresh buffer of count doubles (unzeroed); any earlier one is released.
    double* allocate(long long count)
    {
        delete[] raw_;
        raw_ = nullptr;
        raw_ = allocate_block(count);
        data_ = next_aligned_adr(raw_);
        return data_;
    }

    /// A buffer of max(min_count, m.GetStorageSize()) doubles holding m's stored doubles first.
    /// min_count is what the routine reads; the block never ends before the copy does, so a
    /// matrix stored wider than the routine reads it (a band with kl > 0 handed to an upper-band
    /// routine) gives a wrong answer, not a heap overrun.
    double* copy_of_at_least(const KelGenericMatrix& m, long long min_count)
    {
        allocate(min_count > m.GetStorageSize() ? min_count : m.GetStorageSize());
        if (m.GetStorageSize() > 0)
            std::memcpy(data_, m.GetElements(), sizeof(double) * m.GetStorageSize());
        return data_;
    }

    double* data() const { return data_; }

private:
    double* raw_ = nullptr;
    double* data_ = nullptr;
};

/// The block of an output matrix that one of the inputs still reads (the output passed as an
/// input, or sharing its block): taken from the matrix so that re-dimensioning it allocates
/// without releasing it, and released when this object goes, after the reads. An output
/// unrelated to the inputs is not touched, so its allocation order stays as it always was.
class RetainedBlock {
public:
    RetainedBlock(KelGenericMatrix& out, const double* in1, const double* in2 = nullptr)
    {
        if (StorageAccess::starts_in_block(out, in1) || StorageAccess::starts_in_block(out, in2))
            raw_ = StorageAccess::take_block(out);
    }
    ~RetainedBlock() { delete[] raw_; }
    RetainedBlock(const RetainedBlock&) = delete;
    RetainedBlock& operator=(const RetainedBlock&) = delete;

private:
    double* raw_ = nullptr;
};

/// Copies m's storage count of doubles from src into m's array; nothing when src is m's own.
inline void copy_storage_from(KelGenericMatrix& m, const double* src)
{
    if (src != m.GetElements() && m.GetStorageSize() > 0)
        std::memcpy(m.GetElements(), src, sizeof(double) * m.GetStorageSize());
}

/// The wrappers' output step after success: X := rows x cols (band state kept), then one copy
/// of X's storage from the routine's solution array. When the solution lies in X's own block
/// (X passed as B with copyInputs = 0), that block is released only after the copy.
inline void take_solution(KelMatrix& X, int rows, int cols, const double* solution)
{
    RetainedBlock solution_block(X, solution);
    X.Dimension(rows, cols, -1, -1);
    copy_storage_from(X, solution);
}

} // namespace internal
} // namespace kelmatrix

#endif
