// KELMATRIX Python binding: the native band routines (band.h) and SciPy's band layout.
// Band arrays come in SciPy's solveh_banded/cholesky_banded layout, shape (bw + 1, n), upper
// form ab[bw + i - j, j] = A(i, j), i <= j (or lower form ab[i - j, j] = A(i, j) where asked),
// in C or Fortran order. The upper form is exactly the library's upper symmetric band storage,
// so a result comes back as a view of the library's block; the lower form is copied.
#include <algorithm>
#include <cstring>

#include "bindings.h"

namespace kelpy {

int band_width(const Array& ab, const char* name)
{
    require_shape(ab.ndim() == 2 && ab.shape(0) >= 1 && ab.shape(1) >= 1, name,
                  "a (bw + 1, n) band array", ab);
    return dim(ab, 0) - 1;
}

namespace {

// The index map between the upper form (row r, column j) and the lower form: entry (r, j) of
// the upper form is entry (bw - r, j - bw + r) of the lower form, or outside the matrix when
// that column is negative. The same map serves both directions.
template <class F> void for_band_pairs(int bw, int n, F f)
{
    for (int j = 0; j < n; ++j)
        for (int r = 0; r <= bw; ++r)
            f(r, j, bw - r, j - bw + r);
}

double& at(Array& a, py::ssize_t i, py::ssize_t j)
{
    return *reinterpret_cast<double*>(reinterpret_cast<char*>(a.mutable_data()) + a.strides(0) * i +
                                      a.strides(1) * j);
}

double at(const Array& a, py::ssize_t i, py::ssize_t j)
{
    double v;
    std::memcpy(&v, reinterpret_cast<const char*>(a.data()) + a.strides(0) * i + a.strides(1) * j,
                sizeof v);
    return v;
}

// An upper band copy at least min_bw wide: the native routines read a band width of 0 as "the
// whole order", so a diagonal matrix is held with one zero super-diagonal.
std::unique_ptr<KelMatrixBanded> band_copy(const Array& ab, bool lower, int min_bw)
{
    const int bw0 = dim(ab, 0) - 1, n = dim(ab, 1), bw = std::max(bw0, min_bw);
    auto A = std::make_unique<KelMatrixBanded>();
    A->Dimension(n, n, 0, bw);
    A->SetZero();
    double* e = A->GetElements() + (bw - bw0);
    const int ld = bw + 1;
    if (!lower) {
        copy_in(ab, e, ld);
        return A;
    }
    for_band_pairs(bw0, n, [&](int r, int j, int rl, int jl) {
        e[static_cast<std::size_t>(ld) * j + r] = jl >= 0 ? at(ab, rl, jl) : 0.0;
    });
    return A;
}

} // namespace

std::unique_ptr<KelMatrixBanded> upper_band_copy(const Array& ab, bool lower)
{
    return band_copy(ab, lower, 0);
}

void upper_band_out(const KelMatrixBanded& U, bool lower, Array& ab)
{
    const int bw0 = dim(ab, 0) - 1, n = dim(ab, 1), ld = U.GetUpperBandWidth() + 1;
    const double* e = U.GetElements() + (ld - 1 - bw0);
    if (!lower) {
        copy_out(e, ld, ab);
        return;
    }
    for_band_pairs(bw0, n, [&](int r, int j, int rl, int jl) {
        if (jl >= 0)
            at(ab, rl, jl) = e[static_cast<std::size_t>(ld) * j + r];
    });
}

py::array upper_band_result(std::unique_ptr<KelMatrixBanded> U, bool lower)
{
    const int ld = U->GetUpperBandWidth() + 1, n = U->GetColDim();
    if (!lower) {
        const double* data = U->GetElements();
        return adopt(std::move(U), data, ld, n, false);
    }
    Array out({py::ssize_t(ld), py::ssize_t(n)},
              {py::ssize_t(sizeof(double)), py::ssize_t(sizeof(double)) * ld});
    std::fill(out.mutable_data(), out.mutable_data() + out.size(), 0.0);
    upper_band_out(*U, true, out);
    return std::move(out);
}

namespace {

// A native result in the caller's band width (the padding row of a diagonal matrix dropped).
py::array native_band_result(std::unique_ptr<KelMatrixBanded> U, int bw0, bool lower)
{
    const int ld = U->GetUpperBandWidth() + 1, n = U->GetColDim();
    if (!lower && ld - 1 == bw0) {
        const double* data = U->GetElements();
        return adopt(std::move(U), data, ld, n, false);
    }
    Array out({py::ssize_t(bw0 + 1), py::ssize_t(n)},
              {py::ssize_t(sizeof(double)), py::ssize_t(sizeof(double)) * (bw0 + 1)});
    std::fill(out.mutable_data(), out.mutable_data() + out.size(), 0.0);
    upper_band_out(*U, lower, out);
    return std::move(out);
}

py::object solution(std::unique_ptr<KelMatrix> X, Array& b, bool overwrite)
{
    if (overwrite) // X is a view of b: the call has already worked in b
        return std::move(b);
    return adopt_dense(std::move(X), b.ndim() == 1);
}

// A band operand the call only reads: the caller's array itself when it is an upper form at
// least one super-diagonal wide in Fortran order, else a copy.
std::unique_ptr<KelMatrixBanded> band_operand(const Array& ab, bool lower)
{
    if (!lower && ab.shape(0) >= 2 && in_place_ok(ab))
        return band_view(ab);
    return band_copy(ab, lower, 1);
}

// The right-hand sides a call overwrites: b itself with overwrite_b, else a copy.
std::unique_ptr<KelMatrix> rhs(const Array& b, bool overwrite)
{
    return overwrite ? dense_view(b) : dense_copy(b);
}

py::tuple band_cholesky(const ArrayLike& ab, double tol, bool overwrite_ab, bool lower)
{
    Array AB = argument(ab, "ab", overwrite_ab, 2, 2);
    const int bw0 = band_width(AB, "ab");
    const bool in_place = overwrite_ab && !lower && bw0 >= 1;
    auto A = in_place ? band_view(AB) : band_copy(AB, lower, 1);
    const int bw = A->GetUpperBandWidth();
    int rank;
    {
        py::gil_scoped_release nogil;
        rank = Cholesky_factor(*A, bw, tol);
    }
    if (overwrite_ab) {
        if (!in_place) // the lower form, or a diagonal held one row wider
            upper_band_out(*A, lower, AB);
        return py::make_tuple(AB, rank);
    }
    return py::make_tuple(native_band_result(std::move(A), bw0, lower), rank);
}

py::object band_cholesky_solve(const ArrayLike& ub, const ArrayLike& b, bool overwrite_b,
                               bool lower)
{
    Array UB = input_array(ub, "ub", 2, 2), B_ = argument(b, "b", overwrite_b, 1, 2);
    band_width(UB, "ub");
    require_rows(B_, dim(UB, 1), "b", "ub");
    auto U = band_operand(UB, lower);
    auto B = rhs(B_, overwrite_b);
    {
        py::gil_scoped_release nogil;
        Cholesky_subst(*U, U->GetUpperBandWidth(), *B);
    }
    return solution(std::move(B), B_, overwrite_b);
}

// ---- products and residual ratios over the band ----

// The band operand of a product: symmetric upper form (bw + 1, n), flagged symmetric so the
// accessor mirrors, or a general band in SciPy's solve_banded layout for l_and_u.
std::unique_ptr<KelMatrixBanded> product_band(const Array& ab, const py::object& l_and_u)
{
    if (l_and_u.is_none()) {
        band_width(ab, "ab");
        auto A = in_place_ok(ab) ? band_view(ab) : band_copy(ab, false, 0);
        A->SetSymmetric(true);
        return A;
    }
    auto lu = l_and_u.cast<std::pair<int, int>>();
    const int kl = lu.first, ku = lu.second;
    if (kl < 0 || ku < 0)
        value_error("l_and_u", "band widths must be >= 0");
    require_shape(ab.shape(0) == kl + ku + 1 && ab.shape(1) >= 1, "ab",
                  "(l + u + 1, n) rows as l_and_u says", ab);
    const int n = dim(ab, 1);
    auto A = std::make_unique<KelMatrixBanded>();
    A->Dimension(n, n, kl, ku);
    A->SetZero();
    copy_in(ab, A->GetElements() + kl, 2 * kl + ku + 1);
    return A;
}

py::object band_matmul(const ArrayLike& ab, const ArrayLike& x, py::object l_and_u)
{
    Array AB = input_array(ab, "ab", 2, 2), X_ = input_array(x, "x", 1, 2);
    auto A = product_band(AB, l_and_u);
    require_rows(X_, A->GetColDim(), "x", "ab");
    auto X = dense_view_or_copy(X_);
    auto Y = std::make_unique<KelMatrix>();
    int status;
    {
        py::gil_scoped_release nogil;
        status = multiplyBanded(*A, *X, *Y);
    }
    if (status != KEL_PRODUCT_OK)
        throw py::value_error(std::string("ab: ") + KelProduct_message(status));
    return adopt_dense(std::move(Y), X_.ndim() == 1);
}

py::float_ band_residual_ratio(const ArrayLike& ab, const ArrayLike& x, const ArrayLike& b,
                               py::object l_and_u)
{
    Array AB = input_array(ab, "ab", 2, 2), X_ = input_array(x, "x", 1, 2),
          B_ = input_array(b, "b", 1, 2);
    auto A = product_band(AB, l_and_u);
    require_rows(X_, A->GetColDim(), "x", "ab");
    require_shape(B_.shape(0) == X_.shape(0) && dim(B_, 1) == dim(X_, 1), "b", "x's shape", B_);
    auto X = dense_view_or_copy(X_), B = dense_view_or_copy(B_);
    double ratio = 0.0;
    int status;
    {
        py::gil_scoped_release nogil;
        status = residualRatio(*A, *X, *B, ratio);
    }
    if (status != KEL_PRODUCT_OK)
        throw py::value_error(std::string("ab: ") + KelProduct_message(status));
    return py::float_(ratio);
}

// ---- the bordered matrix ----

struct Bordered {
    KelMatrixBordered A;
    bool factored = false;
    int bw() const { return A.GetUpperBandWidth(); }
    int m() const { return A.GetBorderSize(); }
    int nb() const { return A.GetRowDim() - A.GetBorderSize(); }
};

void bordered_size_error(int status)
{
    raise_error("BorderedSizeError", py::make_tuple(KelMatrixBordered_message(status), status));
}

std::unique_ptr<Bordered> make_bordered(int n, int bw, int m)
{
    auto B = std::make_unique<Bordered>();
    int status;
    {
        py::gil_scoped_release nogil; // zero-fills the block
        status = B->A.DimensionBordered(n, bw, m);
    }
    if (status != KEL_BORDERED_OK)
        bordered_size_error(status);
    return B;
}

py::array view(py::object self, double* data, py::ssize_t rows, py::ssize_t cols)
{
    return py::array(py::dtype::of<double>(), {rows, cols},
                     {py::ssize_t(sizeof(double)), py::ssize_t(sizeof(double)) * rows}, data, self);
}

int pick_bandwidth(const Bordered& B, py::object bandwidth)
{
    if (bandwidth.is_none())
        return std::max(B.bw(), 1);
    const int w = bandwidth.cast<int>();
    if (w < 1 || w > std::max(B.bw(), 1))
        value_error("bandwidth", "expected 1 .. " + std::to_string(std::max(B.bw(), 1)) +
                                     " (the stored half-bandwidth), got " + std::to_string(w));
    return w;
}

int bordered_factor(Bordered& B, double tol, py::object bandwidth)
{
    const int w = pick_bandwidth(B, bandwidth), m = B.m();
    int rank;
    {
        py::gil_scoped_release nogil;
        rank = cyclic_Cholesky_factor(B.A, w, m, tol);
    }
    B.factored = true;
    return rank;
}

py::object bordered_solve(Bordered& B, const ArrayLike& b, bool overwrite_b, py::object bandwidth)
{
    if (!B.factored)
        throw py::value_error("self: solve() needs factor() first");
    Array B_ = argument(b, "b", overwrite_b, 1, 2);
    require_rows(B_, B.A.GetRowDim(), "b", "the matrix");
    const int w = pick_bandwidth(B, bandwidth), m = B.m();
    auto X = rhs(B_, overwrite_b);
    {
        py::gil_scoped_release nogil;
        cyclic_Cholesky_subst(B.A, w, m, *X);
    }
    return solution(std::move(X), B_, overwrite_b);
}

py::object bordered_product(const Bordered& B, const ArrayLike& x, const ArrayLike* b)
{
    Array X_ = input_array(x, "x", 1, 2);
    require_rows(X_, B.A.GetRowDim(), "x", "the matrix");
    auto X = dense_view_or_copy(X_);
    auto Y = std::make_unique<KelMatrix>();
    Array B_;
    std::unique_ptr<KelMatrix> Bm;
    if (b) {
        B_ = input_array(*b, "b", 1, 2);
        require_shape(B_.shape(0) == X_.shape(0) && dim(B_, 1) == dim(X_, 1), "b", "x's shape", B_);
        Bm = dense_view_or_copy(B_);
    }
    double ratio = 0.0;
    int status;
    {
        py::gil_scoped_release nogil;
        status = b ? residualRatio(B.A, *X, *Bm, ratio) : multiplyBordered(B.A, *X, *Y);
    }
    if (status != KEL_PRODUCT_OK)
        throw py::value_error(std::string("self: ") + KelProduct_message(status));
    if (b)
        return py::float_(ratio);
    return adopt_dense(std::move(Y), X_.ndim() == 1);
}

py::array bordered_to_dense(const Bordered& B)
{
    const int n = B.A.GetRowDim();
    auto D = std::make_unique<KelMatrix>();
    D->Dimension(n, n, -1, -1);
    {
        py::gil_scoped_release nogil;
        const KelMatrixBordered& A = B.A;
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                (*D)(i, j) = A(i, j);
    }
    return adopt_dense(std::move(D));
}

std::unique_ptr<Bordered> bordered_from_dense(const ArrayLike& a, int bw, int m)
{
    Array A_ = input_array(a, "a", 2, 2);
    const int n = square_order(A_, "a");
    auto B = make_bordered(n, bw, m);
    const int nb = n - m;
    py::gil_scoped_release nogil; // reads the array's memory only
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            if (j >= nb || j - i <= bw)
                B->A(i, j) = at(A_, i, j);
    return B;
}

// ---- cyclic routines on dense arrays, and the bordered LAPACK driver ----

void check_border(int n, int m, const char* name)
{
    if (m < 0 || m > n)
        value_error(name,
                    "expected 0 <= m <= n = " + std::to_string(n) + ", got " + std::to_string(m));
}

py::tuple cyclic_cholesky(const ArrayLike& a, int bandwidth, int m, double tol, bool overwrite_a)
{
    Array A_ = argument(a, "a", overwrite_a, 2, 2);
    const int n = square_order(A_, "a");
    check_border(n, m, "m");
    if (bandwidth < 1)
        value_error("bandwidth", "expected >= 1");
    auto A = dense_copy(A_);
    int rank;
    {
        py::gil_scoped_release nogil;
        rank = cyclic_Cholesky_factor(*A, bandwidth, m, tol);
    }
    if (overwrite_a) {
        copy_out(A->GetElements(), n, A_);
        return py::make_tuple(A_, rank);
    }
    return py::make_tuple(adopt_dense(std::move(A)), rank);
}

py::object cyclic_cholesky_solve(const ArrayLike& u, const ArrayLike& b, int bandwidth, int m,
                                 bool overwrite_b)
{
    Array U_ = input_array(u, "u", 2, 2), B_ = argument(b, "b", overwrite_b, 1, 2);
    const int n = square_order(U_, "u");
    check_border(n, m, "m");
    if (bandwidth < 1)
        value_error("bandwidth", "expected >= 1");
    require_rows(B_, n, "b", "u");
    auto U = dense_view_or_copy(U_);
    auto X = rhs(B_, overwrite_b);
    {
        py::gil_scoped_release nogil;
        cyclic_Cholesky_subst(*U, bandwidth, m, *X);
    }
    return solution(std::move(X), B_, overwrite_b);
}

py::object solve_bordered(const ArrayLike& a, const ArrayLike& b, int nb, int bandwidth)
{
    Array A_ = input_array(a, "a", 2, 2), B_ = input_array(b, "b", 1, 2);
    const int n = square_order(A_, "a");
    if (nb < 1 || nb >= n)
        value_error("nb", "expected 1 <= nb < n = " + std::to_string(n) +
                              " (a non-empty band "
                              "block and border), got " +
                              std::to_string(nb));
    if (bandwidth < 0)
        value_error("bandwidth", "expected >= 0");
    require_rows(B_, n, "b", "a");
    auto A = dense_copy(A_), B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = SolveBSP_Cyclic(*A, *B, nb, bandwidth, *X);
    }
    if (!ok)
        factorization_error("SolveBSP_Cyclic", 1,
                            "SolveBSP_Cyclic: the band block is not positive definite or the "
                            "Schur complement is indefinite");
    return solution(std::move(X), B_, false);
}

// ---- Kronecker solves ----

py::object solve_kronecker(const ArrayLike& a, const ArrayLike& b, const ArrayLike& x,
                           bool overwrite_x)
{
    Array A_ = input_array(a, "a", 2, 2), B_ = input_array(b, "b", 2, 2);
    Array X_ = argument(x, "x", overwrite_x, 1, 2);
    band_width(A_, "a");
    band_width(B_, "b");
    const int p = dim(A_, 1), q = dim(B_, 1);
    if (X_.ndim() == 1)
        require_shape(X_.shape(0) == py::ssize_t(p) * q, "x", "length p q (a's order times b's)",
                      X_);
    else
        require_shape(X_.shape(0) == q && X_.shape(1) >= p && X_.shape(1) % p == 0, "x",
                      "(q, m p): b's order of rows, whole groups of a's order of columns", X_);
    auto A = upper_band_copy(A_, false), B = upper_band_copy(B_, false);
    auto X = std::make_unique<KelMatrix>();
    const int cols = X_.ndim() == 1 ? p : dim(X_, 1);
    X->Dimension(q, cols, -1, -1);
    copy_in(X_, X->GetElements(), X_.ndim() == 1 ? p * q : q);
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = Solve_Kronecker(*A, *B, *X, false);
    }
    if (!ok)
        factorization_error("Solve_Kronecker", 1,
                            "Solve_Kronecker: a or b is not positive definite");
    if (overwrite_x) {
        if (X_.ndim() == 1)
            std::memcpy(X_.mutable_data(), X->GetElements(), sizeof(double) * p * q);
        else
            copy_out(X->GetElements(), q, X_);
        return std::move(X_);
    }
    if (X_.ndim() == 1) {
        const double* data = X->GetElements();
        return adopt(std::move(X), data, py::ssize_t(p) * q, 1, true);
    }
    return adopt_dense(std::move(X));
}

