// KELMATRIX tiled dense factorization, one instruction set (internal)
// Included once per instruction set by vector_kernels.h (KEL_ISA_NS, KEL_ISA_TARGET and
// KEL_ISA_WIDTH as described there).
//
// Cholesky_factor of the whole upper triangle (every k from 0), bit for bit as the generic
// loops: element (i, j) starts from A(i, j), subtracts U(k, j) U(k, i) for every k < i with
// U(k, k) > 0 in ascending k, each product rounded before its subtraction, and is divided by
// the pivot. Only the order in which different elements advance changes:
//   - the rows come in blocks of kNb; the pivots of a block are found first, in the leading
//     tile of its row (which starts at its diagonal), so that the dropped rows are known before
//     anything else of the block is written;
//   - each tile of kNb rows by kNc columns is copied into a row-major scratch, takes the terms
//     of the rows above the block in chunks of kKc rows k (ascending; a register tile of kMr
//     rows by kNv vectors keeps its sums in registers while k runs outermost), then the terms
//     of the block's own rows (ascending), is divided, and is copied back;
//   - a dropped row is never written but for its diagonal, so it keeps A's values, as in the
//     generic loops.
// Scratch: fixed arrays on the stack (about 72 KiB), no allocation.
#include <algorithm>
#include <cmath>

#include "band/direct_route.h"
#include "band/simd.h"

