// KELMATRIX Python binding: the LAPACK wrappers (dense.h).
// Each function copies its inputs once into the library's matrices, calls the wrapper with the
// GIL released and without a second copy (copyInputs 0 on the private copies), and returns the
// result matrix as a NumPy array without copying. overwrite_<x>=True writes the result (or the
// factor) back into the caller's Fortran-ordered float64 array and returns that array.
#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "bindings.h"

namespace kelpy {

void require_shape(bool ok, const char* name, const char* what, const Array& a)
{
    if (ok)
        return;
    std::string shape = "(";
    for (py::ssize_t k = 0; k < a.ndim(); ++k)
        shape += std::to_string(a.shape(k)) + (a.ndim() == 1      ? ",)"
                                               : k + 1 < a.ndim() ? ", "
                                                                  : ")");
    value_error(name, std::string("expected ") + what + ", got shape " + shape);
}

int square_order(const Array& a, const char* name)
{
    require_shape(a.ndim() == 2 && a.shape(0) == a.shape(1) && a.shape(0) >= 1, name,
                  "a non-empty square matrix", a);
    return dim(a, 0);
}

void require_rows(const Array& b, int n, const char* name, const char* other)
{
    const std::string what = std::string(std::to_string(n)) + " rows (the order of " + other +
                             ") and at least one column";
    require_shape(b.shape(0) == n && (b.ndim() == 1 || b.shape(1) >= 1), name, what.c_str(), b);
}

void factorization_error(const char* routine, int code, const std::string& what)
{
    raise_error("FactorizationError", py::make_tuple(what, routine, code));
}

namespace {

// The result that replaces `b`: written back into the caller's array when overwrite, else the
// library's matrix handed over as it is.
py::object solution(std::unique_ptr<KelMatrix> X, Array& b, bool overwrite)
{
    if (overwrite) {
        copy_out(X->GetElements(), X->GetRowDim(), b);
        return std::move(b);
    }
    return adopt_dense(std::move(X), b.ndim() == 1);
}

std::string info_text(int info, const char* positive)
{
    if (info < 0)
        return "argument " + std::to_string(-info) + " had an illegal value";
    return std::string(positive) + " (info = " + std::to_string(info) + ")";
}

py::object solve(const ArrayLike& a, const ArrayLike& b)
{
    Array A_ = input_array(a, "a", 2, 2), B_ = input_array(b, "b", 1, 2);
    const int n = square_order(A_, "a");
    require_rows(B_, n, "b", "a");
    auto A = dense_copy(A_), B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = Solve(*A, *B, *X);
    }
    if (!ok)
        factorization_error("dgesv", 1, "dgesv: the matrix is exactly singular");
    return solution(std::move(X), B_, false);
}

py::object solve_banded(std::pair<int, int> l_and_u, const ArrayLike& ab, const ArrayLike& b)
{
    const int kl = l_and_u.first, ku = l_and_u.second;
    if (kl < 0 || ku < 0)
        value_error("l_and_u", "band widths must be >= 0");
    Array AB = input_array(ab, "ab", 2, 2), B_ = input_array(b, "b", 1, 2);
    require_shape(AB.shape(0) == kl + ku + 1 && AB.shape(1) >= 1, "ab",
                  "(l + u + 1, n) rows as l_and_u says", AB);
    const int n = dim(AB, 1);
    require_rows(B_, n, "b", "ab");
    KelMatrixBanded A;
    A.Dimension(n, n, kl, ku);
    A.SetZero();                                        // the kl fill-in rows of the LU
    copy_in(AB, A.GetElements() + kl, 2 * kl + ku + 1); // SciPy's rows follow them
    auto B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = Solve(A, *B, *X);
    }
    if (!ok)
        factorization_error("dgbsv", 1, "dgbsv: the band matrix is exactly singular");
    return solution(std::move(X), B_, false);
}

py::object solve_spd(const ArrayLike& a, const ArrayLike& b, bool overwrite_a, bool overwrite_b)
{
    Array A_ = argument(a, "a", overwrite_a, 2, 2), B_ = argument(b, "b", overwrite_b, 1, 2);
    const int n = square_order(A_, "a");
    require_rows(B_, n, "b", "a");
    auto A = dense_copy(A_), B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = SolveSP(*A, *B, *X, 0);
    }
    if (!ok)
        factorization_error("dposv", 1, "dposv: the matrix is not positive definite");
    if (overwrite_a)
        copy_out(A->GetElements(), n, A_);
    return solution(std::move(X), B_, overwrite_b);
}