enum class Pass { lower, upper, both };

py::object kron_substitute(const ArrayLike& u1, const ArrayLike& u2, const ArrayLike& x,
                           bool overwrite_x, Pass pass)
{
    Array U1_ = input_array(u1, "u1", 2, 2), U2_ = input_array(u2, "u2", 2, 2);
    Array X_ = argument(x, "x", overwrite_x, 1, 2);
    band_width(U1_, "u1");
    band_width(U2_, "u2");
    const int p = dim(U1_, 1), q = dim(U2_, 1);
    const std::string what = std::to_string(py::ssize_t(p) * q) + " rows (u1's order times u2's)";
    require_shape(X_.shape(0) == py::ssize_t(p) * q && (X_.ndim() == 1 || X_.shape(1) >= 1), "x",
                  what.c_str(), X_);
    auto U1 = band_operand(U1_, false), U2 = band_operand(U2_, false);
    auto X = rhs(X_, overwrite_x);
    {
        py::gil_scoped_release nogil;
        const int w1 = U1->GetUpperBandWidth(), w2 = U2->GetUpperBandWidth();
        if (pass != Pass::upper)
            kronecker_lower_substitute(w1, w2, *U1, *U2, *X);
        if (pass != Pass::lower)
            kronecker_upper_substitute(w1, w2, *U1, *U2, *X);
    }
    return solution(std::move(X), X_, overwrite_x);
}

} // namespace

