// KELMATRIX Python binding: arrays in and out
// The one place where NumPy arrays meet the library's matrices. Inputs are copied once into the
// library's aligned storage (so the library's own types, and with them its fast routes, always
// serve the call); a strided or C-ordered array is read element by element through its strides,
// never as if it were contiguous. Results are handed to NumPy without a copy: the array views
// the result matrix's block, and a capsule owning the matrix is the array's base.
#ifndef KELMATRIX_PYTHON_ARRAYS_H
#define KELMATRIX_PYTHON_ARRAYS_H

#include <memory>
#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "kelmatrix/kelmatrix.h"

namespace py = pybind11;

namespace kelpy {

using Array = py::array_t<double, py::array::forcecast>;

/// An argument taken as any array-like and checked by the function itself (so the signature in
/// help() reads numpy.typing.ArrayLike, and no conversion happens before the check).
struct ArrayLike {
    py::object obj;
    operator py::handle() const { return obj; }
};

/// Raises kelmatrix._errors.<cls>(*args).
[[noreturn]] void raise_error(const char* cls, const py::tuple& args);
/// Raises ValueError("<name>: <what>").
[[noreturn]] void value_error(const char* name, const std::string& what);

/// A read-only input: any real array-like as a float64 array with min_ndim..max_ndim
/// dimensions (a converted copy only when the dtype differs). Complex, object and string data,
/// and other dimension counts, raise ValueError naming the argument.
Array input_array(const py::handle& obj, const char* name, int min_ndim, int max_ndim);
/// An argument worked on in place (overwrite_<name>=True): a float64, Fortran-contiguous,
/// writeable ndarray of min_ndim..max_ndim dimensions, else ValueError naming what is missing.
/// Never converted: a converted copy would silently not be overwritten.
Array inplace_array(const py::handle& obj, const char* name, int min_ndim, int max_ndim);
/// input_array or inplace_array, as overwrite says.
Array argument(const py::handle& obj, const char* name, bool overwrite, int min_ndim, int max_ndim);

/// An array dimension as the library's int (1 for a missing second axis); the size check of
/// input_array has made it fit.
int dim(const Array& a, int axis, const char* name = "");

/// Copies a 1-D (as one column) or 2-D array, whatever its strides, into dst with leading
/// dimension ld.
void copy_in(const Array& a, double* dst, int ld);
/// Copies rows x cols from src (leading dimension ld) into a, whatever its strides.
void copy_out(const double* src, int ld, Array& a);

using IntArray = py::array_t<int, 0>;
/// An int32 index array as the sparse solvers read it: C-contiguous and exactly int32 (the
/// Python layer converts and range-checks other integer types first), else ValueError.
IntArray index_array(const ArrayLike& obj, const char* name);
/// A copy of nnz values (one per stored entry), else ValueError naming the argument.
std::vector<double> values_of(const ArrayLike& a, py::ssize_t nnz, const char* name);

/// A fresh dense matrix holding a copy of a (1-D: one column).
std::unique_ptr<KelMatrix> dense_copy(const Array& a);

/// True when a can be used where it lies: float64 and Fortran-contiguous (1-D: unit stride).
bool in_place_ok(const Array& a);
/// A plain KelMatrix over a's own memory (in_place_ok(a) must hold), without a copy: a type
/// derived from the matrix gives itself a's shape and element pointer, and Swap hands those to
/// a plain KelMatrix, which thereby never allocated and releases nothing. Being a KelMatrix
/// itself, it takes the library's direct routes. a must outlive it.
std::unique_ptr<KelMatrix> dense_view(const Array& a);
/// The same as an upper band matrix (kl = 0, ku = rows - 1) over a (bw + 1, n) array.
std::unique_ptr<KelMatrixBanded> band_view(const Array& ab);
/// dense_view when in_place_ok, else dense_copy: for inputs the call only reads, and for
/// in-place arguments checked by inplace_array.
std::unique_ptr<KelMatrix> dense_view_or_copy(const Array& a);

/// A NumPy array of the given shape (1-D, or 2-D in Fortran order with leading dimension
/// shape[0]) over data, which lives in owner's block; the array takes ownership of owner.
template <class M>
py::array adopt(std::unique_ptr<M> owner, const double* data, py::ssize_t rows, py::ssize_t cols,
                bool as_vector)
{
    py::capsule base(owner.get(), [](void* p) { delete static_cast<M*>(p); });
    owner.release();
    if (as_vector)
        return py::array(py::dtype::of<double>(), {rows}, {py::ssize_t(sizeof(double))}, data,
                         base);
    return py::array(py::dtype::of<double>(), {rows, cols},
                     {py::ssize_t(sizeof(double)), py::ssize_t(sizeof(double)) * rows}, data, base);
}

/// A dense matrix result as a NumPy array (1-D when as_vector), without a copy.
py::array adopt_dense(std::unique_ptr<KelMatrix> m, bool as_vector = false);

} // namespace kelpy

namespace pybind11 {
namespace detail {
template <> struct type_caster<kelpy::ArrayLike> {
    PYBIND11_TYPE_CASTER(kelpy::ArrayLike, const_name("numpy.typing.ArrayLike"));
    bool load(handle src, bool)
    {
        value.obj = reinterpret_borrow<object>(src);
        return true;
    }
    static handle cast(const kelpy::ArrayLike& v, return_value_policy, handle)
    {
        return v.obj.inc_ref();
    }
};
} // namespace detail
} // namespace pybind11

#endif
