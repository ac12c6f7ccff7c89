// KELMATRIX band substitution kernels, one instruction set (internal)
// The forward and backward passes on strided views, bit for bit as the generic loops. Included
// once per instruction set by vector_kernels.h (KEL_ISA_NS, KEL_ISA_TARGET and KEL_ISA_WIDTH as
// described there).
//
// One right-hand side runs the generic loop with U's diagonal read once per row and the
// unknown just solved kept in a register. Several right-hand sides are walked together in
// blocks of 16, 8, 4 or 2: the solved rows of the last bw + 1 unknowns are kept row-major in a
// ring on the stack, so every term is one vector operation across the columns, while each
// column still takes its terms in its own fixed order; the vectors are as wide as the
// instruction set allows (KEL_ISA_WIDTH doubles, fewer for a narrower block). A band too wide
// for the ring keeps the solved rows row-major in b itself, tile by tile. A far-strided
// diagonal (dense storage: one page per element) is first copied into a row on the stack when
// it fits. Every walk fetches the coefficients of a few rows ahead while a row's sums run.
#include <algorithm>
#include <cstring>
#include <type_traits>

#include "band/direct_kernels.h"
#include "band/simd.h"

namespace kelmatrix {
namespace internal {
namespace KEL_ISA_NS {
namespace {

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
    // The coefficient that the row `ahead` rows further on reads in place of U's (i, k) term.
    static const double* later(const StridedView& u, int i, int k, int ahead)
    {
        return Forward ? &u(k + ahead, i + ahead) : &u(i - ahead, k - ahead);
    }
};

// How many rows ahead the coefficients are fetched while a row's chain runs. Each pass reads
// every coefficient once, and against the address order in one of the two directions; the
// hardware prefetcher does not keep up with that, and a wide band then waits on memory at every
// row. About 1024 terms ahead, at least one row (measured: 512 to 2048 alike).
inline int rows_ahead(int bw)
{
    return std::max(1, 1024 / std::max(1, bw));
}

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
    const int ahead = rows_ahead(bw);
    for (int i = P::first(n); P::in(i, n); i = P::next(i)) {
        const double d = diag(i, i);
        double x = 0.0;
        if (P::solves(d)) {
            double s = b(i + off, c);
            const int k_last = P::last_term(i, n, bw), k = P::prev(i);
            const bool fetch = P::in(Forward ? i + ahead : i - ahead, n);
            if (P::reaches(k, k_last) && diag(k, k) >= 0.0) // zero included, NaN excluded
                s -= P::coefficient(u, i, k) * last;
            for (int kk = P::prev(k); P::reaches(kk, k_last); kk = P::prev(kk)) {
                if (fetch)
                    __builtin_prefetch(P::later(u, i, kk, ahead));
                if (diag(kk, kk) >= 0.0)
                    s -= P::coefficient(u, i, kk) * b(kk + off, c);
            }
            x = s / d;
        }
        b(i + off, c) = x;
        last = x;
    }
}

// b(row, c .. c + L - 1) as one vector.
template <int L> KEL_ISA_TARGET inline simd::Vec<L> gather(const StridedView& b, int row, int c)
{
    simd::Vec<L> x = {};
    for (int l = 0; l < L; ++l)
        x[l] = b(row, c + l);
    return x;
}

// W right-hand sides together, L of them a vector. In a ring of (min(bw, n - 1) + 1) W doubles
// the solved rows are kept row-major, slot i mod rows, so every term is one vector load per L
// columns.
template <bool Forward, int W>
KEL_ISA_TARGET void walk_block(const StridedView& u_view, const StridedView& diag_view, int n,
                               int bw, const StridedView& b_view, int off, int c0, double* ring)
{
    const StridedView u = u_view, diag = diag_view, b = b_view; // as in walk_column
    using P = Pass<Forward>;
    constexpr int L = W < KEL_ISA_WIDTH ? W : KEL_ISA_WIDTH, V = W / L;
    using VecL = simd::Vec<L>; // L <= KEL_ISA_WIDTH lanes
    const int rows = std::min(bw, n - 1) + 1;
    const auto up = [rows](int s) { return s + 1 == rows ? 0 : s + 1; };
    const auto down = [rows](int s) { return s == 0 ? rows - 1 : s - 1; };
    const int ahead = rows_ahead(bw);
    for (int i = P::first(n), si = i % rows; P::in(i, n);
         i = P::next(i), si = Forward ? up(si) : down(si)) {
        double* const xi = ring + si * W;
        const double d = diag(i, i);
        if (!P::solves(d)) {
            for (int c = 0; c < W; ++c)
                xi[c] = b(i + off, c0 + c) = 0.0;
            continue;
        }
        // Vectors built lane by lane in registers (a wide load of narrow stores would stall).
        VecL s[V];
        for (int v = 0; v < V; ++v)
            s[v] = gather<L>(b, i + off, c0 + L * v);
        const int k_last = P::last_term(i, n, bw);
        const bool fetch = P::in(Forward ? i + ahead : i - ahead, n);
        for (int k = P::prev(i), sk = Forward ? down(si) : up(si); P::reaches(k, k_last);
             k = P::prev(k), sk = Forward ? down(sk) : up(sk)) {
            if (fetch)
                __builtin_prefetch(P::later(u, i, k, ahead));
            if (diag(k, k) >= 0.0) { // zero included, NaN excluded
                const double f = P::coefficient(u, i, k);
                const double* xk = ring + sk * W;
                for (int v = 0; v < V; ++v)
                    s[v] -= simd::load<VecL>(xk + L * v) * f;
            }
        }
        for (int v = 0; v < V; ++v) {
            const VecL x = s[v] / d;
            simd::store(xi + L * v, x);
            for (int l = 0; l < L; ++l)
                b(i + off, c0 + L * v + l) = x[l];
        }
    }
}

// W right-hand sides together when the ring cannot hold the band (dense storage): the solved
// rows are kept row-major in b itself, so that every term is still a vector load. Rows are
// taken in tiles of W in the pass's order. A tile's rows are solved into a W x W block on the
// stack, since b still holds the inputs of its later rows; once the tile is whole it is stored
// transposed into its own W x W block of b, where row k's W values are then contiguous. The
// tiles are transposed back at the end of the pass. Values are only moved, never recomputed,
// so b ends bit for bit as the other walks leave it. Needs b's columns contiguous (rs = 1) and
// apart (cs >= off + n).
template <bool Forward, int W>
KEL_ISA_TARGET void walk_block_tiled(const StridedView& u_view, const StridedView& diag_view, int n,
                                     int bw, const StridedView& b_view, int off, int c0)
{
    const StridedView u = u_view, diag = diag_view, b = b_view; // as in walk_column
    using P = Pass<Forward>;
    constexpr int L = W < KEL_ISA_WIDTH ? W : KEL_ISA_WIDTH, V = W / L;
    using VecL = simd::Vec<L>; // L <= KEL_ISA_WIDTH lanes
    const long long cs = b.cs;
    double* const base = b.p + off + c0 * cs; // row off of column c0
    // Tile t holds the rows at pass positions tW .. tW + W - 1; its lowest row:
    const auto low = [n](int t) { return Forward ? t * W : n - W * (t + 1); };
    // Where row k of a stored (whole, earlier) tile keeps its W values.
    const auto stored = [&](int k) {
        const int lo = low((Forward ? k : n - 1 - k) / W);
        return base + lo + (k - lo) * cs;
    };
    alignas(64) double tile[W * W];
    const int whole = n / W, ahead = rows_ahead(bw);
    for (int p = 0; p < n; ++p) {
        const int i = Forward ? p : n - 1 - p, t = p / W, r = p - t * W;
        double* const xi = tile + r * W;
        const double d = diag(i, i);
        if (!P::solves(d)) {
            for (int c = 0; c < W; ++c)
                xi[c] = 0.0;
        } else {
            VecL s[V];
            for (int v = 0; v < V; ++v)
                s[v] = gather<L>(b, i + off, c0 + L * v);
            const int k_last = P::last_term(i, n, bw);
            const bool fetch = P::in(Forward ? i + ahead : i - ahead, n);
            int k = P::prev(i);
            // The terms in the order of the sum: the tile's own rows first (on the stack), then
            // the stored tiles, nearest first.
            for (int rk = r - 1; rk >= 0 && P::reaches(k, k_last); --rk, k = P::prev(k)) {
                if (fetch)
                    __builtin_prefetch(P::later(u, i, k, ahead));
                if (diag(k, k) >= 0.0) { // zero included, NaN excluded
                    const double f = P::coefficient(u, i, k);
                    for (int v = 0; v < V; ++v)
                        s[v] -= simd::load<VecL>(tile + rk * W + L * v) * f;
                }
            }
            for (; P::reaches(k, k_last); k = P::prev(k)) {
                if (fetch)
                    __builtin_prefetch(P::later(u, i, k, ahead));
                if (diag(k, k) >= 0.0) {
                    const double f = P::coefficient(u, i, k);
                    const double* xk = stored(k);
                    for (int v = 0; v < V; ++v)
                        s[v] -= simd::load<VecL>(xk + L * v) * f;
                }
            }
            for (int v = 0; v < V; ++v)
                simd::store(xi + L * v, s[v] / d);
        }
        if (r == W - 1) // the tile is whole: row by row into its block, transposed
            for (int q = 0; q < W; ++q) {
                const int pq = p - (W - 1) + q; // slot q's pass position
                std::memcpy(stored(Forward ? pq : n - 1 - pq), tile + q * W, W * sizeof(double));
            }
    }
    // The last, partial tile straight from the stack; the whole ones transposed back.
    for (int p = whole * W; p < n; ++p) {
        const int i = Forward ? p : n - 1 - p;
        for (int c = 0; c < W; ++c)
            b(i + off, c0 + c) = tile[(p - whole * W) * W + c];
    }
    for (int t = 0; t < whole; ++t) {
        double* const blk = base + low(t);
        for (int a = 0; a < W; ++a)
            for (int c = a + 1; c < W; ++c)
                std::swap(blk[c + a * cs], blk[a + c * cs]);
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
    const bool in_place = b.rs == 1 && b.cs >= static_cast<long long>(off) + n;
    auto run = [&](auto width) {
        constexpr int w = decltype(width)::value;
        const bool ring = rows * w <= kRingDoubles;
        if (!ring && !in_place) // left to the narrower blocks or the one-column walk
            return;
        for (; c_end - c >= w; c += w)
            if (ring)
                walk_block<Forward, w>(u, diag, n, bw, b, off, c, ring_doubles);
            else
                walk_block_tiled<Forward, w>(u, diag, n, bw, b, off, c);
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