void bind_band(py::module_& m)
{
    using namespace py::literals;
    m.def("band_cholesky", &band_cholesky, "ab"_a, "tol"_a, py::kw_only(), "overwrite_ab"_a = false,
          "lower"_a = false,
          "The library's band Cholesky a = U^T U with dropped pivots; returns (u, rank).\n\n"
          "ab is SciPy's cholesky_banded layout ((bw + 1, n), upper form, or lower form with\n"
          "lower=True), C or Fortran order; u comes back in the same form. It never fails: a\n"
          "pivot d < tol (tested before the square root) is dropped, its diagonal becomes\n"
          "-1.0 and its unknown solves to 0, so rank counts the accepted pivots. Choose tol\n"
          "relative to the matrix, e.g. 1e-10 * max(diag). overwrite_ab=True leaves u in ab.");
    m.def("band_cholesky_solve", &band_cholesky_solve, "ub"_a, "b"_a, py::kw_only(),
          "overwrite_b"_a = false, "lower"_a = false,
          "Solves a x = b with u from band_cholesky (forward, then backward substitution);\n"
          "unknowns of dropped pivots are 0.");

    py::class_<Bordered>(m, "BorderedMatrix", R"doc(
Symmetric bordered band matrix of order n: a leading band block of order nb = n - m and
half-bandwidth bw, and m trailing dense rows and columns (a cyclic band matrix with its
wrap-around unknowns last), in the library's own storage.

The attributes band, border and corner are writeable NumPy views of that storage (they keep the
matrix alive): band is (bw + 1, nb) in SciPy's upper band form, border the (nb, m) block A12,
corner the (m, m) block A22 whose upper triangle is used. factor() works on them in place and
solve() then solves with the factor.)doc")
        .def(py::init(&make_bordered), "n"_a, "bw"_a, "m"_a,
             "A zero matrix of order n, half-bandwidth bw and border m. Raises\n"
             "BorderedSizeError (a ValueError) with the library's status for sizes it cannot\n"
             "hold (a negative size, m > n, more than 2^31 - 1 doubles).")
        .def_static("from_dense", &bordered_from_dense, "a"_a, "bw"_a, "m"_a,
                    "A bordered matrix holding the pattern of the symmetric array a (its upper\n"
                    "triangle is read).")
        .def_property_readonly("n", [](const Bordered& B) { return B.A.GetRowDim(); })
        .def_property_readonly("bw", &Bordered::bw)
        .def_property_readonly("m", &Bordered::m)
        .def_property_readonly(
            "factored", [](const Bordered& B) { return B.factored; },
            "True after factor(): the views then hold the factor.")
        .def_property_readonly(
            "band",
            [](py::object self) {
                Bordered& B = self.cast<Bordered&>();
                return view(self, B.A.GetElements(), B.bw() + 1, B.nb());
            },
            "Writeable (bw + 1, nb) view of the band block, upper form.")
        .def_property_readonly(
            "border",
            [](py::object self) {
                Bordered& B = self.cast<Bordered&>();
                return view(self, B.A.GetElements() + std::size_t(B.nb()) * (B.bw() + 1), B.nb(),
                            B.m());
            },
            "Writeable (nb, m) view of the border A12.")
        .def_property_readonly(
            "corner",
            [](py::object self) {
                Bordered& B = self.cast<Bordered&>();
                return view(self, B.A.GetElements() + std::size_t(B.nb()) * (B.bw() + 1 + B.m()),
                            B.m(), B.m());
            },
            "Writeable (m, m) view of the corner A22 (upper triangle used).")
        .def("factor", &bordered_factor, "tol"_a, "bandwidth"_a = py::none(),
             "Factors in place by the cyclic band Cholesky (dropped pivots as band_cholesky).\n\n"
             "Returns the count of accepted pivots of the m x m Schur complement only (the band\n"
             "block's dropped pivots show as -1.0 on band[bw])). bandwidth: 1 .. bw, default bw.")
        .def("solve", &bordered_solve, "b"_a, py::kw_only(), "overwrite_b"_a = false,
             "bandwidth"_a = py::none(),
             "Solves a x = b with the factor left by factor(); the matrix is not changed.")
        .def("to_dense", &bordered_to_dense, "The whole symmetric matrix as an (n, n) array.")
        .def(
            "matmul",
            [](const Bordered& B, const ArrayLike& x) { return bordered_product(B, x, nullptr); },
            "x"_a,
            "A @ x for the whole symmetric matrix (multiplyBordered); before factor(), or on a\n"
            "copy() kept from before it.")
        .def(
            "residual_ratio",
            [](const Bordered& B, const ArrayLike& x, const ArrayLike& b) {
                return bordered_product(B, x, &b);
            },
            "x"_a, "b"_a,
            "||b - A x||_1 / (||A||_1 ||x||_1 n eps) (residualRatio): of order 1 for a\n"
            "backward-stable solve. A is what the views hold now, so keep a copy() to check a\n"
            "solve made with the factor.")
        .def(
            "copy",
            [](const Bordered& B) {
                auto C = std::make_unique<Bordered>();
                C->A = B.A; // the library's deep copy
                C->factored = B.factored;
                return C;
            },
            "A deep copy in storage of its own (views of it are new arrays).");

    m.def("cyclic_cholesky", &cyclic_cholesky, "a"_a, "bandwidth"_a, "m"_a, "tol"_a, py::kw_only(),
          "overwrite_a"_a = false,
          "The cyclic band Cholesky of a dense symmetric array whose leading n - m block is a\n"
          "band of half-bandwidth bandwidth and whose last m rows and columns are dense.\n"
          "Returns (u, rank of the Schur complement); u holds U11, W and U22 in the upper\n"
          "triangle (the lower triangle is copied unchanged).");
    m.def("cyclic_cholesky_solve", &cyclic_cholesky_solve, "u"_a, "b"_a, "bandwidth"_a, "m"_a,
          py::kw_only(), "overwrite_b"_a = false,
          "Solves a x = b with u from cyclic_cholesky (same bandwidth and m).");
    m.def("solve_bordered", &solve_bordered, "a"_a, "b"_a, "nb"_a, "bandwidth"_a,
          "Solves a symmetric bordered band system through a Schur complement over LAPACK\n"
          "(dpbtrf, dpbtrs, dposv): band block of order nb with half-bandwidth bandwidth // 2\n"
          "(bandwidth is the total width, as the library takes it), border n - nb >= 1. A\n"
          "negative definite Schur complement is negated first, so saddle points (corner 0)\n"
          "are solved. a and b are not changed.");
    m.def("band_matmul", &band_matmul, "ab"_a, "x"_a, py::kw_only(), "l_and_u"_a = py::none(),
          "a @ x over a band matrix (multiplyBanded, sums in a fixed order): the symmetric a\n"
          "whose upper form is ab ((bw + 1, n), SciPy's solveh_banded layout), or with\n"
          "l_and_u=(l, u) the general band a in solve_banded's layout.");
    m.def("band_residual_ratio", &band_residual_ratio, "ab"_a, "x"_a, "b"_a, py::kw_only(),
          "l_and_u"_a = py::none(),
          "||b - a x||_1 / (||a||_1 ||x||_1 n eps) over a band matrix given as for band_matmul:\n"
          "of order 1 for a backward-stable solve.");
    m.def("solve_kronecker", &solve_kronecker, "a"_a, "b"_a, "x"_a, py::kw_only(),
          "overwrite_x"_a = false,
          "Solves (a kron b) y = x without forming the product (two LAPACK band solves).\n\n"
          "a (p x p) and b (q x q) are SPD in upper band form (bw + 1, order). x is either 1-D\n"
          "of length p q (p blocks of q entries), or (q, m p): m groups of p columns, each read\n"
          "column-major as one right-hand side, each replaced by b^-1 X_k a^-1.");
    m.def(
        "kron_lower_substitute",
        [](const ArrayLike& u1, const ArrayLike& u2, const ArrayLike& x, bool ow) {
            return kron_substitute(u1, u2, x, ow, Pass::lower);
        },
        "u1"_a, "u2"_a, "x"_a, py::kw_only(), "overwrite_x"_a = false,
        "Solves (u1 kron u2)^T y = x for every column of x (p q rows, block i = rows\n"
        "i q .. i q + q - 1), with u1, u2 upper band factors from band_cholesky. A dropped pivot\n"
        "of u1 zeroes its block.");
    m.def(
        "kron_upper_substitute",
        [](const ArrayLike& u1, const ArrayLike& u2, const ArrayLike& x, bool ow) {
            return kron_substitute(u1, u2, x, ow, Pass::upper);
        },
        "u1"_a, "u2"_a, "x"_a, py::kw_only(), "overwrite_x"_a = false,
        "Solves (u1 kron u2) y = x, blocks in descending order (see kron_lower_substitute).");
    m.def(
        "kron_cholesky_solve",
        [](const ArrayLike& u1, const ArrayLike& u2, const ArrayLike& x, bool ow) {
            return kron_substitute(u1, u2, x, ow, Pass::both);
        },
        "u1"_a, "u2"_a, "x"_a, py::kw_only(), "overwrite_x"_a = false,
        "Solves (a1 kron a2) y = x with a1 = u1^T u1 and a2 = u2^T u2: the lower, then the\n"
        "upper Kronecker substitution in one call.");
}

} // namespace kelpy
