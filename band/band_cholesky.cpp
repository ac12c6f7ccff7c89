// KELMATRIX band Cholesky with dropped pivots
// In-place A = U^T U over the upper band, and the substitutions that solve with U.
//
// Written without LAPACK and against the element accessor, so one routine serves dense, band
// and user-derived storage; only A(i, j) with i <= j <= i + bw is touched. A pivot d below the
// tolerance is dropped (diagonal -1.0, row not formed) and its unknown solves to 0, so the
// factorization never fails and returns the numerical rank. Loop directions and the order of
// every subtraction are fixed: results are reproducible bit for bit. The three diagonal tests
// differ on purpose (factor: > 0 contributes; forward: >= 0 solves; backward: > 0 solves).
//
// Routes. Any storage goes through the virtual accessor in the order of band_substitution.h.
// A KelMatrix or KelMatrixBanded (exactly those types) is addressed directly, with the same
// addresses as its accessor, mirroring included. Where its band has no two elements at one
// address the factorization is vectorised across j (each U(i, j) still takes its terms in
// ascending k), and where the right-hand sides share no address with each other or with U the
// substitutions walk them together (each column still in its own fixed order). Everything else
// keeps the generic order of reads and writes, so aliasing storage gives the same bits too.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>
#include <vector>

#include "band/band_substitution.h"
#include "band/direct_access.h"
#include "band/ordered_ops.h"
#include "kelmatrix/band.h"
#include "matrix/aligned_buffer.h"
#include "checks/checks.h"

namespace kelmatrix {
namespace internal {

int resolve_band_width(const KelGenericMatrix& A, int bandWidth)
{
    if (bandWidth < 1)
        bandWidth = A.GetUpperBandWidth();
    if (bandWidth < 1) // -1 after default construction, 0 for a diagonal-only band
        bandWidth = A.GetRowDim();
    return bandWidth;
}

} // namespace internal
} // namespace kelmatrix

using namespace kelmatrix::internal;

