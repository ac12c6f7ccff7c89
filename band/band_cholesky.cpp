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

// s[t] -= x[t] * f for t < count; every t is its own quantity.
inline void subtract_scaled(double* s, const double* x, double f, int count)
{
    const Pair fv = splat(f);
    int t = 0;
    for (; t + 4 <= count; t += 4) {
        const Pair a = load_pair(s + t) - mul(load_pair(x + t), fv);
        const Pair b = load_pair(s + t + 2) - mul(load_pair(x + t + 2), fv);
        store_pair(s + t, a);
        store_pair(s + t + 2, b);
    }
    for (; t + 2 <= count; t += 2)
        store_pair(s + t, load_pair(s + t) - mul(load_pair(x + t), fv));
    for (; t < count; ++t)
        s[t] -= mul(x[t], f);
}

// Factorization, narrow band: U(i, j) for i <= j <= i + bw in a distinct-address view.
int factor_ring(const StridedView& a, int n, int bw, double tol)
{
    const int w = std::min(bw, n - 1), rows = w + 1, len = w + 1;
    std::vector<double> ring(static_cast<std::size_t>(rows) * len), s(static_cast<std::size_t>(len));
    double* const r0 = ring.data();
    int count = 0;
    for (int i = 0, si = 0; i < n; ++i, si = si + 1 == rows ? 0 : si + 1) {
        double* const ri = r0 + static_cast<std::size_t>(si) * len; // row i of U: ri[t] = U(i, i+t)
        const int k0 = std::max(0, i - bw);
        const int sk0 = (si - (i - k0) + rows) % rows;

        double d = a(i, i);
        for (int k = k0, sk = sk0; k < i; ++k, sk = sk + 1 == rows ? 0 : sk + 1) {
            const double* rk = r0 + static_cast<std::size_t>(sk) * len;
            if (rk[0] > 0.0) // strict: dropped (-1) and zero pivots do not contribute
                d -= rk[i - k] * rk[i - k];
        }
        if (d < tol) { // dropped pivot; d == tol and NaN are accepted
            a(i, i) = -1.0;
            ri[0] = -1.0;
            continue;
        }
        ++count;
        const double pivot = std::sqrt(d);
        a(i, i) = pivot;
        ri[0] = pivot;

        // s[t] = A(i, i+t) - sum over ascending k of U(k, i+t) U(k, i): row k reaches j = k + bw.
        const int jl = std::min(n - 1, i + bw) - i;
        double* const st = s.data();
        for (int t = 1; t <= jl; ++t)
            st[t] = a(i, i + t);
        const int k1 = std::max(0, i + 1 - bw);
        for (int k = k1, sk = (si - (i - k1) + rows) % rows; k < i;
             ++k, sk = sk + 1 == rows ? 0 : sk + 1) {
            const double* rk = r0 + static_cast<std::size_t>(sk) * len + (i - k);
            if (rk[k - i] > 0.0) { // strict, as above
                const int tl = std::min(k + bw - i, jl);
                subtract_scaled(st + 1, rk + 1, rk[0], tl); // U(k, j) U(k, i), j = i+1 .. k+bw
            }
        }
        for (int t = 1; t <= jl; ++t) {
            const double u = st[t] / pivot;
            a(i, i + t) = u;
            ri[t] = u;
        }
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
            if (nj == kBlock) {
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

// One right-hand side, direct addressing, generic order of reads and writes. The first term
// of each unknown is the unknown just stored, taken from a register instead of memory: no
// store lies between, so it is the value a load would return.
void forward_column(const StridedView& u, int n, int bw, const StridedView& b, int off, int c)
{
    double last = 0.0;
    for (int i = 0; i < n; ++i) {
        const double d = u(i, i);
        double y = 0.0;
        if (!(d < 0.0)) { // zero included (divides by it), and NaN too; only dropped give 0
            double s = b(i + off, c);
            const int k_end = std::max(0, i - bw);
            if (i - 1 >= k_end && u(i - 1, i - 1) >= 0.0) // zero included, NaN excluded
                s -= mul(u(i - 1, i), last);
            for (int k = i - 2; k >= k_end; --k)
                if (u(k, k) >= 0.0)
                    s -= mul(u(k, i), b(k + off, c));
            y = s / d;
        }
        b(i + off, c) = y;
        last = y;
    }
}

void backward_column(const StridedView& u, int n, int bw, const StridedView& b, int off, int c)
{
    double last = 0.0;
    for (int i = n - 1; i >= 0; --i) {
        const double d = u(i, i);
        double x = 0.0;
        if (!(d <= 0.0)) { // strictly positive, and NaN too; zero and dropped give 0
            double s = b(i + off, c);
            const int k_end = std::min(n - 1, i + bw);
            if (i + 1 <= k_end && u(i + 1, i + 1) >= 0.0) // zero included, NaN excluded
                s -= mul(u(i, i + 1), last);
            for (int k = i + 2; k <= k_end; ++k)
                if (u(k, k) >= 0.0)
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
void forward_block(const StridedView& u, int n, int bw, const StridedView& b, int off, int c0,
                   double* ring)
{
    constexpr int V = W / 2;
    const int rows = std::min(bw, n - 1) + 1;
    for (int i = 0, si = 0; i < n; ++i, si = si + 1 == rows ? 0 : si + 1) {
        double* const yi = ring + static_cast<std::size_t>(si) * W;
        const double d = u(i, i);
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
            if (u(k, k) >= 0.0) { // zero included, NaN excluded
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
void backward_block(const StridedView& u, int n, int bw, const StridedView& b, int off, int c0,
                    double* ring)
{
    constexpr int V = W / 2;
    const int rows = std::min(bw, n - 1) + 1;
    for (int i = n - 1, si = (n - 1) % rows; i >= 0; --i, si = si == 0 ? rows - 1 : si - 1) {
        double* const xi = ring + static_cast<std::size_t>(si) * W;
        const double d = u(i, i);
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
            if (u(k, k) >= 0.0) { // zero included, NaN excluded
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
void walk_columns(const StridedView& u, int n, int bw, const StridedView& b, int off, int c,
                  int c_end)
{
    const int rows = std::min(bw, n - 1) + 1;
    std::vector<double> ring(static_cast<std::size_t>(rows) * kColumnBlock);
    auto run = [&](auto width) {
        constexpr int w = decltype(width)::value;
        while (c_end - c >= w) {
            if (Forward)
                forward_block<w>(u, n, bw, b, off, c, ring.data());
            else
                backward_block<w>(u, n, bw, b, off, c, ring.data());
            c += w;
        }
    };
    run(std::integral_constant<int, kColumnBlock>{});
    run(std::integral_constant<int, 8>{});
    run(std::integral_constant<int, 4>{});
    run(std::integral_constant<int, 2>{});
    if (c < c_end) {
        if (Forward)
            forward_column(u, n, bw, b, off, c);
        else
            backward_column(u, n, bw, b, off, c);
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
    } else if (!block_view(B, off, n, c_begin, c_end, b)) {
        DirectAccess bd = direct_access(B); // mirrored on both sides: exact, in order
        in_order(u, bd);
    } else if (c_end - c_begin >= 2 && block_is_distinct(b, n, c_end - c_begin) &&
               !band_span(u, n, bw).meets(block_span(b, off, n, c_begin, c_end - c_begin))) {
        walk_columns<Forward>(u, n, bw, b, off, c_begin, c_end);
    } else {
        for (int c = c_begin; c < c_end; ++c) {
            if (Forward)
                forward_column(u, n, bw, b, off, c);
            else
                backward_column(u, n, bw, b, off, c);
        }
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
    if (std::min(bw, n - 1) <= kRingWidth)
        return factor_ring(a, n, bw, tol);
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
