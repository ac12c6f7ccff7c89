// KELMATRIX sparse matrix types (internal)
// Which PARDISO matrix types the solvers accept, and which of them store one triangle.
//
// The one test of the matrix type for the compressed-row checker and both solvers, so that a
// type is accepted or refused alike everywhere.
#ifndef KELMATRIX_MATRIX_TYPE_H
#define KELMATRIX_MATRIX_TYPE_H

#include "kelmatrix/sparse.h"

namespace kelmatrix {
namespace internal {

/// 1, 2, -2 or 11: the real types the solvers take.
inline bool known_type(int mtype)
{
    return mtype == LSM_REAL_STRUCTURALLY_SYMMETRIC ||
           mtype == LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE ||
           mtype == LSM_REAL_SYMMETRIC_INDEFINITE || mtype == LSM_REAL_UNSYMMETRIC;
}

/// 2 or -2: the symmetric types, which take the upper triangle only.
inline bool symmetric_type(int mtype)
{
    return mtype == LSM_REAL_SYMMETRIC_POSITIVE_DEFINITE || mtype == LSM_REAL_SYMMETRIC_INDEFINITE;
}

} // namespace internal
} // namespace kelmatrix

#endif
