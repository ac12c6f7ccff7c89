// KELMATRIX Cholesky family
// The steps of an SPD solve one by one: dpotrf, dpbtrf, dpotrs, dpbtrs, dpotri, dtbtrs.
//
// Every routine is called with uplo 'U': the factor is the upper triangular U with A = U^T U,
// and band matrices are read as LAPACK upper band storage (the band layout with kl = 0). The
// factorizations and the inverse write their result back into A; a dense A keeps its strictly
// lower triangle, except that the inverse mirrors its upper triangle there. The substitutions
// never copy the factor and write the solution into X (n x nrhs), re-dimensioned only on
// success. Deliberate, and kept: two copy rules (the factorizations, the inverse and the
// triangular band solve copy only for copyInputs == 1; the substitutions for any non-zero
// value), a mix of int (info as LAPACK gives it) and bool results, and in-place work in arrays
// passed const. On failure nothing is written back and X is left as it was.

#include "dense/dense_checks.h"
#include "kelmatrix/dense.h"
#include "matrix/aligned_buffer.h"
#include "matrix/mkl_bindings.h"

using kelmatrix::internal::AlignedBuffer;
using kelmatrix::internal::copy_storage_from;
using kelmatrix::internal::take_solution;

namespace {

long long count(int rows, int cols)
{
    return static_cast<long long>(rows) * cols;
}

} // namespace

int spdMatrixCholeskyFactorization(KelMatrix& A, int copyInputs)
{
    KELMATRIX_CHECK(factorization("spdMatrixCholeskyFactorization", A));
    const char uplo = 'U';
    int n = A.GetColDim(), lda = n, info = 0;

    // Deliberate: only copyInputs == 1 copies; 0, 2, -1 factor in place.
    AlignedBuffer a_copy;
    double* a = copyInputs == 1 ? a_copy.copy_of_at_least(A, count(n, n)) : A.GetElements();

    dpotrf(&uplo, &n, a, &lda, &info, kCharLen);
    if (info == 0)
        copy_storage_from(A, a);
    return info;
}

bool spdBandMatrixCholeskyFactorization(KelMatrixBanded& A, int copyInputs)
{
    KELMATRIX_CHECK(band_factorization(A));
    const char uplo = 'U';
    int n = A.GetColDim(), kd = A.GetUpperBandWidth(), ldab = kd + 1, info = 0;

    // Deliberate: only copyInputs == 1 copies.
    AlignedBuffer ab_copy;
    double* ab = copyInputs == 1 ? ab_copy.copy_of_at_least(A, count(ldab, n)) : A.GetElements();

    dpbtrf(&uplo, &n, &kd, ab, &ldab, &info, kCharLen);
    if (info == 0)
        copy_storage_from(A, ab);
    return info == 0; // Deliberate: bool, where the dense factorization returns info
}

int spdCholeskySubstitute(KelMatrix& U, KelMatrix& B, KelMatrix& X, int copyInputs)
{
    KELMATRIX_CHECK(substitution(U, B, copyInputs));
    const char uplo = 'U';
    // Deliberate: ldb is the factor's order; B's row count is not read.
    int n = U.GetColDim(), nrhs = B.GetColDim(), lda = n, ldb = n, info = 0;

    // Deliberate: any non-zero copyInputs copies B; the factor is never copied.
    AlignedBuffer b_copy;
    double* b = copyInputs ? b_copy.copy_of_at_least(B, count(n, nrhs)) : B.GetElements();

    dpotrs(&uplo, &n, &nrhs, U.GetElements(), &lda, b, &ldb, &info, kCharLen);
    if (info == 0)
        take_solution(X, n, nrhs, b);
    return info;
}

bool spdBandCholeskySubstitute(KelMatrixBanded& U, KelMatrix& B, KelMatrix& X, int copyInputs)
{
    KELMATRIX_CHECK(band_substitution(U, B, copyInputs));
    const char uplo = 'U';
    int n = U.GetColDim(), kd = U.GetUpperBandWidth(), nrhs = B.GetColDim();
    int ldab = kd + 1, ldb = n, info = 0; // Deliberate: ldb is the factor's order

    // Deliberate: any non-zero copyInputs copies B; the factor is never copied.
    AlignedBuffer b_copy;
    double* b = copyInputs ? b_copy.copy_of_at_least(B, count(n, nrhs)) : B.GetElements();

    dpbtrs(&uplo, &n, &kd, &nrhs, U.GetElements(), &ldab, b, &ldb, &info, kCharLen);
    if (info == 0)
        take_solution(X, n, nrhs, b);
    return info == 0; // Deliberate: bool, where the dense substitution returns info
}

int symmPositiveDefiniteInverse(KelMatrix& A, int copyInputs)
{
    KELMATRIX_CHECK(factorization("symmPositiveDefiniteInverse", A));
    const char uplo = 'U';
    int n = A.GetColDim(), lda = n, info = 0;

    // Deliberate: only copyInputs == 1 copies.
    AlignedBuffer a_copy;
    double* a = copyInputs == 1 ? a_copy.copy_of_at_least(A, count(n, n)) : A.GetElements();

    dpotri(&uplo, &n, a, &lda, &info, kCharLen);
    if (info != 0)
        return info; // no write-back, no mirroring
    copy_storage_from(A, a);
    // dpotri leaves the lower triangle alone; copying the upper one there makes the inverse
    // symmetric bit for bit.
    for (int j = 1; j < n; ++j)
        for (int i = 0; i < j; ++i)
            A(j, i) = A(i, j);
    return info;
}

int solveUpperTriangularBandSystem(const KelMatrixBanded& U, bool transpose, const KelMatrix& B,
                                   KelMatrix& X, int copyInputs)
{
    KELMATRIX_CHECK(triangular_band_solve(U, B, copyInputs));
    const char uplo = 'U', trans = transpose ? 'T' : 'N', diag = 'N';
    // Deliberate: n is U's row count here, where every other function of the family reads cols.
    int n = U.GetRowDim(), kd = U.GetUpperBandWidth(), nrhs = B.GetColDim();
    int ldab = kd + 1, ldb = n, info = 0;

    // Deliberate: only copyInputs == 1 copies; otherwise the solution is written into the
    // const B's own array (the allocation-free path).
    AlignedBuffer ab_copy, b_copy;
    const bool copy = copyInputs == 1;
    double* ab = copy ? ab_copy.copy_of_at_least(U, count(ldab, n)) : U.GetElements();
    double* b = copy ? b_copy.copy_of_at_least(B, count(n, nrhs)) : B.GetElements();

    dtbtrs(&uplo, &trans, &diag, &n, &kd, &nrhs, ab, &ldab, b, &ldb, &info, kCharLen, kCharLen,
           kCharLen);
    if (info == 0)
        take_solution(X, n, nrhs, b);
    return info;
}
