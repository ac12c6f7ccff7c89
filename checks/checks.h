// KELMATRIX entry-point checks (internal)
// What libkelmatrix_checked verifies at the top of every exported function, before its own steps.
//
// Each exported function starts with one line, KELMATRIX_CHECK(<check>(arguments)). In the normal
// library (KELMATRIX_CHECKED undefined) the macro expands to nothing, its arguments included, so
// that library has the same code, symbols and speed as without it. In the checked library it
// calls the check of that function below, which reads the same dimensions, band widths and
// pointers the function's own steps read and, at the first broken condition, calls the
// installed handler (kelmatrix/checked.h) with the function's name, the condition and the values
// involved, and aborts should the handler return. A check changes nothing, so a handler that
// throws leaves every argument as it was.
#ifndef KELMATRIX_CHECKS_H
#define KELMATRIX_CHECKS_H

#if defined(KELMATRIX_CHECKED)

#    include "kelmatrix/band.h"
#    include "kelmatrix/dense.h"
#    include "kelmatrix/sparse.h"

#    define KELMATRIX_CHECK(call) ::kelmatrix::checks::call

namespace kelmatrix {
namespace checks {

/// Reports a broken condition unless ok: the handler gets function, condition and the values
/// formatted printf-style (only then). Returns only when ok.
void require(bool ok, const char* function, const char* condition, const char* values, ...)
    __attribute__((format(printf, 4, 5)));

/// Whether a and b are one object or hand their routines one element array.
bool share_storage(const KelGenericMatrix& a, const KelGenericMatrix& b);

// ---- containers ----
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

// ---- dense algebra ----
void product(const char* function, const KelMatrix& A, const KelMatrix& B, bool transA, bool transB,
             double beta, const KelMatrix& C);
void dgemm_arguments(const char* transa, const char* transb, int m, int n, int k, const double* a,
                     int lda, const double* b, int ldb, const double* c, int ldc);
void solve(const KelMatrix& A, const KelMatrix& B);
void solve(const KelMatrixBanded& A, const KelMatrix& B);
void solve_sp(const KelMatrix& A, const KelMatrix& B, int copyInputs);
void solve_bsp(const KelMatrixBanded& A, const KelMatrix& B, int copyInputs);
void factorization(const char* function, const KelMatrix& A);
void band_factorization(const KelMatrixBanded& A);
void substitution(const KelMatrix& U, const KelMatrix& B, int copyInputs);
void band_substitution(const KelMatrixBanded& U, const KelMatrix& B, int copyInputs);
void triangular_band_solve(const KelMatrixBanded& U, const KelMatrix& B, int copyInputs);
void dgels_arguments(const char* trans, int m, int n, int nrhs, const double* a, int lda,
                     const double* b, int ldb, const double* work, int lwork);
void least_squares(const KelMatrix& A, const KelMatrix& B, const KelMatrix& X);
void min_norm_least_squares(const KelMatrix& A, const KelMatrix& B, const int* jpvt,
                            const KelMatrix& X);
void eigenvalues(const KelMatrix& A, const double* eigenvalues, int copyInputs);
void eigenproblem(const KelMatrix& A, const KelMatrix& W, const KelMatrix& Z, int copyInputs);

// ---- native band solvers ----
void band_cholesky(const char* function, const KelGenericMatrix& A, int bandWidth,
                   const KelGenericMatrix* B);
void cyclic_cholesky(const char* function, const KelGenericMatrix& A, int bandWidth, int m,
                     const KelGenericMatrix* B);
void cyclic_solve(const KelMatrix& A, const KelMatrix& B, int nb, int bandWidth);
void kronecker_solve(const KelMatrixBanded& A, const KelMatrixBanded& B, const KelMatrix& X);
void kronecker_substitution(const char* function, bool upper, int w1, int w2,
                            const KelGenericMatrix& U1, const KelGenericMatrix& U2,
                            const KelMatrix& X);

// ---- sparse solver ----
// The solver's own state decides whether a call reaches PARDISO; only such calls are checked.
void solver_init(int n, int nrhs);
void solver_matrix(const char* function, bool reaches_pardiso, int n, const int* ia, const int* ja,
                   const double* a, int mtype);
void solver_solve(bool reaches_pardiso, int n, const KelMatrix& B, const KelMatrix& X);
void solver_solve(bool reaches_pardiso, int n, int count, const double* b, const double* x);

} // namespace checks
} // namespace kelmatrix

#else

#    define KELMATRIX_CHECK(call) static_cast<void>(0)

#endif

#endif
