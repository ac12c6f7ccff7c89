// KELMATRIX sparse solver checks
// The checks of LSMsolver: the arrays PARDISO reads, through the compressed-row checker.
//
// Only calls the solver's state lets through to PARDISO are checked; the others return false in
// every build. The matrix is checked where PARDISO reads it (factor and refactor), with nnz taken
// from ia[n], for its structure: the checker's rules about values (finiteness, a positive
// diagonal for type 2) are PARDISO's to report. Right-hand sides and solutions must have the
// solver's order as their row count and must not share storage.
#if defined(KELMATRIX_CHECKED)

#    include "sparse/sparse_checks.h"
#    include "kelmatrix/sparse.h"
#    include "matrix/matrix_checks.h"

namespace kelmatrix {
namespace checks {

void solver_init(int, int nrhs)
{
    require(nrhs >= 1, "LSMsolver::init", "nrhs >= 1", "nrhs = %d", nrhs);
}

void solver_matrix(const char* function, bool reaches_pardiso, int n, const int* ia, const int* ja,
                   const double* a, int mtype)
{
    if (!reaches_pardiso)
        return;
    const int nnz = ia != nullptr && n >= 1 ? ia[n] - 1 : 0;
    const LSMsolver_csr_check found =
        LSMsolver_check_csr(n, ia, ja, a, nnz, static_cast<LSMsolver_mattype>(mtype));
    const bool structural = found.code != LSM_CSR_OK && found.code != LSM_CSR_NOT_FINITE &&
                            found.code != LSM_CSR_NONPOSITIVE_DIAGONAL;
    require(!structural, function, found.message, "row = %d, position = %d, n = %d, nnz = %d",
            found.row, found.position, n, nnz);
}

void solver_solve(bool reaches_pardiso, int n, const KelMatrix& B, const KelMatrix& X)
{
    const char* function = "LSMsolver::solve";
    if (!reaches_pardiso)
        return;
    require(B.GetRowDim() == n, function, "B.rows == n (the solver's order)", "B.rows = %d, n = %d",
            B.GetRowDim(), n);
    require(X.GetRowDim() == B.GetRowDim() && X.GetColDim() == B.GetColDim(), function,
            "X has B's shape (dimensioned by the caller)", "X is %d x %d, B is %d x %d",
            X.GetRowDim(), X.GetColDim(), B.GetRowDim(), B.GetColDim());
    require(!share_storage(B, X), function, "X shares no storage with B", "one array at %p",
            static_cast<const void*>(B.GetElements()));
}

void solver_solve(bool reaches_pardiso, int n, int count, const double* b, const double* x)
{
    const char* function = "LSMsolver::solve";
    if (!reaches_pardiso)
        return;
    require(count >= 0, function, "count >= 0", "count = %d", count);
    const bool any = count > 0 && n > 0;
    require(!any || (b != nullptr && x != nullptr), function, "b != nullptr and x != nullptr",
            "b = %p, x = %p, count = %d", static_cast<const void*>(b), static_cast<const void*>(x),
            count);
    require(!any || b != x, function, "x != b", "one array at %p", static_cast<const void*>(b));
}

} // namespace checks
} // namespace kelmatrix

#endif
