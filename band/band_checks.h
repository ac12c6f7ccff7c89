// KELMATRIX native band solver checks (internal)
// The checked library's checks of the band, cyclic and Kronecker Cholesky routines and the
// cyclic solve driver.
//
// Declared only when KELMATRIX_CHECKED is defined (the checked library); band_checks.cpp holds
// them and resolves band widths with the routines' own rules (band_substitution.h).
#ifndef KELMATRIX_BAND_CHECKS_H
#define KELMATRIX_BAND_CHECKS_H

#include "checks/checks.h"

#if defined(KELMATRIX_CHECKED)

#    include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace checks {

void band_cholesky(const char* function, const KelGenericMatrix& A, int bandWidth,
                   const KelGenericMatrix* B);
void cyclic_cholesky(const char* function, const KelGenericMatrix& A, int bandWidth, int m,
                     const KelGenericMatrix* B);
void cyclic_solve(const KelMatrix& A, const KelMatrix& B, int nb, int bandWidth);
void kronecker_solve(const KelMatrixBanded& A, const KelMatrixBanded& B, const KelMatrix& X);
void kronecker_substitution(const char* function, bool upper, int w1, int w2,
                            const KelGenericMatrix& U1, const KelGenericMatrix& U2,
                            const KelMatrix& X);

} // namespace checks
} // namespace kelmatrix

#endif

#endif