py::object solveh_banded(const ArrayLike& ab, const ArrayLike& b, bool overwrite_ab,
                         bool overwrite_b, bool lower)
{
    Array AB = argument(ab, "ab", overwrite_ab, 2, 2), B_ = argument(b, "b", overwrite_b, 1, 2);
    band_width(AB, "ab");
    const int n = dim(AB, 1);
    require_rows(B_, n, "b", "ab");
    auto A = upper_band_copy(AB, lower);
    auto B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = SolveBSP(*A, *B, *X, 0);
    }
    if (!ok)
        factorization_error("dpbsv", 1, "dpbsv: the band matrix is not positive definite");
    if (overwrite_ab)
        upper_band_out(*A, lower, AB);
    return solution(std::move(X), B_, overwrite_b);
}

py::object cholesky(const ArrayLike& a, bool overwrite_a)
{
    Array A_ = argument(a, "a", overwrite_a, 2, 2);
    const int n = square_order(A_, "a");
    auto A = dense_copy(A_);
    int info;
    {
        py::gil_scoped_release nogil;
        info = spdMatrixCholeskyFactorization(*A, 0);
    }
    if (info != 0)
        factorization_error("dpotrf", info,
                            "dpotrf: " +
                                info_text(info, "a leading minor is not positive definite"));
    double* u = A->GetElements();
    for (int j = 0; j < n; ++j) // U with zeros below the diagonal, as SciPy returns it
        for (int i = j + 1; i < n; ++i)
            u[static_cast<std::size_t>(n) * j + i] = 0.0;
    if (overwrite_a) {
        copy_out(u, n, A_);
        return std::move(A_);
    }
    return adopt_dense(std::move(A));
}

py::object cho_solve(const ArrayLike& c, const ArrayLike& b, bool overwrite_b)
{
    Array C = input_array(c, "c", 2, 2), B_ = argument(b, "b", overwrite_b, 1, 2);
    const int n = square_order(C, "c");
    require_rows(B_, n, "b", "c");
    auto U = dense_copy(C), B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    int info;
    {
        py::gil_scoped_release nogil;
        info = spdCholeskySubstitute(*U, *B, *X, 0);
    }
    if (info != 0)
        factorization_error("dpotrs", info, "dpotrs: " + info_text(info, "failed"));
    return solution(std::move(X), B_, overwrite_b);
}

py::object cholesky_banded(const ArrayLike& ab, bool overwrite_ab, bool lower)
{
    Array AB = argument(ab, "ab", overwrite_ab, 2, 2);
    band_width(AB, "ab");
    auto A = upper_band_copy(AB, lower);
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = spdBandMatrixCholeskyFactorization(*A, 0);
    }
    if (!ok)
        factorization_error("dpbtrf", 1, "dpbtrf: the band matrix is not positive definite");
    if (overwrite_ab) {
        upper_band_out(*A, lower, AB);
        return std::move(AB);
    }
    return upper_band_result(std::move(A), lower);
}

py::object cho_solve_banded(const ArrayLike& cb, const ArrayLike& b, bool overwrite_b, bool lower)
{
    Array CB = input_array(cb, "cb", 2, 2), B_ = argument(b, "b", overwrite_b, 1, 2);
    band_width(CB, "cb");
    require_rows(B_, dim(CB, 1), "b", "cb");
    auto U = upper_band_copy(CB, lower);
    auto B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = spdBandCholeskySubstitute(*U, *B, *X, 0);
    }
    if (!ok)
        factorization_error("dpbtrs", 1, "dpbtrs: the substitution failed");
    return solution(std::move(X), B_, overwrite_b);
}

py::object cho_inverse(const ArrayLike& c, bool overwrite_c)
{
    Array C = argument(c, "c", overwrite_c, 2, 2);
    const int n = square_order(C, "c");
    auto A = dense_copy(C);
    int info;
    {
        py::gil_scoped_release nogil;
        info = symmPositiveDefiniteInverse(*A, 0);
    }
    if (info != 0)
        factorization_error("dpotri", info,
                            "dpotri: " +
                                info_text(info, "a diagonal element of the factor is zero"));
    if (overwrite_c) {
        copy_out(A->GetElements(), n, C);
        return std::move(C);
    }
    return adopt_dense(std::move(A));
}

