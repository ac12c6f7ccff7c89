// KELMATRIX Kronecker substitution widths (internal)
// The outer and inner band widths the Kronecker substitutions run with, resolved from the
// caller's w1 and w2.
//
// One rule for the routines (kronecker.cpp) and their checks (band_checks.cpp). w1 <= 0 stands
// for U1's order p. Deliberate: w2 <= 0 stands for U2's order q in the lower substitution but
// for U1's order p in the upper one; positive widths never see the difference.
#ifndef KELMATRIX_KRONECKER_WIDTHS_H
#define KELMATRIX_KRONECKER_WIDTHS_H

namespace kelmatrix {
namespace internal {

struct KroneckerWidths {
    int w1, w2;
};

inline KroneckerWidths kronecker_widths(bool upper, int w1, int w2, int p, int q)
{
    return {w1 <= 0 ? p : w1, w2 <= 0 ? (upper ? p : q) : w2};
}

} // namespace internal
} // namespace kelmatrix

#endif
