// KELMATRIX matrix products
// C = alpha op(A) op(B) + beta C on dense matrices by BLAS dgemm, and a raw dgemm pass-through.
//
// The operands' arrays are handed over as full column-major matrices; flags are not consulted.
// Only beta == 0.0 (exactly; -0.0 too, NaN not) re-dimensions C, since only then is C's old
// content irrelevant; otherwise C must already have the right shape. k comes from A alone.
#include "kelmatrix/dense.h"
#include "matrix/mkl_bindings.h"

void ProductEx(double alpha, const KelMatrix& A, const KelMatrix& B, bool transA, bool transB,
               double beta, KelMatrix& C)
{
    if (beta == 0.0)
        C.Dimension(transA ? A.GetColDim() : A.GetRowDim(), transB ? B.GetRowDim() : B.GetColDim(),
                    -1, -1);
    const int ldc = C.GetRowDim();

    const char transa = transA ? 'T' : 'N', transb = transB ? 'T' : 'N';
    const int m = transA ? A.GetColDim() : A.GetRowDim();
    const int n = transB ? B.GetRowDim() : B.GetColDim();
    const int k = transA ? A.GetRowDim() : A.GetColDim();
    const int lda = A.GetRowDim(), ldb = B.GetRowDim();

    dgemm(&transa, &transb, &m, &n, &k, &alpha, A.GetElements(), &lda, B.GetElements(), &ldb, &beta,
          C.GetElements(), &ldc, kCharLen, kCharLen);
}

void Product(const KelMatrix& A, const KelMatrix& B, bool transA, bool transB, KelMatrix& C)
{
    ProductEx(1.0, A, B, transA, transB, 0.0, C);
}

void kel_dgemm(const char* transa, const char* transb, const int& m, const int& n, const int& k,
               const double& alpha, const double* a, const int& lda, const double* b,
               const int& ldb, const double& beta, double* c, const int& ldc)
{
    dgemm(transa, transb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, c, &ldc, kCharLen, kCharLen);
}
