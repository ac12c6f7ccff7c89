// KELMATRIX cyclic band fuzzer
// cyclic_Cholesky_factor and cyclic_Cholesky_subst on random band blocks and borders, in dense
// storage, in band storage and behind a forwarding type (the generic route); SolveBSP_Cyclic on
// the same matrix with any split and band width.
//
// Properties: the three give the same count and the same bits (NaN payloads aside) in every entry
// the routines read (the upper band of A11, the border columns, the upper triangle of A22), garbage
// elsewhere being ignored; SolveBSP_Cyclic never changes A or B, and X only on success.
#include "kelmatrix/band.h"

#include "fuzz_input.h"

namespace {

bool is_read(int i, int j, int nb, int bw)
{
    return i <= j && (j >= nb || j - i <= bw);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    fz::misalign(in);
    const int n = in.ConsumeIntegralInRange<int>(0, 14);
    const int m = in.ConsumeIntegralInRange<int>(0, n), nb = n - m;
    const int bw = in.ConsumeIntegralInRange<int>(0, nb + 1),
              nrhs = in.ConsumeIntegralInRange<int>(0, 3);
    const double tol = in.ConsumeBool() ? 1e-12 : fz::value(in);
    const bool dominant = in.ConsumeBool();
    const double garbage = fz::value(in);

    KelMatrix D;
    KelMatrixBanded B;
    D.Dimension(n, n, -1, -1);
    B.Dimension(n, n, in.ConsumeIntegralInRange<int>(0, 2), std::max(0, n - 1));
    std::fill(D.GetElements(), D.GetElements() + D.GetStorageSize(), garbage);
    std::fill(B.GetElements(), B.GetElements() + B.GetStorageSize(), -garbage);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            if (is_read(i, j, nb, bw))
                D(i, j) = B(i, j) = i == j && dominant ? 2.0 * n
                                    : dominant ? in.ConsumeFloatingPointInRange<double>(-1.0, 1.0)
                                               : fz::value(in);
    KelMatrix original, G;
    original = D;
    G = D;
    fz::Forward F(G);

    KelMatrix X1, X2;
    X1.Dimension(n, nrhs, -1, -1);
    for (int k = 0; k < X1.GetStorageSize(); ++k)
        X1.GetElements()[k] = fz::value(in);
    X2 = X1;
    KelMatrix X3, rhs;
    X3 = X1;
    rhs = X1;

    const int count = cyclic_Cholesky_factor(D, bw, m, tol);
    FUZZ_CHECK(cyclic_Cholesky_factor(B, bw, m, tol) == count);
    FUZZ_CHECK(cyclic_Cholesky_factor(F, bw, m, tol) == count);
    FUZZ_CHECK(count >= 0 && count <= m);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i <= j; ++i)
            if (is_read(i, j, nb, bw))
                FUZZ_CHECK(fz::same_result(D(i, j), B(i, j)) && fz::same_result(D(i, j), F(i, j)));
    cyclic_Cholesky_subst(D, bw, m, X1);
    cyclic_Cholesky_subst(B, bw, m, X2);
    cyclic_Cholesky_subst(F, bw, m, X3);
    FUZZ_CHECK(fz::same_results(X1, X2) && fz::same_results(X1, X3));

    // The driver over LAPACK: any split 0..n and total band width from -3 (kd = -1) up.
    const int split = in.ConsumeIntegralInRange<int>(0, n);
    const int band_width = in.ConsumeIntegralInRange<int>(-3, 2 * n + 2);
    KelMatrix X;
    X.Dimension(in.ConsumeIntegralInRange<int>(0, 3), 1, -1, -1);
    X.SetZero();
    const std::vector<double> a0 = fz::snapshot(original), b0 = fz::snapshot(rhs),
                              x0 = fz::snapshot(X);
    const double* x_block = X.GetElements();
    const int x_rows = X.GetRowDim();
    const KelMatrix& A = original;
    if (SolveBSP_Cyclic(A, rhs, split, band_width, X)) {
        FUZZ_CHECK(X.GetRowDim() == n && X.GetColDim() == nrhs);
    } else {
        FUZZ_CHECK(X.GetElements() == x_block && X.GetRowDim() == x_rows &&
                   fz::same(fz::snapshot(X), x0));
    }
    FUZZ_CHECK(fz::same(fz::snapshot(original), a0) && fz::same(fz::snapshot(rhs), b0));
    return 0;
}