namespace kelmatrix {
namespace internal {
namespace KEL_ISA_NS {
namespace {

using Vec = simd::Vec<KEL_ISA_WIDTH>;
using simd::load;
using simd::store;

constexpr int kL = KEL_ISA_WIDTH; // doubles per vector
constexpr int kMr = 4;            // rows of a register tile
constexpr int kNv = 2;            // vectors across the columns of a register tile
constexpr int kNr = kNv * kL;     // columns of a register tile
constexpr int kNb = 32;           // rows of a block
constexpr int kNc = 64;           // columns of a tile (a multiple of kNr on every width)
constexpr int kKc = 128;          // rows k packed at a time
static_assert(kNc % kNr == 0 && kNb % kMr == 0 && kNb <= kNc, "tile shapes");

// kMr rows by kNr columns of the scratch at s (row stride kNc) minus the products of kc packed
// rows k: ap holds U(k, i) kMr a row, bp holds U(k, j) kNr a row, both in ascending k.
KEL_ISA_TARGET void register_tile(double* s, const double* ap, const double* bp, int kc)
{
    Vec acc[kMr][kNv];
    for (int r = 0; r < kMr; ++r)
        for (int v = 0; v < kNv; ++v)
            acc[r][v] = load<Vec>(s + r * kNc + v * kL);
    for (int kk = 0; kk < kc; ++kk) {
        Vec b[kNv];
        for (int v = 0; v < kNv; ++v)
            b[v] = load<Vec>(bp + kk * kNr + v * kL);
        for (int r = 0; r < kMr; ++r) {
            const double f = ap[kk * kMr + r];
            for (int v = 0; v < kNv; ++v)
                acc[r][v] -= b[v] * f;
        }
    }
    for (int r = 0; r < kMr; ++r)
        for (int v = 0; v < kNv; ++v)
            store(s + r * kNc + v * kL, acc[r][v]);
}

// row[0 .. kNc) -= src[0 .. kNc) * f, then nothing else: one term of every column.
KEL_ISA_TARGET inline void subtract_row(double* row, const double* src, double f)
{
    for (int c = 0; c < kNc; c += kL)
        store(row + c, load<Vec>(row + c) - load<Vec>(src + c) * f);
}

KEL_ISA_TARGET inline void divide_row(double* row, double pivot)
{
    for (int c = 0; c < kNc; c += kL)
        store(row + c, load<Vec>(row + c) / pivot);
}

// The state of one block of kNb rows i0 .. i0 + nb - 1 and of its current tile, columns
// j0 .. j0 + nc - 1 (first: the leading tile, which starts at the diagonal).
struct Block {
    alignas(64) double lead[kNb * kNc]; // the leading tile of the block: its pivots and U(k, i)
    alignas(64) double rest[kNb * kNc]; // any further tile of the block
    alignas(64) double ap[kNb * kKc];   // U(k, i) of the block's rows, kMr rows per panel
    alignas(64) double bp[kNr * kKc];   // U(k, j) of one register tile's columns
    int kp[kKc];                        // the rows k of a chunk with U(k, k) > 0
    bool dropped[kNb];
    double pivot[kNb];
    int i0, nb, j0, nc;
    bool first;
    double* tile() { return first ? lead : rest; }
};

// The tile, zero outside it; the leading tile only from its diagonal on (the generic loops
// never read below it), later tiles only on rows kept.
KEL_ISA_TARGET void copy_in(const StridedView& a, Block& b)
{
    double* const t = b.tile();
    for (int r = 0; r < kNb; ++r) {
        double* tr = t + r * kNc;
        const bool row = r < b.nb && (b.first || !b.dropped[r]);
        const int c0 = b.first ? std::min(r, b.nc) : 0;
        std::fill(tr, tr + kNc, 0.0);
        if (row)
            for (int c = c0; c < b.nc; ++c)
                tr[c] = a(b.i0 + r, b.j0 + c);
    }
}

// U(k, i) of the block's rows for the kc rows k of kp, kMr rows a panel, zero past the block.
KEL_ISA_TARGET void pack_rows(const StridedView& a, Block& b, int kc)
{
    const int panels = (b.nb + kMr - 1) / kMr;
    for (int p = 0; p < panels; ++p)
        for (int r = 0; r < kMr; ++r) {
            const int row = p * kMr + r;
            double* dst = b.ap + p * kMr * kKc + r;
            if (row < b.nb)
                for (int kk = 0; kk < kc; ++kk)
                    dst[kk * kMr] = a(b.kp[kk], b.i0 + row);
            else
                for (int kk = 0; kk < kc; ++kk)
                    dst[kk * kMr] = 0.0;
        }
}

// U(k, j) of the kNr columns from c0 of the tile for the kc rows k of kp, zero past the tile.
KEL_ISA_TARGET void pack_columns(const StridedView& a, Block& b, int c0, int kc)
{
    for (int c = 0; c < kNr; ++c) {
        if (c0 + c < b.nc)
            for (int kk = 0; kk < kc; ++kk)
                b.bp[kk * kNr + c] = a(b.kp[kk], b.j0 + c0 + c);
        else
            for (int kk = 0; kk < kc; ++kk)
                b.bp[kk * kNr + c] = 0.0;
    }
}

// The terms of the rows above the block, in chunks of kKc rows k, ascending.
KEL_ISA_TARGET void subtract_rows_above(const StridedView& a, Block& b)
{
    const int panels = (b.nb + kMr - 1) / kMr;
    double* const t = b.tile();
    for (int k0 = 0; k0 < b.i0; k0 += kKc) {
        const int k1 = std::min(b.i0, k0 + kKc);
        int kc = 0;
        for (int k = k0; k < k1; ++k)
            if (a(k, k) > 0.0) // strict: dropped (-1) and zero pivots do not contribute
                b.kp[kc++] = k;
        if (kc == 0)
            continue;
        pack_rows(a, b, kc);
        for (int c0 = 0; c0 < b.nc; c0 += kNr) {
            pack_columns(a, b, c0, kc);
            for (int p = 0; p < panels; ++p)
                if (!b.first || c0 + kNr > p * kMr) // the leading tile: not wholly below
                    register_tile(t + p * kMr * kNc + c0, b.ap + p * kMr * kKc, b.bp, kc);
        }
    }
}

// The terms of the block's own rows, ascending, then the division; the leading tile finds the
// pivots on the way. Returns how many pivots it accepted.
KEL_ISA_TARGET int subtract_own_rows(Block& b, double tol)
{
    double* const t = b.tile();
    int count = 0;
    for (int r = 0; r < b.nb; ++r) {
        if (!b.first && b.dropped[r])
            continue;
        double* tr = t + r * kNc;
        for (int q = 0; q < r; ++q)
            if (b.lead[q * kNc + q] > 0.0) // strict, as above
                subtract_row(tr, t + q * kNc, b.lead[q * kNc + r]);
        if (!b.first) {
            divide_row(tr, b.pivot[r]);
            continue;
        }
        const double d = tr[r];
        b.dropped[r] = d < tol; // dropped pivot; d == tol and NaN are accepted
        if (b.dropped[r]) {
            tr[r] = -1.0;
            continue;
        }
        ++count;
        b.pivot[r] = std::sqrt(d);
        divide_row(tr, b.pivot[r]);
        tr[r] = b.pivot[r];
    }
    return count;
}

// The tile back into a: a dropped row only its diagonal (-1), so it keeps A's values.
KEL_ISA_TARGET void copy_out(const StridedView& a, Block& b)
{
    const double* const t = b.tile();
    for (int c = 0; c < b.nc; ++c)
        for (int r = 0; r < b.nb; ++r) {
            if (b.first && c < r)
                continue;
            if (!b.dropped[r])
                a(b.i0 + r, b.j0 + c) = t[r * kNc + c];
            else if (b.first && c == r)
                a(b.i0 + r, b.j0 + c) = -1.0;
        }
}

} // namespace

KEL_ISA_TARGET int tiled_factor(const StridedView& a, int n, double tol)
{
    Block b;
    int count = 0;
    for (b.i0 = 0; b.i0 < n; b.i0 += kNb) {
        b.nb = std::min(kNb, n - b.i0);
        for (b.j0 = b.i0; b.j0 < n; b.j0 += kNc) {
            b.first = b.j0 == b.i0;
            b.nc = std::min(kNc, n - b.j0);
            copy_in(a, b);
            subtract_rows_above(a, b);
            count += subtract_own_rows(b, tol);
            copy_out(a, b);
        }
    }
    return count;
}

} // namespace KEL_ISA_NS
} // namespace internal
} // namespace kelmatrix
