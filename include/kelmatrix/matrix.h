// KELMATRIX matrix containers
// Dense, band and packed matrices in aligned storage, and a sparse vector.
//
// Every matrix owns one contiguous block of doubles, allocated as count + 8 and used from the
// next 32-byte boundary plus a process-wide misalignment (see kelmatrix_set_mkl_misalignment).
// Element access goes through a virtual operator(), so the library's own algorithms serve any
// storage derived from KelGenericMatrix. Several behaviours are deliberate and part of the
// interface: the base-class and sparse-vector assignments are shallow, Swap leaves each
// object's allocated block with its owner, a dense re-dimension keeps an earlier band, and a
// band-to-dense or packed-to-dense assignment keeps the source's storage count and does not
// release the target's previous block.
#ifndef KELMATRIX_MATRIX_H
#define KELMATRIX_MATRIX_H

#include "kelmatrix/export.h"

/// Returns the process-wide misalignment in bytes added to every aligned element pointer.
KELMATRIX_API int kelmatrix_get_mkl_misalignment();

/// Sets the misalignment in bytes: a multiple of 8 (so doubles stay aligned), at most 32 to keep
/// every array inside its block. Not range-checked.
/// Affects only allocations made afterwards; not synchronised, so set it before creating
/// matrices and before other threads run.
KELMATRIX_API void kelmatrix_set_mkl_misalignment(int bytes);

/// The next 32-byte boundary at or after p, plus the misalignment in bytes (not doubles).
KELMATRIX_API double* next_aligned_adr(double* p);

class KelMatrixBanded;
class KelMatrixPacked;

/// Results of the products and residual ratios (multiplyBanded, residualRatio, ...);
/// KelProduct_message names them.
enum KelProduct_status : int {
    KEL_PRODUCT_OK = 0,
    KEL_PRODUCT_SHAPE,   ///< X's rows are not A's columns, or B's shape is not A X's
    KEL_PRODUCT_ALIASED, ///< the output shares its block with an input
    KEL_PRODUCT_EMPTY    ///< A has no storage, or a band matrix no recorded band
};

/// A fixed English description of a KelProduct_status value; never null.
KELMATRIX_API const char* KelProduct_message(int status);

namespace kelmatrix {
namespace internal {
struct StorageAccess; // the library's own field access; not part of the interface
}
} // namespace kelmatrix

/// Abstract base of the matrices: shape, band widths, four property flags and one aligned
/// element block. The storage layout belongs to the derived classes, which provide the two
/// element accessors. Fields are protected so that a user-derived storage type can give itself
/// a shape without the base allocating rows x cols.
class KELMATRIX_API KelGenericMatrix {
public:
    /// Empty: 0 x 0, band widths -1, no storage, all flags clear (so "upper" storage).
    KelGenericMatrix();
    /// Releases the block this object allocated.
    virtual ~KelGenericMatrix();

    /// Reference to element (i, j), 0-based; no bounds check.
    virtual double& operator()(int i, int j) = 0;
    /// Value of element (i, j), 0-based; no bounds check.
    virtual double operator()(int i, int j) const = 0;

    /// Releases the old block and allocates rows x cols fresh, unzeroed doubles. A non-square
    /// shape clears the symmetric and triangular flags. kl >= 0 and ku >= 0 record a band and
    /// set the banded flag; otherwise the earlier band widths and banded flag are kept
    /// (deliberate: a dense re-dimension does not clear a band). usesLower is never touched.
    virtual void Dimension(int rows, int cols, int kl, int ku);
    /// Dimension(n, n, kl, ku) through the virtual table, so a band matrix gets band sizing.
    virtual void DimensionSquare(int n, int kl, int ku);
    /// Zero-fills the storage, then writes 1.0 at (k, k), k < min(rows, cols), through the
    /// object's own accessor.
    virtual void SetIdentity();

    /// Deliberate: a shallow member copy. Both objects then refer to the same block and both
    /// would release it; keep only one of them alive past the other's use.
    KelGenericMatrix& operator=(const KelGenericMatrix& src);

    /// Zero-fills the storage count of doubles; shape and flags unchanged.
    void SetZero();
    /// Exchanges shape, band widths, element pointer, storage count and flags. Deliberate: the
    /// allocated blocks are not exchanged, so each object still releases the block it
    /// allocated; swap only matrices that are then used and destroyed together.
    void Swap(KelGenericMatrix& other);