py::object solve_triangular_banded(const ArrayLike& ub, const ArrayLike& b, bool trans,
                                   bool overwrite_b)
{
    Array UB = input_array(ub, "ub", 2, 2), B_ = argument(b, "b", overwrite_b, 1, 2);
    band_width(UB, "ub");
    require_rows(B_, dim(UB, 1), "b", "ub");
    auto U = upper_band_copy(UB, false);
    auto B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    int info;
    {
        py::gil_scoped_release nogil;
        info = solveUpperTriangularBandSystem(*U, trans, *B, *X, 0);
    }
    if (info != 0)
        factorization_error("dtbtrs", info,
                            "dtbtrs: " + info_text(info, "a diagonal element is zero"));
    return solution(std::move(X), B_, overwrite_b);
}

py::object lstsq(const ArrayLike& a, const ArrayLike& b)
{
    Array A_ = input_array(a, "a", 2, 2), B_ = input_array(b, "b", 1, 2);
    require_shape(A_.shape(0) >= A_.shape(1) && A_.shape(1) >= 1, "a",
                  "at least as many rows as columns (lstsq_min_norm takes the others)", A_);
    require_rows(B_, dim(A_, 0), "b", "a");
    auto A = dense_copy(A_), B = dense_copy(B_);
    auto X = std::make_unique<KelMatrix>();
    X->Dimension(dim(A_, 1), dim(B_, 1), -1, -1);
    bool ok;
    {
        py::gil_scoped_release nogil;
        ok = SolveLS(*A, *B, *X);
    }
    if (!ok)
        factorization_error("dgels", 1, "dgels: the matrix does not have full rank");
    return adopt_dense(std::move(X), B_.ndim() == 1);
}

py::tuple lstsq_min_norm(const ArrayLike& a, const ArrayLike& b, py::object rcond_)
{
    Array A_ = input_array(a, "a", 2, 2), B_ = input_array(b, "b", 1, 2);
    require_shape(A_.shape(0) >= 1 && A_.shape(1) >= 1, "a", "a non-empty matrix", A_);
    const int m = dim(A_, 0), n = dim(A_, 1), k = dim(B_, 1);
    require_rows(B_, m, "b", "a");
    const double rcond =
        rcond_.is_none() ? std::numeric_limits<double>::epsilon() : rcond_.cast<double>();
    auto X = std::make_unique<KelMatrix>();
    X->Dimension(n, k, -1, -1);
    std::vector<int> jpvt(n);
    int rank = 0;
    bool ok = true;
    // One right-hand side at a time unless A is square: the wrapper moves several right-hand
    // sides as single blocks, which is exact only when rows and columns agree.
    const int per_call = m == n ? k : 1;
    auto A0 = dense_copy(A_), B0 = dense_copy(B_);
    {
        py::gil_scoped_release nogil;
        for (int j0 = 0; ok && j0 < k; j0 += per_call) {
            KelMatrix A, B, Xj;
            A = *A0; // dgelsy overwrites A with its factorization
            B.Dimension(m, per_call, -1, -1);
            const double* b0 = B0->GetElements() + static_cast<std::size_t>(m) * j0;
            std::copy(b0, b0 + static_cast<std::size_t>(m) * per_call, B.GetElements());
            std::fill(jpvt.begin(), jpvt.end(), 0);
            ok = MinNormLeastSquares(A, B, jpvt.data(), rcond, rank, Xj);
            if (ok)
                std::copy(Xj.GetElements(),
                          Xj.GetElements() + static_cast<std::size_t>(n) * per_call,
                          X->GetElements() + static_cast<std::size_t>(n) * j0);
        }
    }
    if (!ok)
        factorization_error("dgelsy", -1, "dgelsy rejected its arguments");
    py::array_t<int> perm(n);
    std::copy(jpvt.begin(), jpvt.end(), perm.mutable_data());
    return py::make_tuple(adopt_dense(std::move(X), B_.ndim() == 1), rank, perm);
}

