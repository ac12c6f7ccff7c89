// KELMATRIX fuzzing input
// Turns libFuzzer's bytes into shapes, band widths and values, and checks properties.
//
// Values come from the special set (zeros of both signs, NaN, infinities, the smallest
// subnormal, tiny and huge magnitudes, the largest double), from a moderate range, or from raw
// bits. A failed property prints what failed and aborts, which libFuzzer reports as a crash.
#ifndef KELMATRIX_FUZZ_INPUT_H
#define KELMATRIX_FUZZ_INPUT_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "kelmatrix/matrix.h"

#define FUZZ_CHECK(cond)                                                                           \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #cond);       \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

// LAPACK's argument check reports through xerbla; the harnesses reach it on purpose (negative
// band widths, empty blocks), so its message is silenced here rather than printed per input.
// Each harness is one source file, so this definition appears once per executable.
extern "C" __attribute__((visibility("default"))) void xerbla(const char*, const int*, int)
{
}

namespace fz {

inline double value(FuzzedDataProvider& in)
{
    using L = std::numeric_limits<double>;
    switch (in.ConsumeIntegralInRange<int>(0, 15)) {
    case 0:
        return 0.0;
    case 1:
        return -0.0;
    case 2:
        return L::quiet_NaN();
    case 3:
        return L::infinity();
    case 4:
        return -L::infinity();
    case 5:
        return L::denorm_min();
    case 6:
        return 1e-300;
    case 7:
        return 1e300;
    case 8:
        return L::max();
    case 9:
        return -L::max();
    case 10: {
        const std::uint64_t bits = in.ConsumeIntegral<std::uint64_t>();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
    }
    default:
        return in.ConsumeFloatingPointInRange<double>(-4.0, 4.0);
    }
}

/// The process-wide misalignment, set before the input's matrices exist: 0 to 32 bytes in
/// steps of 8 (any other step would misalign the doubles themselves).
inline void misalign(FuzzedDataProvider& in)
{
    kelmatrix_set_mkl_misalignment(in.ConsumeIntegralInRange<int>(0, 4) * 8);
}

/// Bit-for-bit equality of two element-by-element reads (NaN payloads included).
inline bool same_bits(double a, double b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

inline bool same_storage(const KelGenericMatrix& a, const KelGenericMatrix& b)
{
    return a.GetStorageSize() == b.GetStorageSize() &&
           (a.GetStorageSize() == 0 || std::memcmp(a.GetElements(), b.GetElements(),
                                                   sizeof(double) * a.GetStorageSize()) == 0);
}

/// Equality of two routes' results: the same bits, or both NaN (the payload of a NaN made where
/// two NaNs meet depends on operand order, which the routes do not pin).
inline bool same_result(double a, double b)
{
    return same_bits(a, b) || (std::isnan(a) && std::isnan(b));
}

inline bool same_results(const KelGenericMatrix& a, const KelGenericMatrix& b)
{
    if (a.GetStorageSize() != b.GetStorageSize())
        return false;
    for (int k = 0; k < a.GetStorageSize(); ++k)
        if (!same_result(a.GetElements()[k], b.GetElements()[k]))
            return false;
    return true;
}

inline std::vector<double> snapshot(const KelGenericMatrix& m)
{
    return std::vector<double>(m.GetElements(), m.GetElements() + m.GetStorageSize());
}

inline bool same(const std::vector<double>& a, const std::vector<double>& b)
{
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), sizeof(double) * a.size()) == 0);
}

/// A storage type the library cannot address directly: every element access is forwarded to a
/// library matrix, so the native routines serve it by their generic (accessor) route.
class Forward : public KelGenericMatrix {
public:
    explicit Forward(KelGenericMatrix& m) : m_(m)
    {
        rowDim = m.GetRowDim();
        colDim = m.GetColDim();
        lowerBandWidth = m.GetLowerBandWidth();
        upperBandWidth = m.GetUpperBandWidth();
    }
    double& operator()(int i, int j) override { return m_(i, j); }
    double operator()(int i, int j) const override
    {
        return static_cast<const KelGenericMatrix&>(m_)(i, j);
    }

private:
    KelGenericMatrix& m_;
};

/// A symmetric matrix of order n read through its upper band of width w (0 <= i <= j <= i + w):
/// either raw values, or diagonally dominant ones with a few specials sprinkled in.
inline std::vector<double> upper_band(FuzzedDataProvider& in, int n, int w)
{
    std::vector<double> a(static_cast<std::size_t>(n) * n, 0.0);
    const bool dominant = in.ConsumeBool();
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - w); i < j; ++i)
            a[std::size_t(j) * n + i] =
                dominant ? in.ConsumeFloatingPointInRange<double>(-1.0, 1.0) : value(in);
    for (int i = 0; i < n; ++i)
        a[std::size_t(i) * n + i] = dominant ? 2.0 * w + 1.0 : value(in);
    if (dominant)
        for (int k = in.ConsumeIntegralInRange<int>(0, 2); k > 0 && n > 0; --k) {
            const int j = in.ConsumeIntegralInRange<int>(0, n - 1);
            const int i = in.ConsumeIntegralInRange<int>(std::max(0, j - w), j);
            a[std::size_t(j) * n + i] = value(in);
        }
    return a;
}

/// The same upper band in dense storage (garbage everywhere else), in band storage with upper
/// width ku >= w and kl extra lower diagonals (garbage in every slot outside the band), and in
/// `generic`, a copy of the dense one for a Forward to reach: routines that read only the band
/// through the accessor must give the same bits on all three, whichever route each takes.
inline void all_storages(FuzzedDataProvider& in, const std::vector<double>& a, int n, int w,
                         KelMatrix& dense, KelMatrixBanded& band, KelMatrix& generic)
{
    const int ku = w + in.ConsumeIntegralInRange<int>(0, 2),
              kl = in.ConsumeIntegralInRange<int>(0, 2);
    dense.Dimension(n, n, -1, -1);
    band.Dimension(n, n, kl, ku);
    const double garbage = value(in);
    std::fill(dense.GetElements(), dense.GetElements() + dense.GetStorageSize(), garbage);
    std::fill(band.GetElements(), band.GetElements() + band.GetStorageSize(), -garbage);
    for (int j = 0; j < n; ++j)
        for (int i = std::max(0, j - w); i <= j; ++i)
            dense(i, j) = band(i, j) = a[std::size_t(j) * n + i];
    if (in.ConsumeBool()) { // upper storage flagged symmetric: the accessors mirror into it
        dense.SetSymmetric(true);
        band.SetSymmetric(true);
    }
    generic = dense;
}

} // namespace fz

#endif
