// KELMATRIX native band solvers
// The library's own band Cholesky with dropped pivots, its cyclic (bordered) extension with a
// storage type of its own, a bordered banded solve driver over LAPACK, and Kronecker-product
// band solvers.
//
// The native routines are defined through the virtual element accessor, so they serve dense,
// band, bordered and user-derived storage alike; only the diagonal and upper band are touched.
// They never fail: a pivot d below the tolerance is dropped (its diagonal becomes -1.0) and its
// unknown solves to 0, so the count of accepted pivots is the numerical rank. A band width
// argument <= 0 means the matrix's recorded upper band width, or its order if that is < 1.
// Summation orders are fixed; results are reproducible bit for bit whatever the storage (a NaN
// result is NaN on every storage, its payload aside). Cholesky_factor and Cholesky_subst
// allocate nothing and throw nothing.
#ifndef KELMATRIX_BAND_H
#define KELMATRIX_BAND_H

#include "kelmatrix/matrix.h"

/// Results of KelMatrixBordered::DimensionBordered; KelMatrixBordered_message names them.
enum KelMatrixBordered_status : int {
    KEL_BORDERED_OK = 0,
    KEL_BORDERED_NEGATIVE_SIZE = 1,   ///< n, bw or m below 0
    KEL_BORDERED_BORDER_TOO_WIDE = 2, ///< m > n
    KEL_BORDERED_TOO_LARGE = 3        ///< more doubles than a storage count (int) holds
};

/// The status in words ("unknown status" for a value not listed above).
KELMATRIX_API const char* KelMatrixBordered_message(int status);

/// Symmetric bordered band matrix of order n: a leading band block A11 of order nb = n - m and
/// half-bandwidth bw, and m trailing dense rows and columns (a cyclic band matrix with its
/// wrap-around unknowns ordered last), in nb (bw + 1) + nb m + m^2 doubles, one element block:
///   - A11's upper band in LAPACK upper band storage: (i, j), i <= j <= i + bw, at
///     bw + i - j + (bw + 1) j;
///   - the border A12 (rows 0 .. nb-1, columns nb .. n-1), column-major, leading dimension nb,
///     from offset nb (bw + 1);
///   - the corner A22, m x m column-major of which the upper triangle is used, after the border.
/// cyclic_Cholesky_factor and cyclic_Cholesky_subst with this bw (or a narrower one) and this m
/// work on it in place, without temporaries. The accessors always mirror (i, j), i > j, to
/// (j, i), whatever the symmetric and uses-lower flags say, as KelMatrixPacked's do. Outside the
/// pattern (an element of A11 farther than bw from the diagonal) the const accessor returns 0.0
/// and the other returns a reference to a per-object spare element set to 0.0 at that call, so
/// a read gives 0.0 and a write is lost. Indices outside 0 .. n-1 are not checked.
class KELMATRIX_API KelMatrixBordered : public KelGenericMatrix {
public:
    /// Empty: order 0, no border, as KelGenericMatrix otherwise.
    KelMatrixBordered();
    ~KelMatrixBordered() override;
    /// A deep copy: src's shape, border and flags in a block of its own.
    KelMatrixBordered(const KelMatrixBordered& src);
    /// Takes src's block; src is left empty, as default-constructed.
    KelMatrixBordered(KelMatrixBordered&& src) noexcept;
    /// A deep copy into a fresh block (allocated before the old one is released, so a failure
    /// leaves this matrix as it was); self-assignment is harmless.
    KelMatrixBordered& operator=(const KelMatrixBordered& src);
    /// Releases this matrix's block and takes src's; src is left empty.
    KelMatrixBordered& operator=(KelMatrixBordered&& src) noexcept;

    /// Element (i, j) of the pattern, mirrored into the upper triangle; see the class comment.
    double& operator()(int i, int j) override;
    /// Element (i, j) of the pattern, mirrored into the upper triangle; 0.0 outside it.
    double operator()(int i, int j) const override;

