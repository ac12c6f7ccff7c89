// KELMATRIX band substitution (internal)
// The forward and backward passes of the band Cholesky on a row range of a right-hand side.
//
// The one substitution interface of the band, cyclic and Kronecker code; defined with the band
// Cholesky (band_cholesky.cpp), whose algorithms they are. Each takes the direct route when
// direct_substitution allows it and otherwise runs the loops through the element accessor,
// one column after the other.
#ifndef KELMATRIX_BAND_SUBSTITUTION_H
#define KELMATRIX_BAND_SUBSTITUTION_H

#include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace internal {

/// bandWidth < 1: the matrix's upper band width, and if that is < 1 too, its order.
int resolve_band_width(const KelGenericMatrix& A, int bandWidth);

/// U^T y = b with the factor U of Cholesky_factor (n = U.rows, width bw used as given), in
/// place in rows off .. off + n - 1 of columns c_begin .. c_end - 1 of B. The unknown of a
/// negative diagonal (dropped pivot) is 0; a zero diagonal is divided by.
void forward_substitute(KelGenericMatrix& U, int bw, KelGenericMatrix& B, int off, int c_begin,
                        int c_end);
/// U x = y, as forward_substitute; the unknown of a diagonal <= 0 is 0.
void backward_substitute(KelGenericMatrix& U, int bw, KelGenericMatrix& B, int off, int c_begin,
                         int c_end);

} // namespace internal
} // namespace kelmatrix

#endif
