// KELMATRIX compressed-row products
// LSMsolver_multiply: y = A x over MKL's sparse BLAS for the compressed rows LSMsolver takes
// (the upper triangle standing for a symmetric matrix); LSMsolver_residual_ratio: the residual
// check the guide asks for after a solve.
//
// The arrays are checked by LSMsolver_check_csr first, since the sparse BLAS does not validate
// them. MKL's handle borrows the caller's arrays (nothing is copied) and is destroyed before
// return. ||A||_1 is summed here in storage order; the product's rounding is MKL's.
#include <cmath>
#include <vector>

#include "kelmatrix/sparse.h"
#include "matrix/mkl_bindings.h"
#include "matrix/pattern_product.h"
#include "sparse/matrix_type.h"

using kelmatrix::internal::symmetric_type;

namespace {

LSMsolver_csr_check vectors_problem()
{
    LSMsolver_csr_check c;
    c.code = LSM_CSR_BAD_VECTORS;
    c.message = LSMsolver_csr_rule(c.code);
    return c;
}

/// The arrays judged as the solver would, nnz read from ia where ia can be read.
LSMsolver_csr_check check_matrix(int n, const int* ia, const int* ja, const double* a,
                                 LSMsolver_mattype mtype)
{
    const int nnz = n >= 1 && ia != nullptr ? ia[n] - 1 : 0;
    return LSMsolver_check_csr(n, ia, ja, a, nnz, mtype);
}

/// ||A||_1 of the whole matrix the rows stand for (the mirrored half of a symmetric type too).
double norm1_of(int n, const int* ia, const int* ja, const double* a, bool symmetric)
{
    std::vector<double> sums(static_cast<std::size_t>(n), 0.0);
    for (int i = 0; i < n; ++i)
        for (int p = ia[i] - 1; p < ia[i + 1] - 1; ++p) {
            const int j = ja[p] - 1;
            sums[j] += std::fabs(a[p]);
            if (symmetric && j != i)
                sums[i] += std::fabs(a[p]);
        }
    double norm = 0.0;
    for (double s : sums)
        norm = std::fmax(norm, s);
    return norm;
}

} // namespace

LSMsolver_csr_check LSMsolver_multiply(int n, const int* ia, const int* ja, const double* a,
                                       LSMsolver_mattype mtype, int count, const double* x,
                                       double* y)
{
    const LSMsolver_csr_check found = check_matrix(n, ia, ja, a, mtype);
    if (found.code != LSM_CSR_OK)
        return found;
    if (count < 0 || (count > 0 && (x == nullptr || y == nullptr || x == y)))
        return vectors_problem();
    if (count == 0)
        return found;
    // The handle only borrows the arrays: MKL reads, never writes them.
    sparse_matrix_t A = nullptr;
    sparse_status_t status = mkl_sparse_d_create_csr(&A, SPARSE_INDEX_BASE_ONE, n, n,
                                                     const_cast<int*>(ia), const_cast<int*>(ia + 1),
                                                     const_cast<int*>(ja), const_cast<double*>(a));
    matrix_descr descr;
    descr.type = symmetric_type(mtype) ? SPARSE_MATRIX_TYPE_SYMMETRIC : SPARSE_MATRIX_TYPE_GENERAL;
    descr.mode = SPARSE_FILL_MODE_UPPER; // read only for the symmetric types
    descr.diag = SPARSE_DIAG_NON_UNIT;
    if (status == SPARSE_STATUS_SUCCESS)
        status = mkl_sparse_d_mm(SPARSE_OPERATION_NON_TRANSPOSE, 1.0, A, descr,
                                 SPARSE_LAYOUT_COLUMN_MAJOR, x, count, n, 0.0, y, n);
    mkl_sparse_destroy(A);
    if (status == SPARSE_STATUS_SUCCESS)
        return found;
    LSMsolver_csr_check failed;
    failed.code = LSM_CSR_SPARSE_BLAS_FAILED;
    failed.message = LSMsolver_csr_rule(failed.code);
    return failed;
}

LSMsolver_csr_check LSMsolver_residual_ratio(int n, const int* ia, const int* ja, const double* a,
                                             LSMsolver_mattype mtype, int count, const double* x,
                                             const double* b, double& ratio)
{
    if (count > 0 && b == nullptr)
        return vectors_problem();
    std::vector<double> ax(n >= 1 && count > 0 ? static_cast<std::size_t>(n) * count : 0);
    const LSMsolver_csr_check found =
        LSMsolver_multiply(n, ia, ja, a, mtype, count, x, ax.empty() ? nullptr : ax.data());
    if (found.code != LSM_CSR_OK)
        return found;
    ratio = kelmatrix::internal::residual_ratio(norm1_of(n, ia, ja, a, symmetric_type(mtype)), n,
                                                ax.data(), x, n, b, n, count);
    return found;
}
