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

// The blocks of the bordered system, each a temporary of its own.
struct Blocks {
    int nb, m, nrhs, kd, ldab;
    KelMatrixBanded AB; // A11, then its factor
    KelMatrix E;        // A12
    KelMatrix S;        // A22, then the Schur complement, then its factor
    KelMatrix B1;       // leading right-hand sides, then X1
    KelMatrix B2;       // border right-hand sides, then X2
};

// Copies the upper band of A11, A12, the upper triangle of A22 and both parts of B into the
// blocks, every other element zero.
void copy_in(const KelMatrix& A, const KelMatrix& B, Blocks& t)
{
    const int nb = t.nb, m = t.m, kd = t.kd;
    // kl = 0, ku = kd: exactly LAPACK's upper symmetric band storage with LDAB = kd + 1.
    t.AB.SetSymmetric(true);
    t.AB.Dimension(nb, nb, 0, kd);
    t.AB.SetZero();
    t.E.Dimension(nb, m, -1, -1);
    t.E.SetZero();
    t.S.SetSymmetric(true);
    t.S.SetUsesUpper();
    t.S.Dimension(m, m, -1, -1);
    t.S.SetZero();
    t.B1.Dimension(nb, t.nrhs, -1, -1);
    t.B1.SetZero();
    t.B2.Dimension(m, t.nrhs, -1, -1);
    t.B2.SetZero();

    for (int i = 0; i < nb; ++i) {
        const int j_end = std::min(nb - 1, i + kd);
        for (int j = i; j <= j_end; ++j)
            t.AB(i, j) = A(i, j);
    }
    for (int i = 0; i < nb; ++i)
        for (int k = 0; k < m; ++k)
            t.E(i, k) = A(i, nb + k);
    for (int r = 0; r < m; ++r)
        for (int c = r; c < m; ++c)
            t.S(r, c) = A(nb + r, nb + c);
    for (int c = 0; c < t.nrhs; ++c) {
        for (int i = 0; i < nb; ++i)
            t.B1(i, c) = B(i, c);
        for (int r = 0; r < m; ++r)
            t.B2(r, c) = B(nb + r, c);
    }
}

// P := A11^-1 P with the band factor in AB.
bool band_solve(Blocks& t, KelMatrix& P)
{
    const char uplo = 'U';
    int cols = P.GetColDim(), info = 0;
    dpbtrs(&uplo, &t.nb, &t.kd, &cols, t.AB.GetElements(), &t.ldab, P.GetElements(), &t.nb, &info,
           /*uplo_len=*/1);
    return info == 0;
}

// T(r, c) -= sum_{k < depth} P(k, c) e(k, r) for r < T.rows and c from r (upper) or 0; each
// sum from 0 in ascending k, subtracted once.
template <class Factor>
void subtract_product(KelMatrix& T, const KelMatrix& P, int depth, Factor e, bool upper)
{
    const int rows = T.GetRowDim(), cols = T.GetColDim();
    for (int r = 0; r < rows; ++r)
        for (int c = upper ? r : 0; c < cols; ++c) {
            double sigma = 0.0;
            for (int k = 0; k < depth; ++k)
                sigma = sigma + P(k, c) * e(k, r);
            T(r, c) = T(r, c) - sigma;
        }
}

// S = A22 - A12^T A11^-1 A12 and B2 - A12^T A11^-1 B1: the border's Schur complement system.
bool form_schur_complement(Blocks& t)
{
    KelMatrix W; // A11^-1 A12, overwritten whole
    W.Dimension(t.nb, t.m, -1, -1);
    copy_elements(W, t.E);
    if (!band_solve(t, W))
        return false;
    const auto e_transposed = [&t](int k, int r) { return t.E(k, r); }; // A12^T
    subtract_product(t.S, W, t.nb, e_transposed, /*upper=*/true);

    KelMatrix Y; // A11^-1 B1, overwritten whole
    Y.Dimension(t.nb, t.nrhs, -1, -1);
    copy_elements(Y, t.B1);
    if (!band_solve(t, Y))
        return false;
    subtract_product(t.B2, Y, t.nb, e_transposed, /*upper=*/false);
    return true;
}

// X2 from S X2 = B2 by dposv, into B2.
bool solve_border(Blocks& t)
{
    const char uplo = 'U';
    const int m = t.m;
    // Deliberate: a negative first diagonal (strict; zero and NaN do not trigger) negates the
    // whole system S X2 = B2, which leaves X2 unchanged and makes a negative definite S
    // positive definite. Only S(0, 0) is inspected: an indefinite S fails in dposv. With m = 0
    // there is no S(0, 0) to inspect, and dposv rejects the empty order anyway.
    if (m > 0 && t.S(0, 0) < 0.0) {
        for (int r = 0; r < m; ++r) {
            for (int c = r; c < m; ++c)
                flip_sign(t.S(r, c));
            for (int c = 0; c < t.nrhs; ++c)
                flip_sign(t.B2(r, c));
        }
    }
    int info = 0;
    dposv(&uplo, &t.m, &t.nrhs, t.S.GetElements(), &t.m, t.B2.GetElements(), &t.m, &info, 1);
    return info == 0;
}

// X1 = A11^-1 (B1 - A12 X2), into B1.
bool back_substitute(Blocks& t)
{
    subtract_product(
        t.B1, t.B2, t.m, [&t](int k, int i) { return t.E(i, k); }, /*upper=*/false);
    return band_solve(t, t.B1);
}

} // namespace

bool SolveBSP_Cyclic(const KelMatrix& A, const KelMatrix& B, int nb, int bandWidth, KelMatrix& X)
{
    KELMATRIX_CHECK(cyclic_solve(A, B, nb, bandWidth));
    const char uplo = 'U';
    Blocks t;
    t.nb = nb;
    t.m = A.GetRowDim() - nb;
    t.nrhs = B.GetColDim();
    t.kd = bandWidth / 2; // Deliberate: bandWidth is the total width; 2 and 3 give 1
    t.ldab = t.kd + 1;
    copy_in(A, B, t);

    int info = 0;
    dpbtrf(&uplo, &t.nb, &t.kd, t.AB.GetElements(), &t.ldab, &info, /*uplo_len=*/1);
    if (info != 0 || !form_schur_complement(t) || !solve_border(t) || !back_substitute(t))
        return false;

    X.Dimension(B.GetRowDim(), B.GetColDim(), -1, -1);
    for (int c = 0; c < t.nrhs; ++c) {
        for (int i = 0; i < nb; ++i)
            X(i, c) = t.B1(i, c);
        for (int r = 0; r < t.m; ++r)
            X(nb + r, c) = t.B2(r, c);
    }
    return true;
}