py::object eigh(const ArrayLike& a, bool eigvals_only, const std::string& driver)
{
    Array A_ = input_array(a, "a", 2, 2);
    const int n = square_order(A_, "a");
    if (driver != "syev" && driver != "spev")
        value_error("driver", "expected 'syev' or 'spev', got '" + driver + "'");
    auto A = dense_copy(A_);
    auto W = std::make_unique<KelMatrix>();
    auto Z = std::make_unique<KelMatrix>();
    W->Dimension(n, 1, -1, -1);
    bool ok;
    int info = 0;
    if (driver == "syev") {
        Z->Dimension(n, n, -1, -1);
        py::gil_scoped_release nogil;
        info = spdmEigenproblem(*A, *W, *Z, 0);
        ok = info == 0;
    } else {
        py::gil_scoped_release nogil;
        ok = EigenValuesS(*A, W->GetElements(), eigvals_only ? nullptr : Z.get(), 0);
    }
    if (!ok)
        factorization_error(
            driver == "syev" ? "dsyev" : "dspev", info == 0 ? 1 : info,
            "d" + driver + ": " +
                info_text(info == 0 ? 1 : info, "the eigenvalues did not converge"));
    py::array w = adopt_dense(std::move(W), true);
    if (eigvals_only)
        return std::move(w);
    return py::make_tuple(w, adopt_dense(std::move(Z)));
}

py::object matmul(const ArrayLike& a, const ArrayLike& b, bool trans_a, bool trans_b, double alpha)
{
    Array A_ = input_array(a, "a", 2, 2), B_ = input_array(b, "b", 2, 2);
    const py::ssize_t inner_a = A_.shape(trans_a ? 0 : 1), inner_b = B_.shape(trans_b ? 1 : 0);
    require_shape(A_.shape(0) >= 1 && A_.shape(1) >= 1, "a", "a non-empty matrix", A_);
    const std::string what = "op(b) with " + std::to_string(inner_a) + " rows (op(a)'s columns)";
    require_shape(inner_b == inner_a && B_.shape(0) >= 1 && B_.shape(1) >= 1, "b", what.c_str(),
                  B_);
    auto A = dense_copy(A_), B = dense_copy(B_);
    auto C = std::make_unique<KelMatrix>();
    {
        py::gil_scoped_release nogil;
        ProductEx(alpha, *A, *B, trans_a, trans_b, 0.0, *C);
    }
    return adopt_dense(std::move(C));
}

py::float_ residual_ratio(const ArrayLike& a, const ArrayLike& x, const ArrayLike& b)
{
    Array A_ = input_array(a, "a", 2, 2), X_ = input_array(x, "x", 1, 2),
          B_ = input_array(b, "b", 1, 2);
    require_shape(A_.shape(0) >= 1 && A_.shape(1) >= 1, "a", "a non-empty matrix", A_);
    require_rows(X_, dim(A_, 1), "x", "a's columns");
    require_shape(B_.shape(0) == A_.shape(0) && dim(B_, 1) == dim(X_, 1), "b",
                  "a's rows and x's columns", B_);
    auto A = dense_view_or_copy(A_), X = dense_view_or_copy(X_), B = dense_view_or_copy(B_);
    double ratio = 0.0;
    int status;
    {
        py::gil_scoped_release nogil;
        status = residualRatio(*A, *X, *B, ratio);
    }
    if (status != KEL_PRODUCT_OK)
        throw py::value_error(std::string("a: ") + KelProduct_message(status));
    return py::float_(ratio);
}

} // namespace

