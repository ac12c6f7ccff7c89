// KELMATRIX band substitution kernels, one instruction set (internal)
// The forward and backward passes on strided views, bit for bit as the generic loops. Included
// once per instruction set by substitution_kernels*.cpp, which define KEL_ISA_NS, KEL_ISA_TARGET
// and KEL_ISA_WIDTH as for tiled_factor_body.h.
//
// One right-hand side runs the generic loop with U's diagonal read once per row and the
// unknown just solved kept in a register. Several right-hand sides are walked together in
// blocks of 16, 8, 4 or 2: the solved rows of the last bw + 1 unknowns are kept row-major in a
// ring on the stack, so every term is one vector operation across the columns, while each
// column still takes its terms in its own fixed order; the vectors are as wide as the
// instruction set allows (KEL_ISA_WIDTH doubles, fewer for a narrower block). A far-strided
// diagonal (dense storage: one page per element) is first copied into a row on the stack when
// it fits.
#include <algorithm>
#include <cstring>
#include <type_traits>

#include "band/direct_kernels.h"

namespace kelmatrix {
namespace internal {
namespace KEL_ISA_NS {
namespace {

// L doubles side by side: each lane takes exactly the scalar operations.
template <int L> struct Lanes {
    typedef double type __attribute__((vector_size(L * sizeof(double))));
};

// Right-hand sides walked together, at most.
constexpr int kColumnBlock = 16;
// The ring of solved rows: at most this many doubles (64 KiB), (min(bw, n - 1) + 1) W of them
// for a block of W columns; wider bands read the solved rows from the right-hand sides.
constexpr int kRingDoubles = 8192;
// Distance in doubles between diagonal elements beyond which the diagonal is copied first, and
// the longest diagonal copied (32 KiB).
constexpr long long kFarDiagonal = 64;
constexpr int kDiagonalCopy = 4096;

// What distinguishes the two passes: the forward pass runs i up and each sum's k down from
// i - 1, reading U(k, i), and solves unless U(i, i) < 0; the backward pass runs i down and k up
// from i + 1, reading U(i, k), and solves unless U(i, i) <= 0. NaN solves in both.
template <bool Forward> struct Pass {
    static int first(int n) { return Forward ? 0 : n - 1; }
    static bool in(int i, int n) { return Forward ? i < n : i >= 0; }
    static int next(int i) { return Forward ? i + 1 : i - 1; }
    static int prev(int k) { return Forward ? k - 1 : k + 1; } // the next term of a sum
    static int last_term(int i, int n, int bw)
    {
        return Forward ? std::max(0, i - bw) : std::min(n - 1, i + bw);
    }
    static bool reaches(int k, int last) { return Forward ? k >= last : k <= last; }
    static double coefficient(const StridedView& u, int i, int k)
    {
        return Forward ? u(k, i) : u(i, k);
    }
    static bool solves(double d) { return Forward ? !(d < 0.0) : !(d <= 0.0); }
};

// One right-hand side. The first term of each unknown is the unknown just stored, taken from a
// register instead of memory: no store lies between, so it is the value a load would return.
template <bool Forward>
KEL_ISA_TARGET void walk_column(const StridedView& u_view, const StridedView& diag_view, int n,
                                int bw, const StridedView& b_view, int off, int c)
{
    // Local copies: the stores into b cannot change them, so their fields stay in registers.
    const StridedView u = u_view, diag = diag_view, b = b_view;
    using P = Pass<Forward>;
    double last = 0.0;
    for (int i = P::first(n); P::in(i, n); i = P::next(i)) {
        const double d = diag(i, i);
        double x = 0.0;
        if (P::solves(d)) {
            double s = b(i + off, c);
            const int k_last = P::last_term(i, n, bw), k = P::prev(i);
            if (P::reaches(k, k_last) && diag(k, k) >= 0.0) // zero included, NaN excluded
                s -= P::coefficient(u, i, k) * last;
            for (int kk = P::prev(k); P::reaches(kk, k_last); kk = P::prev(kk))
                if (diag(kk, kk) >= 0.0)
                    s -= P::coefficient(u, i, kk) * b(kk + off, c);
            x = s / d;
        }
        b(i + off, c) = x;
        last = x;
    }
}

// b(row, c .. c + L - 1) as one vector.
template <class Vec, int L> KEL_ISA_TARGET inline Vec gather(const StridedView& b, int row, int c)
{
    Vec x = {};
    for (int l = 0; l < L; ++l)
        x[l] = b(row, c + l);
    return x;
}

// W right-hand sides together, L of them a vector. With a ring of (min(bw, n - 1) + 1) W
// doubles the solved rows are kept row-major, slot i mod rows, so every term is one vector load
// per L columns; without one (ring == nullptr) they are read back from b.
template <bool Forward, int W>
KEL_ISA_TARGET void walk_block(const StridedView& u_view, const StridedView& diag_view, int n,
                               int bw, const StridedView& b_view, int off, int c0, double* ring)
{
    const StridedView u = u_view, diag = diag_view, b = b_view; // as in walk_column
    using P = Pass<Forward>;
    constexpr int L = W < KEL_ISA_WIDTH ? W : KEL_ISA_WIDTH, V = W / L;
    typedef typename Lanes<L>::type Vec;
    const int rows = std::min(bw, n - 1) + 1;
    const auto up = [rows](int s) { return s + 1 == rows ? 0 : s + 1; };
    const auto down = [rows](int s) { return s == 0 ? rows - 1 : s - 1; };
    for (int i = P::first(n), si = i % rows; P::in(i, n);
         i = P::next(i), si = Forward ? up(si) : down(si)) {
        double* const xi = ring ? ring + si * W : nullptr;
        const double d = diag(i, i);
        if (!P::solves(d)) {
            for (int c = 0; c < W; ++c) {
                if (ring)
                    xi[c] = 0.0;
                b(i + off, c0 + c) = 0.0;
            }
            continue;
        }
        // Vectors built lane by lane in registers (a wide load of narrow stores would stall).
        Vec s[V];
        for (int v = 0; v < V; ++v)
            s[v] = gather<Vec, L>(b, i + off, c0 + L * v);
        const int k_last = P::last_term(i, n, bw);
        for (int k = P::prev(i), sk = Forward ? down(si) : up(si); P::reaches(k, k_last);
             k = P::prev(k), sk = Forward ? down(sk) : up(sk)) {
            if (diag(k, k) >= 0.0) { // zero included, NaN excluded
                const double f = P::coefficient(u, i, k);
                if (ring) {
                    const double* xk = ring + sk * W;
                    for (int v = 0; v < V; ++v) {
                        Vec x;
                        std::memcpy(&x, xk + L * v, sizeof x);
                        s[v] -= x * f;
                    }
                } else {
                    for (int v = 0; v < V; ++v)
                        s[v] -= gather<Vec, L>(b, k + off, c0 + L * v) * f;
                }
            }
        }
        for (int v = 0; v < V; ++v) {
            const Vec x = s[v] / d;
            if (ring)
                std::memcpy(xi + L * v, &x, sizeof x);
            for (int l = 0; l < L; ++l)
                b(i + off, c0 + L * v + l) = x[l];
        }
    }
}

template <bool Forward>
KEL_ISA_TARGET void substitute(const StridedView& u, int n, int bw, const StridedView& b, int off,
                               int c, int c_end)
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
    alignas(32) double ring_doubles[kRingDoubles];
    const int rows = std::min(bw, n - 1) + 1;
    auto run = [&](auto width) {
        constexpr int w = decltype(width)::value;
        double* ring = rows * w <= kRingDoubles ? ring_doubles : nullptr;
        for (; c_end - c >= w; c += w)
            walk_block<Forward, w>(u, diag, n, bw, b, off, c, ring);
    };
    run(std::integral_constant<int, kColumnBlock>{});
    run(std::integral_constant<int, 8>{});
    run(std::integral_constant<int, 4>{});
    run(std::integral_constant<int, 2>{});
    for (; c < c_end; ++c)
        walk_column<Forward>(u, diag, n, bw, b, off, c);
}

} // namespace

KEL_ISA_TARGET void forward_kernel(const StridedView& u, int n, int bw, const StridedView& b,
                                   int off, int c_begin, int c_end)
{
    substitute<true>(u, n, bw, b, off, c_begin, c_end);
}

KEL_ISA_TARGET void backward_kernel(const StridedView& u, int n, int bw, const StridedView& b,
                                    int off, int c_begin, int c_end)
{
    substitute<false>(u, n, bw, b, off, c_begin, c_end);
}

} // namespace KEL_ISA_NS
} // namespace internal
} // namespace kelmatrix
