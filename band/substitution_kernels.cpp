// KELMATRIX band substitution kernels (internal)
// The forward and backward passes on strided views, bit for bit as the generic loops.
//
// One right-hand side runs the generic loop with U's diagonal read once per row and the
// unknown just solved kept in a register. Several right-hand sides are walked together in
// blocks of 16, 8, 4 or 2: the solved rows of the last bw + 1 unknowns are kept row-major in a
// ring on the stack, so every term is one vector operation across the columns, while each
// column still takes its terms in its own fixed order. A far-strided diagonal (dense storage:
// one page per element) is first copied into a row on the stack when it fits.
#include <algorithm>
#include <type_traits>

#include "band/direct_kernels.h"
#include "band/simd_pair.h"

namespace kelmatrix {
namespace internal {
namespace {

// Right-hand sides walked together, at most.
constexpr int kColumnBlock = 16;
// The ring of solved rows: at most this many doubles (64 KiB); a block of W columns needs
// (min(bw, n - 1) + 1) W of them, so wide bands walk fewer columns at a time.
constexpr int kRingDoubles = 8192;
// Distance in doubles between diagonal elements beyond which the diagonal is copied first, and
// the longest diagonal copied (32 KiB).
constexpr long long kFarDiagonal = 64;
constexpr int kDiagonalCopy = 4096;

// One right-hand side. The first term of each unknown is the unknown just stored, taken from a
// register instead of memory: no store lies between, so it is the value a load would return.
void forward_column(const StridedView& u, const StridedView& diag, int n, int bw,
                    const StridedView& b, int off, int c)
{
    double last = 0.0;
    for (int i = 0; i < n; ++i) {
        const double d = diag(i, i);
        double y = 0.0;
        if (!(d < 0.0)) { // zero included (divides by it), and NaN too; only dropped give 0
            double s = b(i + off, c);
            const int k_end = std::max(0, i - bw);
            if (i - 1 >= k_end && diag(i - 1, i - 1) >= 0.0) // zero included, NaN excluded
                s -= u(i - 1, i) * last;
            for (int k = i - 2; k >= k_end; --k)
                if (diag(k, k) >= 0.0)
                    s -= u(k, i) * b(k + off, c);
            y = s / d;
        }
        b(i + off, c) = y;
        last = y;
    }
}

void backward_column(const StridedView& u, const StridedView& diag, int n, int bw,
                     const StridedView& b, int off, int c)
{
    double last = 0.0;
    for (int i = n - 1; i >= 0; --i) {
        const double d = diag(i, i);
        double x = 0.0;
        if (!(d <= 0.0)) { // strictly positive, and NaN too; zero and dropped give 0
            double s = b(i + off, c);
            const int k_end = std::min(n - 1, i + bw);
            if (i + 1 <= k_end && diag(i + 1, i + 1) >= 0.0) // zero included, NaN excluded
                s -= u(i, i + 1) * last;
            for (int k = i + 2; k <= k_end; ++k)
                if (diag(k, k) >= 0.0)
                    s -= u(i, k) * b(k + off, c);
            x = s / d;
        }
        b(i + off, c) = x;
        last = x;
    }
}

// W right-hand sides together; ring holds (min(bw, n - 1) + 1) W doubles.
template <int W>
void forward_block(const StridedView& u, const StridedView& diag, int n, int bw,
                   const StridedView& b, int off, int c0, double* ring)
{
    constexpr int V = W / 2;
    const int rows = std::min(bw, n - 1) + 1;
    for (int i = 0, si = 0; i < n; ++i, si = si + 1 == rows ? 0 : si + 1) {
        double* const yi = ring + si * W;
        const double d = diag(i, i);
        if (d < 0.0) { // dropped
            for (int c = 0; c < W; ++c) {
                yi[c] = 0.0;
                b(i + off, c0 + c) = 0.0;
            }
            continue;
        }
        Pair s[V];
        for (int v = 0; v < V; ++v)
            s[v] = Pair{b(i + off, c0 + 2 * v), b(i + off, c0 + 2 * v + 1)};
        const int k_end = std::max(0, i - bw);
        for (int k = i - 1, sk = si; k >= k_end; --k) {
            sk = sk == 0 ? rows - 1 : sk - 1;
            if (diag(k, k) >= 0.0) { // zero included, NaN excluded
                const Pair f = splat(u(k, i));
                const double* yk = ring + sk * W;
                for (int v = 0; v < V; ++v)
                    s[v] -= f * load_pair(yk + 2 * v);
            }
        }
        const Pair dv = splat(d);
        for (int v = 0; v < V; ++v) {
            const Pair y = s[v] / dv;
            store_pair(yi + 2 * v, y);
            b(i + off, c0 + 2 * v) = y[0];
            b(i + off, c0 + 2 * v + 1) = y[1];
        }
    }
}

template <int W>
void backward_block(const StridedView& u, const StridedView& diag, int n, int bw,
                    const StridedView& b, int off, int c0, double* ring)
{
    constexpr int V = W / 2;
    const int rows = std::min(bw, n - 1) + 1;
    for (int i = n - 1, si = (n - 1) % rows; i >= 0; --i, si = si == 0 ? rows - 1 : si - 1) {
        double* const xi = ring + si * W;
        const double d = diag(i, i);
        if (d <= 0.0) { // zero and dropped
            for (int c = 0; c < W; ++c) {
                xi[c] = 0.0;
                b(i + off, c0 + c) = 0.0;
            }
            continue;
        }
        Pair s[V];
        for (int v = 0; v < V; ++v)
            s[v] = Pair{b(i + off, c0 + 2 * v), b(i + off, c0 + 2 * v + 1)};
        const int k_end = std::min(n - 1, i + bw);
        for (int k = i + 1, sk = si; k <= k_end; ++k) {
            sk = sk + 1 == rows ? 0 : sk + 1;
            if (diag(k, k) >= 0.0) { // zero included, NaN excluded
                const Pair f = splat(u(i, k));
                const double* xk = ring + sk * W;
                for (int v = 0; v < V; ++v)
                    s[v] -= f * load_pair(xk + 2 * v);
            }
        }
        const Pair dv = splat(d);
        for (int v = 0; v < V; ++v) {
            const Pair x = s[v] / dv;
            store_pair(xi + 2 * v, x);
            b(i + off, c0 + 2 * v) = x[0];
            b(i + off, c0 + 2 * v + 1) = x[1];
        }
    }
}

template <bool Forward>
void substitute(const StridedView& u, int n, int bw, const StridedView& b, int off, int c,
                int c_end)
{
    if (n <= 0 || c >= c_end)
        return;
    bw = std::min(bw, n); // the loops clamp at 0 and n - 1: wider changes nothing
    alignas(32) double diag_copy[kDiagonalCopy];
    StridedView diag = u;
    if (u.rs + u.cs > kFarDiagonal && n <= kDiagonalCopy) {
        for (int k = 0; k < n; ++k)
            diag_copy[k] = u(k, k);
        diag = StridedView{diag_copy, 1, 0};
    }
    alignas(32) double ring[kRingDoubles];
    const int rows = std::min(bw, n - 1) + 1;
    auto run = [&](auto width) { // blocks of w columns while they fit the ring
        constexpr int w = decltype(width)::value;
        for (; c_end - c >= w && rows * w <= kRingDoubles; c += w) {
            if (Forward)
                forward_block<w>(u, diag, n, bw, b, off, c, ring);
            else
                backward_block<w>(u, diag, n, bw, b, off, c, ring);
        }
    };
    run(std::integral_constant<int, kColumnBlock>{});
    run(std::integral_constant<int, 8>{});
    run(std::integral_constant<int, 4>{});
    run(std::integral_constant<int, 2>{});
    for (; c < c_end; ++c) {
        if (Forward)
            forward_column(u, diag, n, bw, b, off, c);
        else
            backward_column(u, diag, n, bw, b, off, c);
    }
}

} // namespace

void forward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off, int c_begin,
                    int c_end)
{
    substitute<true>(u, n, bw, b, off, c_begin, c_end);
}

void backward_kernel(const StridedView& u, int n, int bw, const StridedView& b, int off,
                     int c_begin, int c_end)
{
    substitute<false>(u, n, bw, b, off, c_begin, c_end);
}

} // namespace internal
} // namespace kelmatrix