void bind_dense(py::module_& m)
{
    using namespace py::literals;
    m.def("solve", &solve, "a"_a, "b"_a,
          "Solves a x = b for a general square matrix (LAPACK dgesv on private copies).\n\n"
          "b is 1-D (one right-hand side) or 2-D (one per column); x has b's shape. Neither\n"
          "array is changed. Raises FactorizationError when a is exactly singular.");
    m.def("solve_banded", &solve_banded, "l_and_u"_a, "ab"_a, "b"_a,
          "Solves a x = b for a general band matrix (LAPACK dgbsv), SciPy's layout.\n\n"
          "ab has shape (l + u + 1, n) with ab[u + i - j, j] = a[i, j]; it is copied once\n"
          "into the library's band storage (with room for the LU fill-in) and never changed.");
    m.def("solve_spd", &solve_spd, "a"_a, "b"_a, py::kw_only(), "overwrite_a"_a = false,
          "overwrite_b"_a = false,
          "Solves a x = b for a symmetric positive definite a (LAPACK dposv, upper triangle).\n\n"
          "overwrite_a=True writes the Cholesky factor U into a's upper triangle and\n"
          "overwrite_b=True the solution into b (which is returned); both need Fortran-ordered\n"
          "float64 arrays. By default neither array changes.");
    m.def("solveh_banded", &solveh_banded, "ab"_a, "b"_a, py::kw_only(), "overwrite_ab"_a = false,
          "overwrite_b"_a = false, "lower"_a = false,
          "Solves a x = b for a symmetric positive definite band matrix (LAPACK dpbsv).\n\n"
          "ab is SciPy's solveh_banded layout: shape (bw + 1, n), upper form\n"
          "ab[bw + i - j, j] = a[i, j] (i <= j), or lower form ab[i - j, j] = a[i, j] with\n"
          "lower=True; C or Fortran order. overwrite_ab=True leaves the factor in ab (in ab's\n"
          "form), overwrite_b=True the solution in b.");
    m.def("cholesky", &cholesky, "a"_a, py::kw_only(), "overwrite_a"_a = false,
          "Upper Cholesky factor U of a symmetric positive definite a, a = U^T U (LAPACK\n"
          "dpotrf, upper triangle read), with zeros below the diagonal.\n\n"
          "Raises FactorizationError(code=k) when the leading minor of order k is not positive\n"
          "definite. overwrite_a=True writes U into a and returns a.");
    m.def("cho_solve", &cho_solve, "c"_a, "b"_a, py::kw_only(), "overwrite_b"_a = false,
          "Solves U^T U x = b with the factor c = U from cholesky() (LAPACK dpotrs).");
    m.def("cholesky_banded", &cholesky_banded, "ab"_a, py::kw_only(), "overwrite_ab"_a = false,
          "lower"_a = false,
          "Band Cholesky factor by LAPACK dpbtrf, in SciPy's cholesky_banded layout\n"
          "((bw + 1, n), upper form, or lower form with lower=True); the factor comes back in\n"
          "the same form. Raises FactorizationError when a is not positive definite.");
    m.def("cho_solve_banded", &cho_solve_banded, "cb"_a, "b"_a, py::kw_only(),
          "overwrite_b"_a = false, "lower"_a = false,
          "Solves a x = b with the band factor cb from cholesky_banded (LAPACK dpbtrs).");
    m.def("cho_inverse", &cho_inverse, "c"_a, py::kw_only(), "overwrite_c"_a = false,
          "The inverse of a = U^T U from its factor c = U (LAPACK dpotri), both triangles\n"
          "filled and equal bit for bit.");
    m.def("solve_triangular_banded", &solve_triangular_banded, "ub"_a, "b"_a, py::kw_only(),
          "trans"_a = false, "overwrite_b"_a = false,
          "Solves U x = b (or U^T x = b with trans=True) for an upper band U in upper form\n"
          "(bw + 1, n) (LAPACK dtbtrs). Raises FactorizationError(code=k) for a zero diagonal.");
    m.def("lstsq", &lstsq, "a"_a, "b"_a,
          "Full-rank least squares min |a x - b| for m >= n (LAPACK dgels on copies).\n\n"
          "Raises FactorizationError when a is rank deficient; lstsq_min_norm handles that.");
    m.def("lstsq_min_norm", &lstsq_min_norm, "a"_a, "b"_a, "rcond"_a = py::none(),
          "Minimum-norm least squares by complete orthogonal factorization with column\n"
          "pivoting (LAPACK dgelsy), as scipy.linalg.lstsq(lapack_driver='gelsy').\n\n"
          "Returns (x, rank, perm): rank is the effective rank for rcond (default: machine\n"
          "epsilon, SciPy's default for gelsy), perm the 0-based pivot order of the columns.\n"
          "a and b are not changed.");
    m.def("eigh", &eigh, "a"_a, py::kw_only(), "eigvals_only"_a = false, "driver"_a = "syev",
          "Eigenvalues (ascending) and unit eigenvectors (columns) of a symmetric a from its\n"
          "upper triangle: driver='syev' (LAPACK dsyev) or 'spev' (dspev on the packed upper\n"
          "triangle). Returns w, or (w, v) unless eigvals_only.");
    m.def("residual_ratio", &residual_ratio, "a"_a, "x"_a, "b"_a,
          "||b - a x||_1 / (||a||_1 ||x||_1 n eps), sums in a fixed order (residualRatio): of\n"
          "order 1 for a backward-stable solve of a x = b (the library's tests accept ~30).");
    m.def("matmul", &matmul, "a"_a, "b"_a, py::kw_only(), "trans_a"_a = false, "trans_b"_a = false,
          "alpha"_a = 1.0, "alpha * op(a) @ op(b) by BLAS dgemm (op = transpose when asked).");
}

} // namespace kelpy