    /// Number of rows.
    int GetRowDim() const { return rowDim; }
    /// Number of columns.
    int GetColDim() const { return colDim; }
    /// Sub-diagonals kept (kl); -1 until a band is recorded.
    int GetLowerBandWidth() const { return lowerBandWidth; }
    /// Super-diagonals kept (ku); -1 until a band is recorded.
    int GetUpperBandWidth() const { return upperBandWidth; }
    /// The aligned element array (modifiable, although the member is const).
    double* GetElements() const { return elements; }
    /// Number of doubles in the element array that belong to the matrix.
    int GetStorageSize() const { return storageSize; }

    /// Symmetric: only one triangle is stored and the accessors mirror the other.
    void SetSymmetric(bool on) { symmetric = on; }
    /// Triangular: only the used triangle is meaningful (the accessors do not mirror).
    void SetTriangular(bool on) { triangular = on; }
    /// Stores the lower triangle (row >= column) of a symmetric matrix.
    void SetUsesLower() { usesLower = 1; }
    /// Deliberate: "upper" is usesLower cleared; there is no separate bit.
    void SetUsesUpper() { usesLower = 0; }

    /// True when only one triangle is stored.
    bool SymmetricQ() { return symmetric; }
    /// True when flagged triangular.
    bool TriangularQ() { return triangular; }
    /// True when the lower triangle is the stored one; false means upper.
    bool UsesLowerQ() { return usesLower; }

protected:
    int rowDim;                   ///< number of rows
    int colDim;                   ///< number of columns
    int lowerBandWidth;           ///< kl, -1 when no band was ever recorded
    int upperBandWidth;           ///< ku, -1 when no band was ever recorded
    double* elements;             ///< aligned start of the element array, inside rawStorage
    double* rawStorage;           ///< the allocated block; the only pointer ever released
    int storageSize;              ///< doubles of the element array that belong to the matrix
    unsigned char symmetric : 1;  ///< one triangle stored, the other mirrored
    unsigned char triangular : 1; ///< only the used triangle is meaningful
    unsigned char banded : 1;     ///< the band widths are valid; only the band is meaningful
    unsigned char usesLower : 1;  ///< the lower triangle is the stored one (clear: upper)

private:
    /// Deep copy of shape, flags and storageSize doubles into a fresh block.
    KelGenericMatrix(const KelGenericMatrix& src);

    friend struct kelmatrix::internal::StorageAccess;
};

/// Dense column-major matrix: element (i, j) at elements[rows * j + i]. With the symmetric
/// flag set only one triangle is kept (the lower if usesLower, else the upper) and both
/// accessors mirror into it; the triangular flag alone does not mirror.
class KELMATRIX_API KelMatrix : public KelGenericMatrix {
public:
    /// Empty, as KelGenericMatrix.
    KelMatrix();
    ~KelMatrix() override;
    /// Takes src's block, shape and flags; src is left empty (0 x 0, no block), as
    /// default-constructed. What return by value and a growing std::vector use. There is no
    /// copy constructor, and no move assignment: X = std::move(Y) is the deep copy below.
    KelMatrix(KelMatrix&& src) noexcept;

    /// Element (i, j) at elements[rows * j + i], mirrored when symmetric.
    double& operator()(int i, int j) override;
    /// Element (i, j) at elements[rows * j + i], mirrored when symmetric.
    double operator()(int i, int j) const override;

    /// Deep copy: shape, band widths, storage count and flags, then storageSize doubles into a
    /// fresh block. Deliberate: no self-assignment guard; never assign a matrix to itself.
    KelMatrix& operator=(const KelMatrix& src);
    /// Packed to dense: copies shape and flags, keeps the packed storage count as storageSize,
    /// zero-fills that many doubles and transfers the stored triangle through src's accessor.
    /// Deliberate: the previous block is not released.
    KelMatrix& operator=(const KelMatrixPacked& src);
    /// Band to dense: copies shape and flags (banded stays set), keeps the band storage count as
    /// storageSize, zero-fills that many doubles and copies the band through both accessors.
    /// Deliberate: the previous block is not released, and off-band elements beyond the band
    /// count are not zeroed.
    KelMatrix& operator=(const KelMatrixBanded& src);
    /// Scales in place: the band if banded; else all storageSize doubles if neither symmetric
    /// nor triangular; else the stored triangle (lower if usesLower, else upper) with diagonal.
    KelMatrix& operator*=(double factor);
};

