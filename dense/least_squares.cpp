// KELMATRIX least squares
// A X ~ B in the least-squares sense: dgels (full rank) and dgelsy (minimum norm, any rank).
//
// kel_dgels forwards its arguments to dgels unchanged. SolveLS works on copies of A and B and
// writes only the first A.cols rows of each solution column into a caller-dimensioned X.
// MinNormLeastSquares overwrites A with its complete orthogonal factorization, leaves B alone,
// re-dimensions X to A.cols x B.cols and returns the pivot order 0-based. Deliberate, and kept
// (see the comments at each): SolveLS takes nrhs from X and reads the solution with stride
// A.rows; MinNormLeastSquares moves B in and the solution out as single blocks, which re-strides
// nothing when there are several right-hand sides. On failure X is left as it was.
#include <cstring>
#include <vector>

#include "dense/dense_checks.h"
#include "kelmatrix/dense.h"
#include "matrix/aligned_buffer.h"
#include "matrix/mkl_bindings.h"

using kelmatrix::internal::AlignedBuffer;
using kelmatrix::internal::take_solution;

void kel_dgels(const char* trans, const int& m, const int& n, const int& nrhs, double* a,
               const int& lda, double* b, const int& ldb, double* work, const int& lwork, int& info)
{
    KELMATRIX_CHECK(dgels_arguments(trans, m, n, nrhs, a, lda, b, ldb, work, lwork));
    dgels(trans, &m, &n, &nrhs, a, &lda, b, &ldb, work, &lwork, &info, kCharLen);
}

bool SolveLS(const KelMatrix& A, const KelMatrix& B, KelMatrix& X)
{
    KELMATRIX_CHECK(least_squares(A, B, X));
    const char trans = 'N';
    // Deliberate: nrhs is X's column count; the caller dimensions X and it is never changed.
    int m = A.GetRowDim(), n = A.GetColDim(), nrhs = X.GetColDim();
    int lda = m, ldb = B.GetRowDim(), info = 0;

    AlignedBuffer a_copy, b_copy;
    double* a = a_copy.copy_of_at_least(A, A.GetStorageSize());
    // Room for the ldb x nrhs array dgels works in, which exceeds B when X has more columns
    // than B: those extra columns are then solved from whatever the buffer holds.
    double* b = b_copy.copy_of_at_least(B, static_cast<long long>(ldb) * nrhs);
    // A fixed workspace, above dgels's minimum, saves the query call; a plain array will do.
    int lwork = 2 * (m + n + nrhs);
    std::vector<double> work(static_cast<std::size_t>(lwork > 0 ? lwork : 0));

    dgels(&trans, &m, &n, &nrhs, a, &lda, b, &ldb, work.data(), &lwork, &info, kCharLen);
    if (info != 0)
        return false; // X untouched
    // Deliberate: the column stride is m, not ldb (they agree when B has m rows, as it must);
    // rows n .. m-1, the residual information, are dropped.
    for (int j = 0; j < nrhs; ++j)
        for (int i = 0; i < n; ++i)
            X(i, j) = b[static_cast<std::size_t>(m) * j + i];
    return true;
}

bool MinNormLeastSquares(KelMatrix& A, KelMatrix& B, int* jpvt, double rcond, int& rank,
                         KelMatrix& X)
{
    KELMATRIX_CHECK(min_norm_least_squares(A, B, jpvt, X));
    int m = A.GetRowDim(), n = A.GetColDim(), nrhs = B.GetColDim();
    int lda = m, ldb = n >= m ? n : m, info = 0;

    // dgelsy needs max(m, n) rows of room for the solution. Deliberate: B is moved in as one
    // block, so with m < n and several right-hand sides its columns are not re-strided.
    KelMatrix b_room;
    b_room.Dimension(ldb, nrhs, -1, -1);
    if (B.GetStorageSize() > 0)
        std::memcpy(b_room.GetElements(), B.GetElements(), sizeof(double) * B.GetStorageSize());
    double* b = b_room.GetElements();

    // The query result lives in this call's own variable, so concurrent calls cannot meet.
    double optimum = 0.0;
    int lwork = -1;
    dgelsy(&m, &n, &nrhs, A.GetElements(), &lda, b, &ldb, jpvt, &rcond, &rank, &optimum, &lwork,
           &info);
    if (info != 0)
        return false;

    lwork = static_cast<int>(optimum); // truncated
    AlignedBuffer work(lwork);
    dgelsy(&m, &n, &nrhs, A.GetElements(), &lda, b, &ldb, jpvt, &rcond, &rank, work.data(), &lwork,
           &info);
    if (info != 0)
        return false; // X untouched; jpvt as dgelsy left it, still 1-based

    // Deliberate: one block of n * nrhs doubles; with several right-hand sides and ldb > n the
    // rows n .. ldb-1 of each column are not skipped.
    take_solution(X, n, nrhs, b);
    for (int k = 0; k < n; ++k)
        jpvt[k] -= 1; // 1-based column numbers to 0-based indices
    return true;
}
