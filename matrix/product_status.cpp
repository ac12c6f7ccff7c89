// KELMATRIX product results
// The fixed meaning of each KelProduct_status value, shared by the product and residual helpers
// of every layer.
#include "kelmatrix/matrix.h"

const char* KelProduct_message(int status)
{
    switch (status) {
    case KEL_PRODUCT_OK:
        return "ok";
    case KEL_PRODUCT_SHAPE:
        return "X must have A's column count as rows, and B the shape of A X";
    case KEL_PRODUCT_ALIASED:
        return "the output must not share its storage with an input";
    case KEL_PRODUCT_EMPTY:
        return "A has no storage (or, for a band matrix, no recorded band)";
    default:
        return "unknown status";
    }
}