/// Band matrix in LAPACK general-band layout: leading dimension 2*kl + ku + 1, element (i, j)
/// at elements[(2*kl + ku) * j + kl + ku + i]; band rows 0 .. kl-1 of each column are the fill-in
/// rows of a pivoted LU. Built with kl = 0 and ku = kd it is exactly LAPACK's upper symmetric
/// band storage with leading dimension kd + 1. No test that (i, j) lies inside the band.
class KELMATRIX_API KelMatrixBanded : public KelGenericMatrix {
public:
    /// Empty, as KelGenericMatrix.
    KelMatrixBanded();
    ~KelMatrixBanded() override;
    /// Takes src's block, shape and flags; src is left empty, as default-constructed. There is
    /// no copy constructor.
    KelMatrixBanded(KelMatrixBanded&& src) noexcept;
    /// Deliberate: the shallow member copy of KelGenericMatrix::operator= (both objects then
    /// refer to one block), from any source, a temporary included.
    KelMatrixBanded& operator=(const KelMatrixBanded& src);

    /// Element (i, j) in band row kl + ku + i - j of column j, mirrored when symmetric.
    double& operator()(int i, int j) override;
    /// Element (i, j) in band row kl + ku + i - j of column j, mirrored when symmetric.
    double operator()(int i, int j) const override;

    /// Allocates (2*kl + ku + 1) * cols unzeroed doubles (rows does not enter the size), records
    /// kl and ku and sets banded unconditionally; the symmetric and triangular flags are kept.
    void Dimension(int rows, int cols, int kl, int ku) override;
};

/// Packed symmetric matrix in LAPACK packed layout, n = rows: upper (usesLower clear) element
/// (i, j), i <= j, at i + j*(j+1)/2; lower element (i, j), i >= j, at i + j*(2n - j - 1)/2. Both
/// accessors always mirror into the stored triangle, whatever the symmetric flag says.
class KELMATRIX_API KelMatrixPacked : public KelGenericMatrix {
public:
    /// Empty, as KelGenericMatrix; call SetUsesLower() before Dimension for lower storage.
    KelMatrixPacked();
    ~KelMatrixPacked() override;

    /// Element (i, j) of the stored triangle (always mirrored).
    double& operator()(int i, int j) override;
    /// Element (i, j) of the stored triangle (always mirrored).
    double operator()(int i, int j) const override;

    /// Allocates rows*(rows+1)/2 unzeroed doubles; shape, band widths and flags as the base.
    void Dimension(int rows, int cols, int kl, int ku) override;
};

/// Sparse vector: dimension, and the non-zero entries as 1-based increasing positions with
/// their values. Deliberate: assignment is a shallow member copy, so two vectors then share
/// both blocks; keep only one of them alive past the other's use.
class KELMATRIX_API KelSparseVector {
public:
    /// Dimension n, no entries.
    KelSparseVector(unsigned int n = 0);
    /// Releases both blocks and sets weight to 0 (dim is kept).
    ~KelSparseVector();

    /// Deliberate: shallow; both vectors share the blocks, the target's old ones are not released.
    KelSparseVector& operator=(const KelSparseVector& src);

    /// The vector's dimension.
    unsigned int getDim() const { return dim; }
    /// Number of stored entries.
    unsigned int weight() const { return weight_; }
    /// 1-based positions of the stored entries, increasing.
    int* index_ptr() { return index; }
    /// Values of the stored entries, in position order.
    double* data_ptr() { return data; }

    /// Releases the entries and sets the dimension.
    void setDim(int n);
    /// Stores the entries of dense[0 .. n-1] that compare != 0.0 exactly (NaN is stored, -0.0
    /// is not). Returns false and changes nothing when n > getDim().
    bool setAllElements(unsigned int n, const double* dense);
    /// Zeroes dense[0 .. n-1] and scatters the entries. Returns false and leaves dense
    /// untouched when n < getDim().
    bool getAllElements(unsigned int n, double* dense) const;
    /// Dot product with a dense array by sparse BLAS ddoti; no dimension check.
    double multiply(const double* dense) const;

private:
    unsigned int dim;
    unsigned int weight_;
    int* index;
    double* data;
    int* indexStorage;
    double* dataStorage;
};

#endif
