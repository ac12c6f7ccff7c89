// KELMATRIX storage access (internal)
// The allocation rule and the library's own access to the matrices' protected fields.
//
// Every element array and every temporary buffer is allocated as count + 8 doubles and used
// from next_aligned_adr of the block. A request whose size cannot be represented (a negative or
// huge count) fails as an allocation failure (std::bad_array_new_length) rather than wrapping.
#ifndef KELMATRIX_STORAGE_ACCESS_H
#define KELMATRIX_STORAGE_ACCESS_H

#include <cstdint>
#include <cstring>
#include <utility>

#include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace internal {

/// Array-new of count + 8 doubles (count may be any signed value; see above).
double* allocate_block(long long count);

struct StorageAccess {
    static bool banded(const KelGenericMatrix& m) { return m.banded; }
    static bool symmetric(const KelGenericMatrix& m) { return m.symmetric; }
    static bool uses_lower(const KelGenericMatrix& m) { return m.usesLower; }
    static bool triangular(const KelGenericMatrix& m) { return m.triangular; }

    /// Offset of element (i, j) in a column-major block with leading dimension ld whose row 0
    /// starts first doubles into each column, after mirroring (i, j) into the stored triangle
    /// when m is symmetric (usesLower names that triangle).
    static long long mirrored_offset(const KelGenericMatrix& m, int i, int j, long long ld,
                                     long long first)
    {
        if (m.symmetric && (m.usesLower ? j > i : i > j))
            std::swap(i, j);
        return ld * j + first + i;
    }

    /// Dimension's rules once the block is sized: the shape; a non-square matrix is neither
    /// symmetric nor triangular; non-negative widths record a band. Deliberate: a negative width
    /// keeps the earlier band.
    static void set_shape(KelGenericMatrix& m, int rows, int cols, int kl, int ku)
    {
        m.rowDim = rows;
        m.colDim = cols;
        if (rows != cols) {
            m.symmetric = 0;
            m.triangular = 0;
        }
        if (kl >= 0 && ku >= 0) {
            m.banded = 1;
            m.lowerBandWidth = kl;
            m.upperBandWidth = ku;
        }
    }

    /// Copies rowDim, colDim, both band widths, storageSize and the four flags.
    static void copy_shape_and_flags(KelGenericMatrix& dst, const KelGenericMatrix& src)
    {
        dst.rowDim = src.rowDim;
        dst.colDim = src.colDim;
        dst.lowerBandWidth = src.lowerBandWidth;
        dst.upperBandWidth = src.upperBandWidth;
        dst.storageSize = src.storageSize;
        dst.symmetric = src.symmetric;
        dst.triangular = src.triangular;
        dst.banded = src.banded;
        dst.usesLower = src.usesLower;
    }

    /// Gives m a fresh block of count + 8 doubles without releasing the one it held.
    static void attach_new_block(KelGenericMatrix& m, long long count)
    {
        m.rawStorage = allocate_block(count);
        m.elements = next_aligned_adr(m.rawStorage);
    }

    /// Whether the array p starts inside the block m allocated, the one m's next Dimension
    /// releases. An element array starts within the 8 spare doubles at the head of its block
    /// (next_aligned_adr moves it by at most 31 + 32 bytes) and blocks never overlap, so this
    /// holds for m's own array, a shallow copy's and a Swap partner's, and for no other array.
    static bool starts_in_block(const KelGenericMatrix& m, const double* p)
    {
        const auto block = reinterpret_cast<std::uintptr_t>(m.rawStorage);
        const auto at = reinterpret_cast<std::uintptr_t>(p);
        return m.rawStorage != nullptr && at >= block && at < block + 8 * sizeof(double);
    }

    /// Takes m's block away from it: m's next Dimension then allocates without releasing it,
    /// and the caller releases the returned block (delete[]).
    static double* take_block(KelGenericMatrix& m)
    {
        double* raw = m.rawStorage;
        m.rawStorage = nullptr;
        return raw;
    }

    /// Moves src's block, shape and flags into dst, which must hold no block of its own, and
    /// leaves src as default-constructed (empty, no block).
    static void move_into(KelGenericMatrix& dst, KelGenericMatrix& src) noexcept
    {
        copy_shape_and_flags(dst, src);
        dst.elements = src.elements;
        dst.rawStorage = src.rawStorage;
        src.rowDim = src.colDim = 0;
        src.lowerBandWidth = src.upperBandWidth = -1;
        src.elements = src.rawStorage = nullptr;
        src.storageSize = 0;
        src.symmetric = src.triangular = src.banded = src.usesLower = 0;
    }

    /// A deep copy of src into dst: a fresh block of src's storage count (allocated first, so
    /// that a failure leaves dst as it was, and a self-copy is harmless), then dst's old block
    /// released and src's shape and flags taken.
    static void copy_into(KelGenericMatrix& dst, const KelGenericMatrix& src)
    {
        double* raw = allocate_block(src.storageSize);
        double* elements = next_aligned_adr(raw);
        if (src.storageSize > 0)
            std::memcpy(elements, src.elements, sizeof(double) * src.storageSize);
        delete[] dst.rawStorage;
        dst.rawStorage = raw;
        dst.elements = elements;
        copy_shape_and_flags(dst, src);
    }

    /// Releases m's block, then attaches a fresh one of count + 8 doubles.
    static void replace_block(KelGenericMatrix& m, long long count)
    {
        delete[] m.rawStorage;
        m.rawStorage = nullptr;
        m.elements = nullptr;
        attach_new_block(m, count);
    }
};

} // namespace internal
} // namespace kelmatrix

#endif