    /// Sizes the matrix for order n, half-bandwidth bw and border m: a fresh zero-filled block,
    /// rows = cols = n, GetLowerBandWidth() 0 and GetUpperBandWidth() bw (as a KelMatrixBanded
    /// in upper symmetric band storage), the symmetric and banded flags set. Returns
    /// KEL_BORDERED_OK, or the status of the first size rule broken, changing nothing.
    int DimensionBordered(int n, int bw, int m);
    /// DimensionBordered(rows, ku, GetBorderSize()), so a square re-dimension keeps the border;
    /// ku < 0 keeps the current half-bandwidth (0 for an empty matrix). cols and kl are ignored
    /// (the matrix is square and symmetric); sizes that DimensionBordered rejects change nothing.
    void Dimension(int rows, int cols, int kl, int ku) override;

    /// m, the number of trailing dense rows and columns.
    int GetBorderSize() const { return borderSize; }

private:
    int borderSize;
    double outside; ///< the spare element the non-const accessor returns outside the pattern
};

/// Factors A = U^T U in place over the upper band of width bandWidth (n = A.rows). A pivot with
/// d < tol (tested before the square root; d == tol and NaN are accepted) is dropped: A(i,i)
/// becomes -1.0 and the rest of row i keeps its input. Returns the number of accepted pivots.
KELMATRIX_API int Cholesky_factor(KelGenericMatrix& A, int bandWidth, double tol);
/// Solves A X = B in place in B with the factor from Cholesky_factor (same bandWidth), column by
/// column, forward then backward; unknowns of dropped pivots are 0.
KELMATRIX_API void Cholesky_subst(KelGenericMatrix& A, int bandWidth, KelMatrix& B);

/// Factors in place a symmetric matrix of order n (A.rows) whose leading nb = n - m block is a
/// band of half-bandwidth bandWidth and whose last m rows and columns are a dense border (a
/// cyclic band matrix with its wrap-around unknowns ordered last): A11 = U11^T U11 with dropped
/// pivots as Cholesky_factor, W = U11^-T A12, and the Schur complement A22 - W^T W = U22^T U22
/// factored densely. Overwrites the upper band of A11 with U11, A12 with W (rows of dropped
/// pivots become 0) and the upper triangle of A22 with U22; the lower triangle and A11 outside
/// the band are neither read nor written. bandWidth is used as given (pass >= 1). Returns the
/// count of accepted pivots of the m x m Schur complement only: the band block's count is not
/// reported, so m = 0 returns 0, and m = n factors the whole matrix densely. A KelMatrix, a
/// KelMatrixBanded holding the whole upper triangle or a KelMatrixBordered of this m and a band
/// at least bandWidth wide is factored in place with no temporary (bandWidth >= 1); any other
/// storage goes through a band temporary of O(nb bandWidth) doubles (O(nb^2) for
/// bandWidth < 1) and an m x m one, so a user type may hold only band and border.
KELMATRIX_API int cyclic_Cholesky_factor(KelGenericMatrix& A, int bandWidth, int m, double tol);
/// Solves A X = B in place in B (n rows, any number of columns) with the factor left by
/// cyclic_Cholesky_factor (same bandWidth and m); A is read, not changed. Unknowns of dropped
/// pivots are 0 in every column. Temporaries as for the factorization; none when A qualifies
/// there and B is a plain KelMatrix sharing no storage with A.
KELMATRIX_API void cyclic_Cholesky_subst(KelGenericMatrix& A, int bandWidth, int m, KelMatrix& B);
/// Solves A X = B for a symmetric bordered band matrix through a Schur complement over LAPACK
/// (dpbtrf, dpbtrs, dposv): band block of order nb with half-bandwidth bandWidth / 2 (truncated:
/// bandWidth is the total width), border of m = n - nb >= 1. Reads only the upper band of A11,
/// the border columns A12 and the upper triangle of A22, through the const accessor. A negative
/// definite Schur complement is negated first, so saddle points (A22 = 0) are solved. Returns
/// true when every LAPACK call succeeds; only then is X re-dimensioned to B.rows x B.cols and
/// written. A and B never change; on failure (a band block that is not positive definite, an
/// indefinite Schur complement, an empty band block or border) X keeps its shape and content.
KELMATRIX_API bool SolveBSP_Cyclic(const KelMatrix& A, const KelMatrix& B, int nb, int bandWidth,
                                   KelMatrix& X);

