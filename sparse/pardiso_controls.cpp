// KELMATRIX sparse solver error messages
// Gives each PARDISO error code its fixed English meaning (the cluster engine uses the same
// codes). The mapping of settings and statistics onto iparm is inline in pardiso_controls.h.
//
// Nothing here calls PARDISO or allocates.
#include "sparse/pardiso_controls.h"

const char* LSMsolver_error_message(int error)
{
    switch (error) {
    case 0:
        return "no error";
    case -1:
        return "input inconsistent (indexing, ordering or type of the arrays)";
    case -2:
        return "not enough memory";
    case -3:
        return "reordering problem";
    case -4:
        return "zero pivot, numerical factorization or iterative refinement problem";
    case -5:
        return "unclassified (internal) error";
    case -6:
        return "reordering failed (nonsymmetric matrix given as symmetric)";
    case -7:
        return "diagonal matrix is singular";
    case -8:
        return "32-bit integer overflow";
    case -9:
        return "not enough memory for out-of-core";
    case -10:
        return "error opening out-of-core files";
    case -11:
        return "read/write error with out-of-core files";
    case -12:
        return "wrong integer size for this interface";
    case -13:
        return "interrupted";
    default:
        return "unknown PARDISO error";
    }
}