namespace {

// Up to this width the factorization keeps the rows of U it still needs in a small row-major
// ring, so the update of row i runs over contiguous j; wider bands use the column kernel.
constexpr int kRingWidth = 96;
// Right-hand sides walked together by the substitution kernels, at most.
constexpr int kColumnBlock = 16;
// Distance in doubles between diagonal elements beyond which the substitutions copy the
// diagonal first.
constexpr long long kFarDiagonal = 64;

// Row i of the narrow kernel: U(i, i+t) for t = 1 .. jl, jl = min(w, n - 1 - i); the rows
// k = i - e of the window start at window - e R. Eight columns j at a time keep their running
// sums in registers while the rows k pass in ascending order (e descending); row k reaches
// t <= min(w - e, jl), so the first rows of a block may cover only part of it.
template <int W, bool Full>
void factor_row(const StridedView& a, int i, int w_runtime, int jl_runtime, double pivot,
                const double* window, double* ri, double* ri2)
{
    constexpr int kBlock = 8;
    const int w = W > 0 ? W : w_runtime, R = w + 1, jl = Full ? w : jl_runtime;
    const Pair p = splat(pivot);
    for (int t0 = 1; t0 <= jl; t0 += kBlock) {
        const int tb = std::min(kBlock, jl - t0 + 1);
        double acc[kBlock];
        for (int q = 0; q < tb; ++q)
            acc[q] = a(i, i + t0 + q);
        int e = w - t0; // rows with e > w - t0 do not reach t0
        for (; e >= 1 && std::min(w - e, jl) - t0 + 1 < tb; --e) {
            const double* rk = window - e * R;
            if (rk[0] > 0.0) { // strict: dropped (-1) and zero pivots do not contribute
                const double f = rk[e];
                const int cnt = std::min(w - e, jl) - t0 + 1;
                for (int q = 0; q < cnt; ++q)
                    acc[q] -= mul(rk[e + t0 + q], f);
            }
        }
        if (tb == kBlock) {
            // Built from the scalars (not reloaded as pairs: a wide load of narrow stores
            // would stall on the row-to-row critical path).
            Pair s0 = {acc[0], acc[1]}, s1 = {acc[2], acc[3]}, s2 = {acc[4], acc[5]},
                 s3 = {acc[6], acc[7]};
            for (; e >= 1; --e) {
                const double* rk = window - e * R;
                if (rk[0] > 0.0) {
                    const Pair f = splat(rk[e]);
                    const double* x = rk + e + t0;
                    s0 -= mul(load_pair(x), f);
                    s1 -= mul(load_pair(x + 2), f);
                    s2 -= mul(load_pair(x + 4), f);
                    s3 -= mul(load_pair(x + 6), f);
                }
            }
            const Pair u[4] = {s0 / p, s1 / p, s2 / p, s3 / p};
            for (int v = 0; v < 4; ++v) {
                store_pair(ri + t0 + 2 * v, u[v]);
                store_pair(ri2 + t0 + 2 * v, u[v]);
                a(i, i + t0 + 2 * v) = u[v][0];
                a(i, i + t0 + 2 * v + 1) = u[v][1];
            }
            continue;
        }
        for (; e >= 1; --e) {
            const double* rk = window - e * R;
            if (rk[0] > 0.0) {
                const double f = rk[e];
                for (int q = 0; q < tb; ++q)
                    acc[q] -= mul(rk[e + t0 + q], f);
            }
        }
        for (int q = 0; q < tb; ++q) { // one at a time: acc holds scalars (no wide reload)
            const double u = acc[q] / pivot;
            ri[t0 + q] = ri2[t0 + q] = u;
            a(i, i + t0 + q) = u;
        }
    }
}

// Factorization, narrow band: U(i, j) for i <= j <= i + bw in a distinct-address view. Row k of
// U, U(k, k .. k + w), is kept in a ring of w + 1 slots, each slot stored twice so that the rows
// i - w .. i - 1 are always contiguous; slots not yet written stand for rows before row 0 and
// hold a dropped pivot, so every row away from the end runs loops of the same length (fixed at
// compile time for the widths instantiated). W > 0: the width w, else w = min(bw, n - 1).
template <int W> int factor_ring(const StridedView& a, int n, int bw, double tol)
{
    const int w = W > 0 ? W : std::min(bw, n - 1), R = w + 1;
    AlignedBuffer ring_buf(2LL * R * R);
    double* const ring = ring_buf.data();
    std::fill(ring, ring + 2LL * R * R, -1.0);
    int count = 0;
    for (int i = 0, si = 0; i < n; ++i, si = si + 1 == R ? 0 : si + 1) {
        double* const ri = ring + static_cast<std::size_t>(si) * R;
        double* const ri2 = ri + static_cast<std::size_t>(R) * R;
        const double* const window = ri2; // row i - e starts at window - e R

        double d = a(i, i);
        for (int e = w; e >= 1; --e) { // k = i - e ascending
            const double* rk = window - e * R;
            if (rk[0] > 0.0) // strict: dropped (-1) and zero pivots do not contribute
                d -= rk[e] * rk[e];
        }
        if (d < tol) { // dropped pivot; d == tol and NaN are accepted
            a(i, i) = -1.0;
            ri[0] = ri2[0] = -1.0;
            continue;
        }
        ++count;
        const double pivot = std::sqrt(d);
        a(i, i) = pivot;
        ri[0] = ri2[0] = pivot;
        if (i + w <= n - 1)
            factor_row<W, true>(a, i, w, w, pivot, window, ri, ri2);
        else // the last rows: j stops at n - 1
            factor_row<W, false>(a, i, w, n - 1 - i, pivot, window, ri, ri2);
    }
    return count;
}

// Factorization, wide band or dense: each block of kBlock columns j of row i takes its terms
// from the columns of U together, k ascending.
int factor_columns(const StridedView& a, int n, int bw, double tol)
{
    constexpr int kBlock = 8;
    std::vector<unsigned char> positive(static_cast<std::size_t>(n)); // U(k, k) > 0
    int count = 0;
    for (int i = 0; i < n; ++i) {
        double d = a(i, i);
        for (int k = std::max(0, i - bw); k < i; ++k)
            if (positive[k]) { // strict: dropped (-1) and zero pivots do not contribute
                const double u = a(k, i);
                d -= u * u; // one operand twice: no order to pin
            }
        if (d < tol) { // dropped pivot; d == tol and NaN are accepted
            a(i, i) = -1.0;
            positive[i] = 0;
            continue;
        }
        ++count;
        const double pivot = std::sqrt(d);
        a(i, i) = pivot;
        positive[i] = pivot > 0.0;

        const int j_end = std::min(n - 1, i + bw);
        for (int j0 = i + 1; j0 <= j_end; j0 += kBlock) {
            const int nj = std::min(kBlock, j_end - j0 + 1);
            double s[kBlock];
            for (int jj = 0; jj < nj; ++jj)
                s[jj] = a(i, j0 + jj);
            // Column j takes k from max(0, j - bw): below k_all only some columns of the block.
            const int k_all = std::min(i, std::max(0, j0 + nj - 1 - bw));
            for (int k = std::max(0, j0 - bw); k < k_all; ++k)
                if (positive[k]) {
                    const double f = a(k, i);
                    for (int jj = 0; jj < nj; ++jj)
                        if (k >= j0 + jj - bw)
                            s[jj] -= mul(a(k, j0 + jj), f);
                }
            if (nj == kBlock && a.rs == 1) {
                // Columns contiguous in k: rows k and k+1 of two columns make a 2 x 2 block,
                // turned into pairs across j; each sum still takes k before k + 1.
                const double* col[kBlock];
                for (int jj = 0; jj < kBlock; ++jj)
                    col[jj] = &a(0, j0 + jj);
                const double* ci = &a(0, i);
                Pair acc[kBlock / 2];
                for (int v = 0; v < kBlock / 2; ++v)
                    acc[v] = Pair{s[2 * v], s[2 * v + 1]};
                for (int k = k_all; k < i;) {
                    if (k + 1 < i && positive[k] && positive[k + 1]) {
                        const Pair f0 = splat(ci[k]), f1 = splat(ci[k + 1]);
                        for (int v = 0; v < kBlock / 2; ++v) {
                            const Pair x = load_pair(col[2 * v] + k);     // (k, j), (k+1, j)
                            const Pair y = load_pair(col[2 * v + 1] + k); // (k, j+1), (k+1, j+1)
                            acc[v] -= mul(Pair{x[0], y[0]}, f0);
                            acc[v] -= mul(Pair{x[1], y[1]}, f1);
                        }
                        k += 2;
                        continue;
                    }
                    if (positive[k]) {
                        const Pair f = splat(ci[k]);
                        for (int v = 0; v < kBlock / 2; ++v)
                            acc[v] -= mul(Pair{col[2 * v][k], col[2 * v + 1][k]}, f);
                    }
                    ++k;
                }
                for (int v = 0; v < kBlock / 2; ++v) {
                    s[2 * v] = acc[v][0];
                    s[2 * v + 1] = acc[v][1];
                }
            } else if (nj == kBlock) {
                for (int k = k_all; k < i; ++k)
                    if (positive[k]) {
                        const double f = a(k, i);
                        for (int jj = 0; jj < kBlock; ++jj)
                            s[jj] -= mul(a(k, j0 + jj), f);
                    }
            } else {
                for (int k = k_all; k < i; ++k)
                    if (positive[k]) {
                        const double f = a(k, i);
                        for (int jj = 0; jj < nj; ++jj)
                            s[jj] -= mul(a(k, j0 + jj), f);
                    }
            }
            for (int jj = 0; jj < nj; ++jj)
                a(i, j0 + jj) = s[jj] / pivot;
        }
    }
    return count;
}

// One right-hand side, direct addressing, U's diagonal read once (U shares no storage with B,
// so nothing changes it). The first term of each unknown is the unknown just stored, taken
// from a register instead of memory: no store lies between, so it is the value a load would
// return.
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
                s -= mul(u(i - 1, i), last);
            for (int k = i - 2; k >= k_end; --k)
                if (diag(k, k) >= 0.0)
                    s -= mul(u(k, i), b(k + off, c));
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
                s -= mul(u(i, i + 1), last);
            for (int k = i + 2; k <= k_end; ++k)
                if (diag(k, k) >= 0.0)
                    s -= mul(u(i, k), b(k + off, c));
            x = s / d;
        }
        b(i + off, c) = x;
        last = x;
    }
}

