// KELMATRIX cyclic band Cholesky kernels (internal)
// The bordered factorization and solve in place on the three blocks' views.
//
// Where the generic route copies the band block and the corner into temporaries so that the
// band routines see exactly nb or m rows, the views already have those orders: the blocks are
// factored and solved where they lie, in the generic route's order of operations, and nothing
// is allocated. The right-hand sides go through each stage together and the independent sums
// over the band block are formed side by side (each from 0, k ascending, subtracted once).
// With threads (parallel/team.h) the border columns, the rows of the Schur products and the
// right-hand sides are shared out in runs; no sum is split, so the bits do not change.
#include <algorithm>

#include "band/direct_kernels.h"
#include "parallel/team.h"
#include "parallel/thresholds.h"

namespace kelmatrix {
namespace internal {
namespace {

constexpr int kGroup = 8; // sums formed side by side in one sweep over the band block

// Rows r0 .. r1 - 1 of the corner become A22 - W^T W (upper triangle): the pairs (r, c),
// c >= r, in row order.
void subtract_schur(const StridedView& w, const StridedView& s, int nb, int m, int r0, int r1)
{
    for (int r = r0, c = r0; r < r1;) {
        int rr[kGroup], cc[kGroup], g = 0;
        double sigma[kGroup];
        for (; g < kGroup && r < r1; ++g) {
            rr[g] = r;
            cc[g] = c;
            sigma[g] = 0.0;
            if (++c == m)
                c = ++r;
        }
        for (int k = 0; k < nb; ++k)
            for (int q = 0; q < g; ++q)
                sigma[q] += w(k, cc[q]) * w(k, rr[q]);
        for (int q = 0; q < g; ++q)
            s(rr[q], cc[q]) = s(rr[q], cc[q]) - sigma[q];
    }
}

// Rows nb + r of column col: b2 - W^T y1.
void subtract_w_t_y(const StridedView& w, const StridedView& b, int nb, int m, int col)
{
    for (int r0 = 0; r0 < m; r0 += kGroup) {
        const int g = std::min(kGroup, m - r0);
        double sigma[kGroup] = {};
        for (int k = 0; k < nb; ++k) {
            const double y = b(k, col);
            for (int q = 0; q < g; ++q)
                sigma[q] += w(k, r0 + q) * y;
        }
        for (int q = 0; q < g; ++q)
            b(nb + r0 + q, col) = b(nb + r0 + q, col) - sigma[q];
    }
}

// Rows r < nb of column col: y1 - W x2.
void subtract_w_x(const StridedView& w, const StridedView& b, int nb, int m, int col)
{
    for (int r = 0; r < nb; ++r) {
        double sigma = 0.0;
        for (int k = 0; k < m; ++k)
            sigma += w(r, k) * b(nb + k, col);
        b(r, col) = b(r, col) - sigma;
    }
}

// Rows of the corner for part t of parts with about as many products each: row r holds m - r.
std::pair<int, int> schur_rows(int m, int t, int parts)
{
    const double total = 0.5 * m * (m + 1.0);
    // The first row whose products before it reach `share` of the total.
    const auto row_at = [&](int part) {
        if (part >= parts)
            return m;
        const double target = total * part / parts;
        int r = 0;
        double before = 0.0;
        while (r < m && before < target)
            before += m - r++;
        return r;
    };
    return {row_at(t), row_at(t + 1)};
}

// The solve's stages on columns c0 .. c1 - 1, each stage on all of them before the next.
void solve_columns(const BorderedViews& a, int bw, const StridedView& b, int c0, int c1)
{
    forward_kernel(a.band, a.nb, bw, b, 0, c0, c1); // y1 = U11^-T b1
    for (int col = c0; col < c1; ++col)
        subtract_w_t_y(a.border, b, a.nb, a.m, col);
    forward_kernel(a.corner, a.m, a.m, b, a.nb, c0, c1);  // U22^-T (b2 - W^T y1)
    backward_kernel(a.corner, a.m, a.m, b, a.nb, c0, c1); // x2
    for (int col = c0; col < c1; ++col)
        subtract_w_x(a.border, b, a.nb, a.m, col);
    backward_kernel(a.band, a.nb, bw, b, 0, c0, c1); // x1
}

} // namespace

int cyclic_factor_kernel(const BorderedViews& a, int bw, double tol)
{
    factor_kernel(a.band, a.nb, bw, tol); // Deliberate: the band block's count is not reported
    // W = U11^-T A12, the border columns independent of each other: a run of them per thread.
    const int w = std::max(1, std::min(bw, a.nb - 1)) + 1;
    run_team(column_team(static_cast<double>(a.nb) * w * a.m, a.m), [&](int t, int parts) {
        const std::pair<int, int> c = share(a.m, t, parts, kColumnUnit);
        if (c.first < c.second)
            forward_kernel(a.band, a.nb, bw, a.border, 0, c.first, c.second);
    });
    // The products of the Schur complement: each sum whole on one thread, a run of rows each.
    const double products = 0.5 * a.m * (a.m + 1.0);
    run_team(team_size(products * a.nb, kBorderGrain), [&](int t, int parts) {
        const std::pair<int, int> r = schur_rows(a.m, t, parts);
        subtract_schur(a.border, a.corner, a.nb, a.m, r.first, r.second);
    });
    return factor_kernel(a.corner, a.m, a.m, tol);
}

void cyclic_solve_kernel(const BorderedViews& a, int bw, const StridedView& b, int nrhs)
{
    // Every stage works column by column: a run of columns per thread, through all the stages.
    const double terms = (static_cast<double>(a.nb) * (std::min(bw, a.nb) + 2 * a.m + 1) +
                          static_cast<double>(a.m) * (a.m + 1)) *
                         nrhs;
    run_team(column_team(terms, nrhs), [&](int t, int parts) {
        const std::pair<int, int> c = share(nrhs, t, parts, kColumnUnit);
        if (c.first < c.second)
            solve_columns(a, bw, b, c.first, c.second);
    });
}

} // namespace internal
} // namespace kelmatrix
