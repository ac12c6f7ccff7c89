// KELMATRIX band Cholesky fuzzer
// Cholesky_factor and Cholesky_subst on random orders, band widths, tolerances and values,
// the same band in dense storage, in band storage and behind a forwarding type (the generic route).
//
// Properties: all three give the same count and the same bits, NaN payloads aside (the routines
// read only the upper band, through the accessor, in a fixed order, on either route); the count is
// the number of diagonals that are not the dropped mark -1.0; nothing crashes or trips a sanitizer,
// whatever the values.
#include "kelmatrix/band.h"

#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    fz::misalign(in);
    const int n = in.ConsumeIntegralInRange<int>(0, 16);
    const int w = in.ConsumeIntegralInRange<int>(1, n + 1),
              nrhs = in.ConsumeIntegralInRange<int>(0, 3);
    const double tol = in.ConsumeBool() ? 1e-12 : fz::value(in);
    const std::vector<double> a = fz::upper_band(in, n, w);
    KelMatrix D, G;
    KelMatrixBanded B;
    fz::all_storages(in, a, n, w, D, B, G);
    fz::Forward F(G);
    KelMatrix X1, X2, X3;
    X1.Dimension(n, nrhs, -1, -1);
    for (int k = 0; k < X1.GetStorageSize(); ++k)
        X1.GetElements()[k] = fz::value(in);
    X2 = X1;
    X3 = X1;

    const int count = Cholesky_factor(D, w, tol);
    FUZZ_CHECK(Cholesky_factor(B, w, tol) == count);
    FUZZ_CHECK(Cholesky_factor(F, w, tol) == count);
    int dropped = 0;
    for (int j = 0; j < n; ++j) {
        dropped += D(j, j) == -1.0;
        for (int i = std::max(0, j - w); i <= j; ++i)
            FUZZ_CHECK(fz::same_result(D(i, j), B(i, j)) && fz::same_result(D(i, j), F(i, j)));
    }
    FUZZ_CHECK(count == n - dropped);
    Cholesky_subst(D, w, X1);
    Cholesky_subst(B, w, X2);
    Cholesky_subst(F, w, X3);
    FUZZ_CHECK(fz::same_results(X1, X2) && fz::same_results(X1, X3));
    return 0;
}
