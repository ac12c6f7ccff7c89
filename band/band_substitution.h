// KELMATRIX band substitution (internal)
// The forward and backward passes of the library's band Cholesky, on a row range of B.
//
// Shared by the band, cyclic and Kronecker solvers and not exported. Both solve in place in
// rows rowOffset .. rowOffset + n - 1 of B (n = U.rows); column >= 0 selects that column, a
// negative column every column in ascending order. bandWidth <= 0 resolves as in
// Cholesky_factor. Unknowns of dropped pivots (negative diagonal) solve to 0.
#ifndef KELMATRIX_BAND_SUBSTITUTION_H
#define KELMATRIX_BAND_SUBSTITUTION_H

#include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace internal {

/// bandWidth < 1: the matrix's upper band width, and if that is < 1 too, its order.
int resolve_band_width(const KelGenericMatrix& A, int bandWidth);

} // namespace internal
} // namespace kelmatrix

/// Solves U^T y = b in place in B. A negative diagonal (dropped pivot) gives 0; a zero one is
/// divided by.
void Cholesky_forward_subst(KelGenericMatrix& U, int rowOffset, int column, int bandWidth,
                            KelGenericMatrix& B);
/// Solves U x = y in place in B. A diagonal <= 0 gives 0.
void Cholesky_backward_subst(KelGenericMatrix& U, int rowOffset, int column, int bandWidth,
                             KelGenericMatrix& B);

#endif
