// KELMATRIX Python binding: the registration functions of each family and their shared checks.
#ifndef KELMATRIX_PYTHON_BINDINGS_H
#define KELMATRIX_PYTHON_BINDINGS_H

#include <string>

#include "arrays.h"

namespace kelpy {

void bind_dense(py::module_& m);
void bind_band(py::module_& m);
void bind_sparse(py::module_& m);

/// ValueError("<name>: expected <what>, got shape (..)") unless ok.
void require_shape(bool ok, const char* name, const char* what, const Array& a);
/// A square 2-D array of order >= 1; returns the order.
int square_order(const Array& a, const char* name);
/// b with n rows (1-D of length n, or 2-D n x k), k >= 1.
void require_rows(const Array& b, int n, const char* name, const char* other);
/// A (bw + 1, n) band array with n >= 1; returns bw.
int band_width(const Array& ab, const char* name);
/// A fresh upper band matrix (kl = 0, ku = bw) of order n from a SciPy-layout band array:
/// upper form ab[bw + i - j, j] = A(i, j), or lower form ab[i - j, j] = A(i, j), i >= j.
std::unique_ptr<KelMatrixBanded> upper_band_copy(const Array& ab, bool lower);
/// Writes the upper band matrix back into ab in its form (upper or lower, see above).
void upper_band_out(const KelMatrixBanded& U, bool lower, Array& ab);
/// The upper band matrix as a NumPy (bw + 1, n) array: a view of its block in upper form, or
/// a new array in lower form.
py::array upper_band_result(std::unique_ptr<KelMatrixBanded> U, bool lower);
/// kelmatrix._errors.FactorizationError(message, routine, code).
[[noreturn]] void factorization_error(const char* routine, int code, const std::string& what);

} // namespace kelpy

#endif
