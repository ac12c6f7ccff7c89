// KELMATRIX linear solves
// A X = B by one LAPACK driver each: dgesv, dgbsv, dposv, dpbsv.
//
// Dimensions come from the matrix objects and are not compared with each other; LAPACK's own
// argument checks are the only guard. The general solves always work on copies. The SPD solves
// copy for any non-zero copyInputs; with 0 the driver works in A's and B's own arrays, through
// the const references (deliberate: the allocation-free path for callers done with A and B), so
// A then holds the factor and B the solution. On success X takes B's shape (not n x nrhs) and
// receives the solution; on failure X is left as it was. X may be B itself: with copyInputs = 0
// the solution is then in X's own old block, which is released only after the copy.
#include <algorithm>
#include <vector>

#include "dense/dense_checks.h"
#include "kelmatrix/dense.h"
#include "matrix/aligned_buffer.h"
#include "matrix/mkl_bindings.h"

using kelmatrix::internal::AlignedBuffer;
using kelmatrix::internal::take_solution;

bool Solve(const KelMatrix& A, const KelMatrix& B, KelMatrix& X)
{
    KELMATRIX_CHECK(solve(A, B));
    int n = A.GetRowDim(), nrhs = B.GetColDim(), lda = A.GetRowDim(), ldb = B.GetRowDim();
    int info = 0;

    AlignedBuffer a_copy, b_copy;
    double* a = a_copy.copy_of_at_least(A, A.GetStorageSize());
    std::vector<int> ipiv(static_cast<std::size_t>(std::max(n, 0)));
    double* b = b_copy.copy_of_at_least(B, B.GetStorageSize());

    dgesv(&n, &nrhs, a, &lda, ipiv.data(), b, &ldb, &info);
    if (info != 0)
        return false;
    take_solution(X, B.GetRowDim(), B.GetColDim(), b);
    return true;
}

bool Solve(const KelMatrixBanded& A, const KelMatrix& B, KelMatrix& X)
{
    KELMATRIX_CHECK(solve(A, B));
    int n = A.GetRowDim(), kl = A.GetLowerBandWidth(), ku = A.GetUpperBandWidth();
    int nrhs = B.GetColDim(), ldab = 2 * kl + ku + 1, ldb = B.GetRowDim(), info = 0;

    // The band layout already reserves dgbsv's kl fill-in rows; the buffer is sized so the
    // driver may use its full ldab x n array.
    AlignedBuffer ab_copy, b_copy;
    double* ab = ab_copy.copy_of_at_least(
        A, std::max<long long>(A.GetStorageSize(), static_cast<long long>(ldab) * n));
    std::vector<int> ipiv(static_cast<std::size_t>(std::max(n, 0)));
    double* b = b_copy.copy_of_at_least(B, B.GetStorageSize());

    dgbsv(&n, &kl, &ku, &nrhs, ab, &ldab, ipiv.data(), b, &ldb, &info);
    if (info != 0)
        return false;
    take_solution(X, B.GetRowDim(), B.GetColDim(), b);
    return true;
}

bool SolveSP(const KelMatrix& A, const KelMatrix& B, KelMatrix& X, int copyInputs)
{
    KELMATRIX_CHECK(solve_sp(A, B, copyInputs));
    const char uplo = 'U';
    int n = A.GetColDim(), nrhs = B.GetColDim(), lda = n, ldb = B.GetRowDim(), info = 0;

    // Deliberate: any non-zero copyInputs copies; 0 works in A's and B's own arrays.
    AlignedBuffer a_copy, b_copy;
    double* a =
        copyInputs ? a_copy.copy_of_at_least(A, static_cast<long long>(n) * n) : A.GetElements();
    double* b = copyInputs
                    ? b_copy.copy_of_at_least(B, static_cast<long long>(B.GetRowDim()) * nrhs)
                    : B.GetElements();

    dposv(&uplo, &n, &nrhs, a, &lda, b, &ldb, &info, kCharLen);
    if (info != 0)
        return false;
    take_solution(X, B.GetRowDim(), B.GetColDim(), b);
    return true;
}

bool SolveBSP(const KelMatrixBanded& A, const KelMatrix& B, KelMatrix& X, int copyInputs)
{
    KELMATRIX_CHECK(solve_bsp(A, B, copyInputs));
    const char uplo = 'U';
    int n = A.GetColDim(), kd = A.GetUpperBandWidth(), nrhs = B.GetColDim();
    int ldab = kd + 1, ldb = B.GetRowDim(), info = 0;

    // A is read as LAPACK upper band storage: exactly the band layout with kl = 0.
    // Deliberate: any non-zero copyInputs copies; 0 works in A's and B's own arrays.
    AlignedBuffer ab_copy, b_copy;
    double* ab = copyInputs ? ab_copy.copy_of_at_least(A, static_cast<long long>(ldab) * n)
                            : A.GetElements();
    double* b = copyInputs
                    ? b_copy.copy_of_at_least(B, static_cast<long long>(B.GetRowDim()) * nrhs)
                    : B.GetElements();

    dpbsv(&uplo, &n, &kd, &nrhs, ab, &ldab, b, &ldb, &info, kCharLen);
    if (info != 0)
        return false;
    take_solution(X, B.GetRowDim(), B.GetColDim(), b);
    return true;
}
