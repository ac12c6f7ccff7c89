// KELMATRIX container checks (internal)
// The checked library's checks of the matrix classes, the sparse vector and the misalignment.
//
// Declared only when KELMATRIX_CHECKED is defined (the checked library); matrix_checks.cpp holds
// them. share_storage is the containers' own rule of aliasing, which the algorithm layers'
// checks ask instead of comparing arrays themselves.
#ifndef KELMATRIX_MATRIX_CHECKS_H
#define KELMATRIX_MATRIX_CHECKS_H

#include "checks/checks.h"

#if defined(KELMATRIX_CHECKED)

#    include "kelmatrix/matrix.h"

namespace kelmatrix {
namespace checks {

/// Whether a and b are one object or hand their routines one element array.
bool share_storage(const KelGenericMatrix& a, const KelGenericMatrix& b);

void misalignment(int bytes);
void element(const char* function, const KelGenericMatrix& m, int i, int j);
void band_element(const char* function, const KelGenericMatrix& m, int i, int j);
void packed_element(const char* function, const KelGenericMatrix& m, int i, int j);
void dimension(const char* function, int rows, int cols);
void band_dimension(int rows, int cols, int kl, int ku);
void packed_dimension(int rows, int cols);
void assignment(const KelMatrix& target, const KelMatrix& src);
void from_packed(const KelGenericMatrix& src);
void from_band(const KelGenericMatrix& src);
void sparse_dimension(int n, unsigned int dim);
void sparse_array(const char* function, const char* name, const void* array, unsigned int count);

} // namespace checks
} // namespace kelmatrix

#endif

#endif