/// Solves (A kron B) y = x in place for each of the m = X.cols / A.rows groups of A.rows columns
/// of X (X has B.rows rows; group k, read column-major, is one right-hand side), without forming
/// the product: each group Xk becomes B^-1 Xk A^-1, by two SolveBSP calls that each take every
/// group at once. A and B as SolveBSP requires (SPD, kl = 0, ku = half-bandwidth). Returns false
/// when A or B is not positive definite. copyInputs true: A and B never change, and X only on
/// success; columns past the last whole group keep their input. false: A and B are factored in
/// place, X's own array is the first right-hand side (columns past the last whole group end up
/// as B^-1 times their input, and after a failure of the A solve all of X holds B^-1 X).
/// A.rows = 0 is not guarded. Temporaries: dense matrices of at most X's size (and SolveBSP's
/// copies when copyInputs is true).
KELMATRIX_API bool Solve_Kronecker(const KelMatrixBanded& A, const KelMatrixBanded& B, KelMatrix& X,
                                   bool copyInputs);
/// Overwrites each column x of X (U1.rows * U2.rows rows, block i = rows i*q .. i*q+q-1 with
/// q = U2.rows) with y solving (U1 kron U2)^T y = x. U1 and U2 (dense or band) hold upper factors
/// from Cholesky_factor, of outer band width w1 and inner w2; only their upper bands are read.
/// w1 <= 0 means U1.rows; w2 <= 0 means U2.rows. A negative diagonal of U1 (dropped pivot) makes
/// block i zero and leaves it out of its neighbours' sums; a zero diagonal is divided by. The
/// one temporary is a ring of (w1 + 1) U2.rows doubles.
KELMATRIX_API void kronecker_lower_substitute(int w1, int w2, KelGenericMatrix& U1,
                                              KelGenericMatrix& U2, KelMatrix& X);
/// As kronecker_lower_substitute for (U1 kron U2) y = x, blocks in descending order. Deliberate:
/// w2 <= 0 means U1.rows here, and a zero diagonal of U1 zeroes its block like a dropped pivot.
/// Lower then upper on the same X solves (U1^T U1 kron U2^T U2) y = x.
KELMATRIX_API void kronecker_upper_substitute(int w1, int w2, KelGenericMatrix& U1,
                                              KelGenericMatrix& U2, KelMatrix& X);

// ---- Products and residuals ----

/// Y = A X over A's band only: kl rows below and ku above the diagonal, max(kl, ku) on both
/// sides when A is flagged symmetric (its accessor mirrors, so pass kl = 0 and ku = kd storage
/// of a symmetric band matrix with SetSymmetric(true)). Y is re-dimensioned to A.rows x X.cols
/// (dense; its earlier band and flags stay as Dimension keeps them). Sums run in a fixed order:
/// the bits do not depend on the instruction set or the thread count. Returns KEL_PRODUCT_OK, or
/// KEL_PRODUCT_EMPTY (no band recorded or no storage), KEL_PRODUCT_SHAPE (X.rows != A.cols) or
/// KEL_PRODUCT_ALIASED (Y's block is A's or X's), Y then untouched.
KELMATRIX_API int multiplyBanded(const KelMatrixBanded& A, const KelMatrix& X, KelMatrix& Y);
/// Y = A X for the whole symmetric bordered matrix (A11's band, the border and the corner, each
/// mirrored), as multiplyBanded otherwise.
KELMATRIX_API int multiplyBordered(const KelMatrixBordered& A, const KelMatrix& X, KelMatrix& Y);
/// ratio = ||B - A X||_1 / (||A||_1 ||X||_1 n eps) with n = A.rows, 1-norms of the matrices
/// (largest column sum), A X over the band as multiplyBanded computes it: a backward-stable
/// solve of A X = B gives a ratio of order 1 (tests accept up to 30 or so). 0 when B equals
/// A X exactly, infinite when the denominator is 0 otherwise. Returns a KelProduct_status
/// (KEL_PRODUCT_SHAPE also when B is not A.rows x X.cols); ratio is written only on success.
KELMATRIX_API int residualRatio(const KelMatrixBanded& A, const KelMatrix& X, const KelMatrix& B,
                                double& ratio);
/// The same for a bordered matrix, its product as multiplyBordered computes it.
KELMATRIX_API int residualRatio(const KelMatrixBordered& A, const KelMatrix& X, const KelMatrix& B,
                                double& ratio);

#endif
