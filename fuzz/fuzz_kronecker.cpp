// KELMATRIX Kronecker fuzzer
// Solve_Kronecker on random SPD-or-not band operands, shapes and copy modes, and the Kronecker
// substitutions on random factors in dense storage, in band storage and behind a forwarding type
// (the generic route), an empty inner factor (q = 0) included.
//
// Properties: Solve_Kronecker with copies never changes A or B, and X only on success; the
// substitutions give the same bits (NaN payloads aside) whatever the factors' storage and route
// (only their upper bands are read, through the accessor).
#include "kelmatrix/band.h"

#include "fuzz_input.h"

namespace {

void band_operand(FuzzedDataProvider& in, int n, int kd, KelMatrixBanded& m)
{
    m.Dimension(n, n, 0, kd);
    const std::vector<double> a = fz::upper_band(in, n, std::max(kd, 0));
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - kd); i <= j && kd >= 0; ++i)
            m(i, j) = a[std::size_t(j) * n + i];
}

void solve(FuzzedDataProvider& in)
{
    const int nA = in.ConsumeIntegralInRange<int>(1, 8), nB = in.ConsumeIntegralInRange<int>(0, 8);
    KelMatrixBanded A, B;
    band_operand(in, nA, in.ConsumeIntegralInRange<int>(-1, nA + 1), A);
    band_operand(in, nB, in.ConsumeIntegralInRange<int>(-1, nB + 1), B);
    KelMatrix X;
    X.Dimension(in.ConsumeBool() ? nB : in.ConsumeIntegralInRange<int>(0, nB + 2),
                in.ConsumeIntegralInRange<int>(0, 3 * nA + 2), -1, -1);
    for (int k = 0; k < X.GetStorageSize(); ++k)
        X.GetElements()[k] = fz::value(in);
    const bool copy = in.ConsumeBool();
    const std::vector<double> a0 = fz::snapshot(A), b0 = fz::snapshot(B), x0 = fz::snapshot(X);
    const bool ok = Solve_Kronecker(A, B, X, copy);
    if (copy) {
        FUZZ_CHECK(fz::same(fz::snapshot(A), a0) && fz::same(fz::snapshot(B), b0));
        FUZZ_CHECK(ok || fz::same(fz::snapshot(X), x0));
    }
}

void substitute(FuzzedDataProvider& in)
{
    const int p = in.ConsumeIntegralInRange<int>(0, 7), q = in.ConsumeIntegralInRange<int>(0, 7);
    const int w1 = in.ConsumeIntegralInRange<int>(1, p + 1),
              w2 = in.ConsumeIntegralInRange<int>(1, q + 1);
    KelMatrix D1, D2, G1, G2;
    KelMatrixBanded B1, B2;
    fz::all_storages(in, fz::upper_band(in, p, w1), p, w1, D1, B1, G1);
    fz::all_storages(in, fz::upper_band(in, q, w2), q, w2, D2, B2, G2);
    fz::Forward F1(G1), F2(G2);
    if (in.ConsumeBool()) { // factors as Cholesky_factor leaves them, dropped pivots included
        const double tol = fz::value(in);
        for (KelGenericMatrix* U : std::initializer_list<KelGenericMatrix*>{&D1, &B1, &F1})
            Cholesky_factor(*U, w1, tol);
        for (KelGenericMatrix* U : std::initializer_list<KelGenericMatrix*>{&D2, &B2, &F2})
            Cholesky_factor(*U, w2, tol);
    }
    KelMatrix X1, X2, X3;
    X1.Dimension(p * q, in.ConsumeIntegralInRange<int>(0, 3), -1, -1);
    for (int k = 0; k < X1.GetStorageSize(); ++k)
        X1.GetElements()[k] = fz::value(in);
    X2 = X1;
    X3 = X1;
    kronecker_lower_substitute(w1, w2, D1, D2, X1);
    kronecker_lower_substitute(w1, w2, B1, B2, X2);
    kronecker_lower_substitute(w1, w2, F1, F2, X3);
    FUZZ_CHECK(fz::same_results(X1, X2) && fz::same_results(X1, X3));
    kronecker_upper_substitute(w1, w2, D1, D2, X1);
    kronecker_upper_substitute(w1, w2, B1, B2, X2);
    kronecker_upper_substitute(w1, w2, F1, F2, X3);
    FUZZ_CHECK(fz::same_results(X1, X2) && fz::same_results(X1, X3));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    fz::misalign(in);
    if (in.ConsumeBool())
        solve(in);
    else
        substitute(in);
    return 0;
}
