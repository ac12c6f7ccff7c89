// KELMATRIX native band solvers
// The library's own band Cholesky with dropped pivots, its cyclic (bordered) extension, a
// bordered banded solve driver over LAPACK, and Kronecker-product band solvers.
//
// The native routines read and write matrices only through the virtual element accessor, so
// they serve dense, band and user-derived storage alike; only the diagonal and upper band are
// touched. They never fail: a pivot d below the tolerance is dropped (its diagonal becomes -1.0)
// and its unknown solves to 0, so the count of accepted pivots is the numerical rank. A band
// width argument <= 0 means the matrix's recorded upper band width, or its order if that is < 1.
// Summation orders are fixed; results are reproducible bit for bit.
#ifndef KELMATRIX_BAND_H
#define KELMATRIX_BAND_H

#include "kelmatrix/matrix.h"

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
/// reported, so m = 0 returns 0, and m = n factors the whole matrix densely. Temporary memory is
/// O(nb (bandWidth + m) + m^2): A may be a user storage type holding only band and border.
KELMATRIX_API int cyclic_Cholesky_factor(KelGenericMatrix& A, int bandWidth, int m, double tol);
/// Solves A X = B in place in B (n rows, any number of columns) with the factor left by
/// cyclic_Cholesky_factor (same bandWidth and m); A is read, not changed. Unknowns of dropped
/// pivots are 0 in every column.
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
/// A.rows = 0 is not guarded.
KELMATRIX_API bool Solve_Kronecker(const KelMatrixBanded& A, const KelMatrixBanded& B,
                                   KelMatrix& X, bool copyInputs);
/// Overwrites each column x of X (U1.rows * U2.rows rows, block i = rows i*q .. i*q+q-1 with
/// q = U2.rows) with y solving (U1 kron U2)^T y = x. U1 and U2 (dense or band) hold upper factors
/// from Cholesky_factor, of outer band width w1 and inner w2; only their upper bands are read.
/// w1 <= 0 means U1.rows; w2 <= 0 means U2.rows. A negative diagonal of U1 (dropped pivot) makes
/// block i zero and leaves it out of its neighbours' sums; a zero diagonal is divided by.
KELMATRIX_API void kronecker_lower_substitute(int w1, int w2, KelGenericMatrix& U1,
                                              KelGenericMatrix& U2, KelMatrix& X);
/// As kronecker_lower_substitute for (U1 kron U2) y = x, blocks in descending order. Deliberate:
/// w2 <= 0 means U1.rows here, and a zero diagonal of U1 zeroes its block like a dropped pivot.
/// Lower then upper on the same X solves (U1^T U1 kron U2^T U2) y = x.
KELMATRIX_API void kronecker_upper_substitute(int w1, int w2, KelGenericMatrix& U1,
                                              KelGenericMatrix& U2, KelMatrix& X);

#endif
