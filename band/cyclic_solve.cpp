// KELMATRIX cyclic banded SPD solve driver
// A X = B for a symmetric bordered band matrix by block elimination over dpbtrf, dpbtrs, dposv.
//
// A's leading nb x nb block is a band of half-bandwidth kd = bandWidth / 2; the last m = n - nb
// unknowns form a dense border. The band block is factored once by dpbtrf and its factor reused
// for W = A11^-1 A12, Y = A11^-1 B1 and the final X1; the border solves the Schur complement
// S = A22 - A12^T W by dposv. Only the upper band of A11, the border columns A12 and the upper
// triangle of A22 are read, through the const accessor, into temporaries released on every
// path: A and B never change. The result is true only if every LAPACK info is 0; X is
// re-dimensioned and written only then, and otherwise keeps its shape and content. Deliberate:
// a Schur complement whose first diagonal is negative is negated (sign bits flipped) before
// dposv, so negative definite borders such as saddle points are solved too.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "band/band_checks.h"
#include "kelmatrix/band.h"
#include "matrix/mkl_bindings.h"

namespace {

constexpr std::uint64_t kSignBit = 0x8000000000000000u;

// Exclusive-or with the sign bit: an exact negation of every value; 0.0 becomes -0.0.
void flip_sign(double& x)
{
    std::uint64_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    bits ^= kSignBit;
    std::memcpy(&x, &bits, sizeof x);
}

// Whole-array copy of src's storage into dst, which has src's shape.
void copy_elements(KelMatrix& dst, const KelMatrix& src)
{
    if (src.GetStorageSize() > 0)
        std::memcpy(dst.GetElements(), src.GetElements(), sizeof(double) * src.GetStorageSize());
}

} // namespace

bool SolveBSP_Cyclic(const KelMatrix& A, const KelMatrix& B, int nb, int bandWidth, KelMatrix& X)
{
    KELMATRIX_CHECK(cyclic_solve(A, B, nb, bandWidth));
    const char uplo = 'U';
    const int n = A.GetRowDim(), m = n - nb, nrhs = B.GetColDim();
    const int kd = bandWidth / 2; // Deliberate: bandWidth is the total width; 2 and 3 give 1
    const int ldab = kd + 1;
    int info = 0;

    // kl = 0, ku = kd: exactly LAPACK's upper symmetric band storage with LDAB = kd + 1.
    KelMatrixBanded AB; // A11, then its factor
    AB.SetSymmetric(true);
    AB.Dimension(nb, nb, 0, kd);
    AB.SetZero();
    KelMatrix E; // A12
    E.Dimension(nb, m, -1, -1);
    E.SetZero();
    KelMatrix S; // A22, then the Schur complement, then its factor
    S.SetSymmetric(true);
    S.SetUsesUpper();
    S.Dimension(m, m, -1, -1);
    S.SetZero();
    KelMatrix B1; // leading right-hand sides, then X1
    B1.Dimension(nb, nrhs, -1, -1);
    B1.SetZero();
    KelMatrix B2; // border right-hand sides, then X2
    B2.Dimension(m, nrhs, -1, -1);
    B2.SetZero();
    KelMatrix W; // A11^-1 A12, overwritten whole
    W.Dimension(nb, m, -1, -1);
    KelMatrix Y; // A11^-1 B1, overwritten whole
    Y.Dimension(nb, nrhs, -1, -1);

    for (int i = 0; i < nb; ++i) {
        const int j_end = std::min(nb - 1, i + kd);
        for (int j = i; j <= j_end; ++j)
            AB(i, j) = A(i, j);
    }
    for (int i = 0; i < nb; ++i)
        for (int k = 0; k < m; ++k)
            E(i, k) = A(i, nb + k);
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c)
            S(r, c) = A(nb + r, nb + c);
    for (int c = 0; c < nrhs; ++c) {
        for (int i = 0; i < nb; ++i)
            B1(i, c) = B(i, c);
        for (int r = 0; r < m; ++r)
            B2(r, c) = B(nb + r, c);
    }

    dpbtrf(&uplo, &nb, &kd, AB.GetElements(), &ldab, &info, /*uplo_len=*/1);
    if (info != 0)
        return false;

    copy_elements(W, E);
    dpbtrs(&uplo, &nb, &kd, &m, AB.GetElements(), &ldab, W.GetElements(), &nb, &info, 1);
    if (info != 0)
        return false;

    // S = A22 - A12^T W, upper triangle; each sum from 0 in ascending k, subtracted once.
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c) {
            double sigma = 0.0;
            for (int k = 0; k < nb; ++k)
                sigma = sigma + W(k, c) * E(k, r);
            S(r, c) = S(r, c) - sigma;
        }

    copy_elements(Y, B1);
    dpbtrs(&uplo, &nb, &kd, &nrhs, AB.GetElements(), &ldab, Y.GetElements(), &nb, &info, 1);
    if (info != 0)
        return false;

    // B2 - A12^T Y: the border right-hand sides of the Schur complement system.
    for (int r = 0; r < m; ++r)
        for (int c = 0; c < nrhs; ++c) {
            double sigma = 0.0;
            for (int k = 0; k < nb; ++k)
                sigma = sigma + Y(k, c) * E(k, r);
            B2(r, c) = B2(r, c) - sigma;
        }

    // Deliberate: a negative first diagonal (strict; zero and NaN do not trigger) negates the
    // whole system S X2 = B2, which leaves X2 unchanged and makes a negative definite S
    // positive definite. Only S(0, 0) is inspected: an indefinite S fails in dposv. With m = 0
    // there is no S(0, 0) to inspect, and dposv rejects the empty order anyway.
    if (m > 0 && S(0, 0) < 0.0) {
        for (int r = 0; r < m; ++r) {
            for (int c = r; c < m; ++c)
                flip_sign(S(r, c));
            for (int c = 0; c < nrhs; ++c)
                flip_sign(B2(r, c));
        }
    }

    dposv(&uplo, &m, &nrhs, S.GetElements(), &m, B2.GetElements(), &m, &info, 1);
    if (info != 0)
        return false;

    // B1 - A12 X2, then X1 with the band factor.
    for (int i = 0; i < nb; ++i)
        for (int c = 0; c < nrhs; ++c) {
            double sigma = 0.0;
            for (int k = 0; k < m; ++k)
                sigma = sigma + B2(k, c) * E(i, k);
            B1(i, c) = B1(i, c) - sigma;
        }

    dpbtrs(&uplo, &nb, &kd, &nrhs, AB.GetElements(), &ldab, B1.GetElements(), &nb, &info, 1);
    if (info != 0)
        return false;

    X.Dimension(B.GetRowDim(), B.GetColDim(), -1, -1);
    for (int c = 0; c < nrhs; ++c) {
        for (int i = 0; i < nb; ++i)
            X(i, c) = B1(i, c);
        for (int r = 0; r < m; ++r)
            X(nb + r, c) = B2(r, c);
    }
    return true;
}
