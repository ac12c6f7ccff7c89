// KELMATRIX dense algebra checks
// The checks of the products, solves, Cholesky family, least squares and eigenproblems.
//
// Each reads the dimensions as its function reads them (the order from A.cols or A.rows as the
// function takes it) and requires what the LAPACK or BLAS call and the copies around it need:
// square matrices, right-hand sides of the order's row count, upper band storage (kl = 0) for
// the symmetric band routines, the caller-made shapes of outputs that are not re-dimensioned,
// and separate storage where a routine would read an array it is writing (the in-place paths
// of copyInputs, a product accumulated into an operand).
#if defined(KELMATRIX_CHECKED)

#    include <algorithm>
#    include <cstring>

#    include "dense/dense_checks.h"
#    include "matrix/matrix_checks.h"

namespace kelmatrix {
namespace checks {

namespace {

void square(const char* function, const char* condition, const KelGenericMatrix& A)
{
    require(A.GetRowDim() == A.GetColDim(), function, condition, "rows = %d, cols = %d",
            A.GetRowDim(), A.GetColDim());
}

void rows_equal(const char* function, const char* condition, const KelGenericMatrix& B, int order)
{
    require(B.GetRowDim() == order, function, condition, "order = %d, B.rows = %d", order,
            B.GetRowDim());
}

void upper_band(const char* function, const KelMatrixBanded& A)
{
    require(A.GetLowerBandWidth() == 0 && A.GetUpperBandWidth() >= 0, function,
            "kl == 0 and ku >= 0 (upper band storage)", "kl = %d, ku = %d", A.GetLowerBandWidth(),
            A.GetUpperBandWidth());
}

void separate(const char* function, const char* condition, const KelGenericMatrix& a,
              const KelGenericMatrix& b, bool needed)
{
    require(!needed || !share_storage(a, b), function, condition, "one array at %p",
            static_cast<const void*>(a.GetElements()));
}

bool is_trans(const char* t, const char* allowed)
{
    return t != nullptr && *t != '\0' && std::strchr(allowed, *t) != nullptr;
}

} // namespace

void product(const char* function, const KelMatrix& A, const KelMatrix& B, bool transA, bool transB,
             double beta, const KelMatrix& C)
{
    const int m = transA ? A.GetColDim() : A.GetRowDim();
    const int k = transA ? A.GetRowDim() : A.GetColDim();
    const int kb = transB ? B.GetColDim() : B.GetRowDim();
    const int n = transB ? B.GetRowDim() : B.GetColDim();
    require(k == kb, function, "op(A).cols == op(B).rows", "op(A).cols = %d, op(B).rows = %d", k,
            kb);
    if (beta == 0.0)
        return; // C is re-dimensioned, and may be A or B
    require(C.GetRowDim() == m && C.GetColDim() == n, function,
            "C is op(A).rows x op(B).cols when beta != 0", "C is %d x %d, op(A) op(B) is %d x %d",
            C.GetRowDim(), C.GetColDim(), m, n);
    separate(function, "C shares no storage with A when beta != 0", C, A, true);
    separate(function, "C shares no storage with B when beta != 0", C, B, true);
}

void dgemm_arguments(const char* transa, const char* transb, int m, int n, int k, const double*,
                     int lda, const double*, int ldb, const double*, int ldc)
{
    const char* function = "kel_dgemm";
    require(is_trans(transa, "NnTtCc"), function, "transa is N, T or C", "transa = '%c'",
            transa && *transa ? *transa : '?');
    require(is_trans(transb, "NnTtCc"), function, "transb is N, T or C", "transb = '%c'",
            transb && *transb ? *transb : '?');
    require(m >= 0 && n >= 0 && k >= 0, function, "m, n, k >= 0", "m = %d, n = %d, k = %d", m, n,
            k);
    const int a_rows = (*transa == 'N' || *transa == 'n') ? m : k;
    const int b_rows = (*transb == 'N' || *transb == 'n') ? k : n;
    require(lda >= std::max(1, a_rows), function, "lda >= max(1, rows of A)",
            "lda = %d, rows of A = %d", lda, a_rows);
    require(ldb >= std::max(1, b_rows), function, "ldb >= max(1, rows of B)",
            "ldb = %d, rows of B = %d", ldb, b_rows);
    require(ldc >= std::max(1, m), function, "ldc >= max(1, m)", "ldc = %d, m = %d", ldc, m);
}

void solve(const KelMatrix& A, const KelMatrix& B)
{
    square("Solve", "A.rows == A.cols", A);
    rows_equal("Solve", "B.rows == A.rows", B, A.GetRowDim());
}

void solve(const KelMatrixBanded& A, const KelMatrix& B)
{
    require(A.GetLowerBandWidth() >= 0 && A.GetUpperBandWidth() >= 0, "Solve",
            "kl >= 0 and ku >= 0 (a band matrix)", "kl = %d, ku = %d", A.GetLowerBandWidth(),
            A.GetUpperBandWidth());
    square("Solve", "A.rows == A.cols", A);
    rows_equal("Solve", "B.rows == A.rows", B, A.GetRowDim());
}

void solve_sp(const KelMatrix& A, const KelMatrix& B, int copyInputs)
{
    square("SolveSP", "A.rows == A.cols", A);
    rows_equal("SolveSP", "B.rows == A.cols", B, A.GetColDim());
    separate("SolveSP", "B shares no storage with A when copyInputs == 0", A, B, copyInputs == 0);
}

void solve_bsp(const KelMatrixBanded& A, const KelMatrix& B, int copyInputs)
{
    upper_band("SolveBSP", A);
    square("SolveBSP", "A.rows == A.cols", A);
    rows_equal("SolveBSP", "B.rows == A.cols", B, A.GetColDim());
    separate("SolveBSP", "B shares no storage with A when copyInputs == 0", A, B, copyInputs == 0);
}

void factorization(const char* function, const KelMatrix& A)
{
    square(function, "A.rows == A.cols", A);
}

void band_factorization(const KelMatrixBanded& A)
{
    upper_band("spdBandMatrixCholeskyFactorization", A);
    square("spdBandMatrixCholeskyFactorization", "A.rows == A.cols", A);
}

void substitution(const KelMatrix& U, const KelMatrix& B, int copyInputs)
{
    square("spdCholeskySubstitute", "U.rows == U.cols", U);
    rows_equal("spdCholeskySubstitute", "B.rows == U.cols", B, U.GetColDim());
    separate("spdCholeskySubstitute", "B shares no storage with U when copyInputs == 0", U, B,
             copyInputs == 0);
}

void band_substitution(const KelMatrixBanded& U, const KelMatrix& B, int copyInputs)
{
    upper_band("spdBandCholeskySubstitute", U);
    square("spdBandCholeskySubstitute", "U.rows == U.cols", U);
    rows_equal("spdBandCholeskySubstitute", "B.rows == U.cols", B, U.GetColDim());
    separate("spdBandCholeskySubstitute", "B shares no storage with U when copyInputs == 0", U, B,
             copyInputs == 0);
}

void triangular_band_solve(const KelMatrixBanded& U, const KelMatrix& B, int copyInputs)
{
    const char* function = "solveUpperTriangularBandSystem";
    upper_band(function, U);
    square(function, "U.rows == U.cols", U);
    rows_equal(function, "B.rows == U.rows", B, U.GetRowDim());
    separate(function, "B shares no storage with U when copyInputs != 1", U, B, copyInputs != 1);
}

void dgels_arguments(const char* trans, int m, int n, int nrhs, const double*, int lda,
                     const double*, int ldb, const double*, int lwork)
{
    const char* function = "kel_dgels";
    require(is_trans(trans, "NnTt"), function, "trans is N or T", "trans = '%c'",
            trans && *trans ? *trans : '?');
    require(m >= 0 && n >= 0 && nrhs >= 0, function, "m, n, nrhs >= 0", "m = %d, n = %d, nrhs = %d",
            m, n, nrhs);
    require(lda >= std::max(1, m), function, "lda >= max(1, m)", "lda = %d, m = %d", lda, m);
    require(ldb >= std::max({1, m, n}), function, "ldb >= max(1, m, n)", "ldb = %d, m = %d, n = %d",
            ldb, m, n);
    const int mn = std::min(m, n), minimum = std::max(1, mn + std::max(mn, nrhs));
    require(lwork == -1 || lwork >= minimum, function,
            "lwork == -1 or lwork >= max(1, min(m, n) + max(min(m, n), nrhs))",
            "lwork = %d, minimum = %d", lwork, minimum);
}

void least_squares(const KelMatrix& A, const KelMatrix& B, const KelMatrix& X)
{
    const char* function = "SolveLS";
    const int m = A.GetRowDim(), n = A.GetColDim();
    require(m >= n, function, "A.rows >= A.cols", "A.rows = %d, A.cols = %d", m, n);
    rows_equal(function, "B.rows == A.rows", B, m);
    require(X.GetRowDim() >= n, function, "X.rows >= A.cols (X dimensioned by the caller)",
            "X.rows = %d, A.cols = %d", X.GetRowDim(), n);
    require(X.GetColDim() <= B.GetColDim(), function,
            "X.cols <= B.cols (X's columns are the right-hand sides solved)",
            "X.cols = %d, B.cols = %d", X.GetColDim(), B.GetColDim());
}

void min_norm_least_squares(const KelMatrix& A, const KelMatrix& B, const int* jpvt,
                            const KelMatrix&)
{
    const char* function = "MinNormLeastSquares";
    rows_equal(function, "B.rows == A.rows", B, A.GetRowDim());
    require(jpvt != nullptr || A.GetColDim() == 0, function, "jpvt != nullptr", "A.cols = %d",
            A.GetColDim());
}

void eigenvalues(const KelMatrix& A, const double* eigenvalues, int copyInputs)
{
    const char* function = "EigenValuesS";
    square(function, "A.rows == A.cols", A);
    const int n = A.GetColDim();
    require(eigenvalues != nullptr || n == 0, function, "eigenvalues != nullptr", "A.cols = %d", n);
    const double* a = A.GetElements();
    const bool inside = a != nullptr && eigenvalues >= a && eigenvalues < a + A.GetStorageSize();
    require(copyInputs != 0 || !inside, function,
            "eigenvalues outside A's array when copyInputs == 0", "offset %td into A's %d doubles",
            inside ? eigenvalues - a : 0, A.GetStorageSize());
}

void eigenproblem(const KelMatrix& A, const KelMatrix& W, const KelMatrix& Z, int copyInputs)
{
    const char* function = "spdmEigenproblem";
    square(function, "A.rows == A.cols", A);
    const int n = A.GetColDim();
    require(W.GetRowDim() == n && W.GetColDim() == 1, function,
            "W is A.cols x 1 (dimensioned by the caller)", "W is %d x %d, A.cols = %d",
            W.GetRowDim(), W.GetColDim(), n);
    require(Z.GetRowDim() == n && Z.GetColDim() == n, function,
            "Z is A.cols x A.cols (dimensioned by the caller)", "Z is %d x %d, A.cols = %d",
            Z.GetRowDim(), Z.GetColDim(), n);
    separate(function, "W shares no storage with Z", W, Z, true);
    separate(function, "W shares no storage with A when copyInputs != 1", W, A, copyInputs != 1);
}

} // namespace checks
} // namespace kelmatrix

#endif
