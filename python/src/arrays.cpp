// KELMATRIX Python binding: arrays in and out (see arrays.h).
#include "arrays.h"

#include <climits>
#include <cstring>
#include <optional>

namespace kelpy {

void raise_error(const char* cls, const py::tuple& args)
{
    py::object type = py::module_::import("kelmatrix._errors").attr(cls);
    py::object value = type(*args);
    PyErr_SetObject(type.ptr(), value.ptr());
    throw py::error_already_set();
}

void value_error(const char* name, const std::string& what)
{
    throw py::value_error(std::string(name) + ": " + what);
}

namespace {

void check_ndim(const py::array& a, const char* name, int min_ndim, int max_ndim)
{
    if (a.ndim() < min_ndim || a.ndim() > max_ndim) {
        std::string want = min_ndim == max_ndim ? std::to_string(min_ndim) + "-D"
                                                : std::to_string(min_ndim) + "-D or " +
                                                      std::to_string(max_ndim) + "-D";
        value_error(name, "expected a " + want + " array, got " + std::to_string(a.ndim()) + "-D");
    }
}

// The library counts storage in int: larger arrays cannot be handed to it.
void check_size(const py::array& a, const char* name)
{
    if (a.size() > INT_MAX) {
        PyErr_SetString(PyExc_OverflowError,
                        (std::string(name) + ": more than 2^31 - 1 elements").c_str());
        throw py::error_already_set();
    }
}

} // namespace

Array input_array(const py::handle& obj, const char* name, int min_ndim, int max_ndim)
{
    py::array raw = py::array::ensure(obj);
    if (!raw)
        value_error(name, "expected an array of real numbers");
    const char kind = raw.dtype().kind();
    if (kind != 'f' && kind != 'i' && kind != 'u' && kind != 'b')
        value_error(name, std::string("expected real numbers, got dtype ") +
                              py::str(raw.dtype()).cast<std::string>());
    check_ndim(raw, name, min_ndim, max_ndim);
    check_size(raw, name);
    return Array::ensure(raw); // a copy only when the dtype is not float64
}

Array inplace_array(const py::handle& obj, const char* name, int min_ndim, int max_ndim)
{
    std::string flag = std::string("overwrite_") + name + "=True";
    if (!py::isinstance<py::array>(obj))
        value_error(name, flag + " needs a numpy.ndarray");
    py::array raw = py::reinterpret_borrow<py::array>(obj);
    if (!raw.dtype().is(py::dtype::of<double>()))
        value_error(name,
                    flag + " needs dtype float64, got " + py::str(raw.dtype()).cast<std::string>());
    check_ndim(raw, name, min_ndim, max_ndim);
    check_size(raw, name);
    if (!(raw.flags() & py::array::f_style))
        value_error(name, flag + " needs a Fortran-contiguous array (numpy.asfortranarray)");
    if (!raw.writeable())
        value_error(name, flag + " needs a writeable array");
    return py::reinterpret_borrow<Array>(raw);
}

Array argument(const py::handle& obj, const char* name, bool overwrite, int min_ndim, int max_ndim)
{
    return overwrite ? inplace_array(obj, name, min_ndim, max_ndim)
                     : input_array(obj, name, min_ndim, max_ndim);
}

int dim(const Array& a, int axis, const char*)
{
    return static_cast<int>(axis < a.ndim() ? a.shape(axis) : 1);
}

// Large copies run without the GIL, so that other Python threads' calls overlap them too; they
// touch only the array's memory, which the caller's reference keeps alive.
constexpr py::ssize_t kCopyWithoutGil = 1 << 15;

void copy_in(const Array& a, double* dst, int ld)
{
    const py::ssize_t rows = a.shape(0), cols = a.ndim() == 2 ? a.shape(1) : 1;
    const py::ssize_t s0 = a.strides(0), s1 = a.ndim() == 2 ? a.strides(1) : 0;
    const char* base = reinterpret_cast<const char*>(a.data());
    std::optional<py::gil_scoped_release> nogil;
    if (rows * cols >= kCopyWithoutGil)
        nogil.emplace();
    for (py::ssize_t j = 0; j < cols; ++j) {
        double* col = dst + static_cast<std::size_t>(ld) * j;
        const char* src = base + s1 * j;
        if (s0 == sizeof(double)) {
            std::memcpy(col, src, sizeof(double) * rows);
            continue;
        }
        for (py::ssize_t i = 0; i < rows; ++i)
            std::memcpy(col + i, src + s0 * i, sizeof(double));
    }
}

void copy_out(const double* src, int ld, Array& a)
{
    const py::ssize_t rows = a.shape(0), cols = a.ndim() == 2 ? a.shape(1) : 1;
    const py::ssize_t s0 = a.strides(0), s1 = a.ndim() == 2 ? a.strides(1) : 0;
    char* base = reinterpret_cast<char*>(a.mutable_data());
    std::optional<py::gil_scoped_release> nogil;
    if (rows * cols >= kCopyWithoutGil)
        nogil.emplace();
    for (py::ssize_t j = 0; j < cols; ++j)
        for (py::ssize_t i = 0; i < rows; ++i)
            std::memcpy(base + s0 * i + s1 * j, src + static_cast<std::size_t>(ld) * j + i,
                        sizeof(double));
}

std::unique_ptr<KelMatrix> dense_copy(const Array& a)
{
    auto m = std::make_unique<KelMatrix>();
    const int rows = static_cast<int>(a.shape(0));
    const int cols = a.ndim() == 2 ? static_cast<int>(a.shape(1)) : 1;
    m->Dimension(rows, cols, -1, -1);
    copy_in(a, m->GetElements(), rows);
    return m;
}

namespace {

// Gives itself the shape and element pointer of caller memory; see dense_view.
template <class M> struct Borrowed : M {
    Borrowed(double* p, int rows, int cols, int bw)
    {
        this->rowDim = rows;
        this->colDim = cols;
        this->elements = p;
        this->storageSize = (bw < 0 ? rows : bw + 1) * cols;
        if (bw >= 0) {
            this->lowerBandWidth = 0;
            this->upperBandWidth = bw;
            this->banded = 1;
        }
    }
    ~Borrowed() override { this->elements = nullptr; } // never the owner of any block
};

} // namespace

bool in_place_ok(const Array& a)
{
    return (a.flags() & py::array::f_style) && a.size() > 0;
}

std::unique_ptr<KelMatrix> dense_view(const Array& a)
{
    Borrowed<KelMatrix> b(const_cast<double*>(a.data()), dim(a, 0), dim(a, 1), -1);
    auto m = std::make_unique<KelMatrix>();
    m->Swap(b); // m: a's pointer and shape; b: m's empty state; neither allocated anything
    return m;
}

std::unique_ptr<KelMatrixBanded> band_view(const Array& ab)
{
    const int n = dim(ab, 1);
    Borrowed<KelMatrixBanded> b(const_cast<double*>(ab.data()), n, n, dim(ab, 0) - 1);
    auto m = std::make_unique<KelMatrixBanded>();
    m->Swap(b);
    return m;
}

std::unique_ptr<KelMatrix> dense_view_or_copy(const Array& a)
{
    return in_place_ok(a) ? dense_view(a) : dense_copy(a);
}

py::array adopt_dense(std::unique_ptr<KelMatrix> m, bool as_vector)
{
    const py::ssize_t rows = m->GetRowDim(), cols = m->GetColDim();
    const double* data = m->GetElements();
    return adopt(std::move(m), data, rows, cols, as_vector);
}

IntArray index_array(const ArrayLike& obj, const char* name)
{
    if (!py::isinstance<py::array>(obj))
        value_error(name, "expected a numpy.ndarray of int32");
    py::array raw = py::reinterpret_borrow<py::array>(obj);
    if (!raw.dtype().is(py::dtype::of<int>()))
        value_error(name, "expected dtype int32, got " + py::str(raw.dtype()).cast<std::string>());
    if (raw.ndim() != 1 || !(raw.flags() & py::array::c_style))
        value_error(name, "expected a contiguous 1-D array");
    return py::reinterpret_borrow<IntArray>(raw);
}

std::vector<double> values_of(const ArrayLike& a, py::ssize_t nnz, const char* name)
{
    Array A = input_array(a, name, 1, 1);
    if (A.shape(0) != nnz)
        value_error(name, "expected " + std::to_string(nnz) +
                              " values (one per stored entry), got " + std::to_string(A.shape(0)));
    std::vector<double> v(static_cast<std::size_t>(nnz));
    if (nnz > 0)
        copy_in(A, v.data(), static_cast<int>(nnz));
    return v;
}

} // namespace kelpy
