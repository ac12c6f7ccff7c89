// KELMATRIX symmetric eigenproblems
// All eigenvalues, and optionally the eigenvectors, of a symmetric matrix: dspev and dsyev.
//
// Both read only the upper triangle of the stored array and take n from A.cols; neither needs
// positive definiteness. Eigenvalues come ascending, eigenvector k (unit length) is column k.
// EigenValuesS packs the upper triangle (into a copy for any non-zero copyInputs, else into A's
// own array) and re-dimensions Z only on success. spdmEigenproblem copies A only for
// copyInputs == 1, else dsyev works in A's own array, and writes into W and Z as the caller
// dimensioned them. Deliberate, and kept: A is passed const yet destroyed on the in-place paths
// (the allocation-saving route for callers done with A), and the two copy rules differ.

#include "dense/dense_checks.h"
#include "kelmatrix/dense.h"
#include "matrix/aligned_buffer.h"
#include "matrix/mkl_bindings.h"

using kelmatrix::internal::AlignedBuffer;
using kelmatrix::internal::copy_storage_from;

bool EigenValuesS(const KelMatrix& A, double* eigenvalues, KelMatrix* Z, int copyInputs)
{
    KELMATRIX_CHECK(eigenvalues(A, eigenvalues, copyInputs));
    const char jobz = Z ? 'V' : 'N', uplo = 'U';
    int n = A.GetColDim(), ldz = n, info = 0;

    // Deliberate: any non-zero copyInputs packs into a private copy; 0 packs into A's own array.
    AlignedBuffer ap_copy;
    double* ap =
        copyInputs ? ap_copy.allocate(static_cast<long long>(n) * (n + 1) / 2) : A.GetElements();
    // Upper triangle column by column. In place this is safe: every packed position lies at or
    // before its dense one and the loop runs forward. Deliberate: the source stride is A.cols.
    const double* a = A.GetElements();
    long long k = 0;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            ap[k++] = a[static_cast<long long>(n) * j + i];

    AlignedBuffer z_buf, work_buf;
    double* z = Z ? z_buf.allocate(static_cast<long long>(n) * n) : nullptr;
    double* work = work_buf.allocate(3LL * n);

    dspev(&jobz, &uplo, &n, ap, eigenvalues, z, &ldz, work, &info, kCharLen, kCharLen);
    if (info == 0 && Z) {
        Z->Dimension(n, n, -1, -1);
        copy_storage_from(*Z, z);
    }
    return info == 0;
}

int spdmEigenproblem(const KelMatrix& A, KelMatrix& W, KelMatrix& Z, int copyInputs)
{
    KELMATRIX_CHECK(eigenproblem(A, W, Z, copyInputs));
    const char jobz = 'V', uplo = 'U';
    int n = A.GetColDim(), lda = n, info = 0;

    // Deliberate: only copyInputs == 1 copies; otherwise dsyev leaves the eigenvectors in A.
    AlignedBuffer a_copy;
    double* a = copyInputs == 1 ? a_copy.copy_of_at_least(A, static_cast<long long>(n) * n)
                                : A.GetElements();
    // dsyev's minimum workspace: one call, no query.
    int lwork = 3 * n - 1;
    AlignedBuffer w(n), work(lwork);

    dsyev(&jobz, &uplo, &n, a, &lda, w.data(), work.data(), &lwork, &info, kCharLen, kCharLen);
    if (info == 0) {
        // Deliberate: W (n x 1) and Z (n x n) keep the shapes the caller gave them.
        copy_storage_from(W, w.data());
        copy_storage_from(Z, a);
    }
    return info;
}