// W right-hand sides together: the solved rows of the last bw + 1 unknowns are kept row-major
// in a ring, so every term is one vector operation across the columns.
template <int W>
void forward_block(const StridedView& u, const StridedView& diag, int n, int bw,
                   const StridedView& b, int off, int c0, double* ring)
{
    constexpr int V = W / 2;
    const int rows = std::min(bw, n - 1) + 1;
    for (int i = 0, si = 0; i < n; ++i, si = si + 1 == rows ? 0 : si + 1) {
        double* const yi = ring + static_cast<std::size_t>(si) * W;
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
                const double f = u(k, i);
                const Pair fv = splat(f);
                const double* yk = ring + static_cast<std::size_t>(sk) * W;
                for (int v = 0; v < V; ++v)
                    s[v] -= mul(fv, load_pair(yk + 2 * v));
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
        double* const xi = ring + static_cast<std::size_t>(si) * W;
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
                const double f = u(i, k);
                const Pair fv = splat(f);
                const double* xk = ring + static_cast<std::size_t>(sk) * W;
                for (int v = 0; v < V; ++v)
                    s[v] -= mul(fv, load_pair(xk + 2 * v));
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

// Columns [c, c_end) in blocks of 16, 8, 4, 2 and a last single column.
template <bool Forward>
void walk_columns(const StridedView& u, const StridedView& diag, int n, int bw,
                  const StridedView& b, int off, int c, int c_end)
{
    const int rows = std::min(bw, n - 1) + 1;
    AlignedBuffer ring(static_cast<long long>(rows) * kColumnBlock);
    auto run = [&](auto width) {
        constexpr int w = decltype(width)::value;
        while (c_end - c >= w) {
            if (Forward)
                forward_block<w>(u, diag, n, bw, b, off, c, ring.data());
            else
                backward_block<w>(u, diag, n, bw, b, off, c, ring.data());
            c += w;
        }
    };
    run(std::integral_constant<int, kColumnBlock>{});
    run(std::integral_constant<int, 8>{});
    run(std::integral_constant<int, 4>{});
    run(std::integral_constant<int, 2>{});
    if (c < c_end) {
        if (Forward)
            forward_column(u, diag, n, bw, b, off, c);
        else
            backward_column(u, diag, n, bw, b, off, c);
    }
}

// The view of B's accesses (off + i, c), i < n, c in [c_begin, c_end), when B is one of the
// library's types and all of them fall on one side of its mirroring.
bool block_view(KelGenericMatrix& B, int off, int n, int c_begin, int c_end, StridedView& v)
{
    if (!has_direct_access(B))
        return false;
    const DirectAccess bd = direct_access(B);
    if (!bd.symmetric)
        v = bd.side(true); // nothing is mirrored
    else if (off + n - 1LL <= c_begin)
        v = bd.side(true); // every row index <= every column index
    else if (off >= c_end - 1LL)
        v = bd.side(false);
    else
        return false;
    return true;
}

template <bool Forward>
void pass_columns(KelGenericMatrix& U, int n, int bw, int off, int c_begin, int c_end,
                  KelGenericMatrix& B)
{
    if (n <= 0 || c_begin >= c_end)
        return;
    bw = std::min(bw, n); // the loops clamp at 0 and n - 1: wider changes nothing
    auto in_order = [&](auto& u, auto& b) {
        for (int c = c_begin; c < c_end; ++c) {
            if (Forward)
                forward_in_order(u, n, bw, b, off, c);
            else
                backward_in_order(u, n, bw, b, off, c);
        }
    };
    if (!has_direct_access(U)) {
        in_order(U, B);
        return;
    }
    StridedView u = direct_access(U).side(true); // U is read at i <= j only
    StridedView b;
    if (!has_direct_access(B)) {
        in_order(u, B);
        return;
    }
    if (!block_view(B, off, n, c_begin, c_end, b)) {
        DirectAccess bd = direct_access(B); // mirrored on both sides: exact, in order
        in_order(u, bd);
        return;
    }
    if (band_span(u, n, bw).meets(block_span(b, off, n, c_begin, c_end - c_begin))) {
        in_order(u, b); // B may write into U's band: keep every read where it was
        return;
    }
    // U is only read from here on. A far-strided diagonal (dense storage: one page per
    // element) is read once into a row of its own; a band's lies beside its columns.
    AlignedBuffer diag_copy;
    StridedView diag = u;
    if (u.rs + u.cs > kFarDiagonal) {
        double* d = diag_copy.allocate(n);
        for (int k = 0; k < n; ++k)
            d[k] = u(k, k);
        diag = StridedView{d, 0, 1, 0};
    }
    if (c_end - c_begin >= 2 && block_is_distinct(b, n, c_end - c_begin)) {
        walk_columns<Forward>(u, diag, n, bw, b, off, c_begin, c_end);
        return;
    }
    for (int c = c_begin; c < c_end; ++c) {
        if (Forward)
            forward_column(u, diag, n, bw, b, off, c);
        else
            backward_column(u, diag, n, bw, b, off, c);
    }
}

} // namespace

namespace kelmatrix {
namespace internal {

int factor_band(KelGenericMatrix& A, int n, int bw, double tol)
{
    if (n <= 0)
        return 0;
    bw = std::min(bw, n); // the loops clamp at 0 and n - 1: wider changes nothing
    if (!has_direct_access(A))
        return factor_in_order(A, n, bw, tol);
    StridedView a = direct_access(A).side(true); // A is touched at i <= j only
    if (!band_is_distinct(a, n, bw))
        return factor_in_order(a, n, bw, tol);
    switch (std::min(bw, n - 1)) {
    case 1:
        return factor_ring<1>(a, n, bw, tol);
    case 2:
        return factor_ring<2>(a, n, bw, tol);
    case 3:
        return factor_ring<3>(a, n, bw, tol);
    case 4:
        return factor_ring<4>(a, n, bw, tol);
    case 5:
        return factor_ring<5>(a, n, bw, tol);
    case 6:
        return factor_ring<6>(a, n, bw, tol);
    case 7:
        return factor_ring<7>(a, n, bw, tol);
    case 8:
        return factor_ring<8>(a, n, bw, tol);
    case 16:
        return factor_ring<16>(a, n, bw, tol);
    case 32:
        return factor_ring<32>(a, n, bw, tol);
    default:
        break;
    }
    if (std::min(bw, n - 1) <= kRingWidth)
        return factor_ring<0>(a, n, bw, tol);
    return factor_columns(a, n, bw, tol);
}

void forward_columns(KelGenericMatrix& U, int n, int bw, int rowOffset, int c_begin, int c_end,
                     KelGenericMatrix& B)
{
    pass_columns<true>(U, n, bw, rowOffset, c_begin, c_end, B);
}

void backward_columns(KelGenericMatrix& U, int n, int bw, int rowOffset, int c_begin, int c_end,
                      KelGenericMatrix& B)
{
    pass_columns<false>(U, n, bw, rowOffset, c_begin, c_end, B);
}

bool columns_walk_together(KelGenericMatrix& U, int n, int bw, int rowOffset, int c_begin,
                           int c_end, KelGenericMatrix& B)
{
    if (n <= 0 || c_end - c_begin <= 1)
        return true;
    bw = std::min(bw, n);
    StridedView b;
    if (!has_direct_access(U) || !block_view(B, rowOffset, n, c_begin, c_end, b))
        return false;
    const StridedView u = direct_access(U).side(true);
    return block_is_distinct(b, n, c_end - c_begin) &&
           !band_span(u, n, bw).meets(block_span(b, rowOffset, n, c_begin, c_end - c_begin));
}

} // namespace internal
} // namespace kelmatrix

int Cholesky_factor(KelGenericMatrix& A, int bandWidth, double tol)
{
    KELMATRIX_CHECK(band_cholesky("Cholesky_factor", A, bandWidth, nullptr));
    return factor_band(A, A.GetRowDim(), resolve_band_width(A, bandWidth), tol);
}

void Cholesky_forward_subst(KelGenericMatrix& U, int rowOffset, int column, int bandWidth,
                            KelGenericMatrix& B)
{
    const int bw = resolve_band_width(U, bandWidth);
    const int c_begin = column < 0 ? 0 : column;
    const int c_end = column < 0 ? B.GetColDim() : column + 1;
    forward_columns(U, U.GetRowDim(), bw, rowOffset, c_begin, c_end, B);
}

void Cholesky_backward_subst(KelGenericMatrix& U, int rowOffset, int column, int bandWidth,
                             KelGenericMatrix& B)
{
    const int bw = resolve_band_width(U, bandWidth);
    const int c_begin = column < 0 ? 0 : column;
    const int c_end = column < 0 ? B.GetColDim() : column + 1;
    backward_columns(U, U.GetRowDim(), bw, rowOffset, c_begin, c_end, B);
}

void Cholesky_subst(KelGenericMatrix& A, int bandWidth, KelMatrix& B)
{
    KELMATRIX_CHECK(band_cholesky("Cholesky_subst", A, bandWidth, &B));
    // Each column is completed, forward then backward, before the next is begun. Columns that
    // share no storage with each other or with A may instead go through each pass together.
    const int n = A.GetRowDim(), bw = resolve_band_width(A, bandWidth), nrhs = B.GetColDim();
    if (nrhs > 1 && columns_walk_together(A, n, bw, 0, 0, nrhs, B)) {
        forward_columns(A, n, bw, 0, 0, nrhs, B);
        backward_columns(A, n, bw, 0, 0, nrhs, B);
        return;
    }
    for (int c = 0; c < nrhs; ++c) {
        Cholesky_forward_subst(A, 0, c, bandWidth, B);
        Cholesky_backward_subst(A, 0, c, bandWidth, B);
    }
}
