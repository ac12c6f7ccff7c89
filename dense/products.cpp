// KELMATRIX matrix products
// C = alpha op(A) op(B) + beta C on dense matrices by BLAS dgemm, and a raw dgemm pass-through.
//
// The operands' arrays are handed over as full column-major matrices; flags are not consulted.
// Only beta == 0.0 (exactly; -0.0 too, NaN not) re-dimensions C, since only then is C's old
// content irrelevant; otherwise C must already have the right shape. k comes from A alone. With
// beta == 0.0, C may be A or B: the product is computed from the operands as they were.
#include "dense/dense_checks.h"
#include "kelmatrix/dense.h"
#include "matrix/aligned_buffer.h"
#include "matrix/mkl_bindings.h"

using kelmatrix::internal::RetainedBlock;

void ProductEx(double alpha, const KelMatrix& A, const KelMatrix& B, bool transA, bool transB,
               double beta, KelMatrix& C)
{
    KELMATRIX_CHECK(product("ProductEx", A, B, transA, transB, beta, C));
    const char transa = transA ? 'T' : 'N', transb = transB ? 'T' : 'N';
    const int m = transA ? A.GetColDim() : A.GetRowDim();
    const int n = transB ? B.GetRowDim() : B.GetColDim();
    const int k = transA ? A.GetRowDim() : A.GetColDim();
    const int lda = A.GetRowDim(), ldb = B.GetRowDim();
    const double* a = A.GetElements();
    const double* b = B.GetElements();

    // Everything of A and B is read above, before C changes: C may be A or B itself, and then
    // its old block stays alive until dgemm has read it.
    RetainedBlock operand_block(C, beta == 0.0 ? a : nullptr, beta == 0.0 ? b : nullptr);
    if (beta == 0.0)
        C.Dimension(m, n, -1, -1);
    const int ldc = C.GetRowDim();

    dgemm(&transa, &transb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, C.GetElements(), &ldc,
          kCharLen, kCharLen);
}

void Product(const KelMatrix& A, const KelMatrix& B, bool transA, bool transB, KelMatrix& C)
{
    KELMATRIX_CHECK(product("Product", A, B, transA, transB, 0.0, C));
    ProductEx(1.0, A, B, transA, transB, 0.0, C);
}

void kel_dgemm(const char* transa, const char* transb, const int& m, const int& n, const int& k,
               const double& alpha, const double* a, const int& lda, const double* b,
               const int& ldb, const double& beta, double* c, const int& ldc)
{
    KELMATRIX_CHECK(dgemm_arguments(transa, transb, m, n, k, a, lda, b, ldb, c, ldc));
    dgemm(transa, transb, &m, &n, &k, &alpha, a, &lda, b, &ldb, &beta, c, &ldc, kCharLen, kCharLen);
}
