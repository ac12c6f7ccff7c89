// KELMATRIX cyclic band Cholesky kernels (internal)
// The bordered factorization and solve in place on the three blocks' views.
//
// Where the generic route copies the band block and the corner into temporaries so that the
// band routines see exactly nb or m rows, the views already have those orders: the blocks are
// factored and solved where they lie, in the generic route's order of operations, and nothing
// is allocated. The right-hand sides go through each stage together and the independent sums
// over the band block are formed side by side (each from 0, k ascending, subtracted once).
#include <algorithm>

#include "band/direct_kernels.h"

namespace kelmatrix {
namespace internal {
namespace {

constexpr int kGroup = 8; // sums formed side by side in one sweep over the band block

// The corner becomes A22 - W^T W (upper triangle): the pairs (r, c), c >= r, in row order.
void subtract_schur(const StridedView& w, const StridedView& s, int nb, int m)
{
    for (int r = 0, c = 0; r < m;) {
        int rr[kGroup], cc[kGroup], g = 0;
        double sigma[kGroup];
        for (; g < kGroup && r < m; ++g) {
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

} // namespace

int cyclic_factor_kernel(const BorderedViews& a, int bw, double tol)
{
    factor_kernel(a.band, a.nb, bw, tol); // Deliberate: the band block's count is not reported
    forward_kernel(a.band, a.nb, bw, a.border, 0, 0, a.m); // W = U11^-T A12
    subtract_schur(a.border, a.corner, a.nb, a.m);
    return factor_kernel(a.corner, a.m, a.m, tol);
}

void cyclic_solve_kernel(const BorderedViews& a, int bw, const StridedView& b, int nrhs)
{
    forward_kernel(a.band, a.nb, bw, b, 0, 0, nrhs); // y1 = U11^-T b1
    for (int col = 0; col < nrhs; ++col)
        subtract_w_t_y(a.border, b, a.nb, a.m, col);
    forward_kernel(a.corner, a.m, a.m, b, a.nb, 0, nrhs);  // U22^-T (b2 - W^T y1)
    backward_kernel(a.corner, a.m, a.m, b, a.nb, 0, nrhs); // x2
    for (int col = 0; col < nrhs; ++col)
        subtract_w_x(a.border, b, a.nb, a.m, col);
    backward_kernel(a.band, a.nb, bw, b, 0, 0, nrhs); // x1
}

} // namespace internal
} // namespace kelmatrix
