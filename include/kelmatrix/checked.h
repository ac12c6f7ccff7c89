// KELMATRIX checked library
// The misuse handler of libkelmatrix_checked, the build of the library that checks its callers.
//
// libkelmatrix_checked is built from the same sources as libkelmatrix and exports the same
// interface plus kelmatrix_set_check_handler. Every exported function first checks what its own
// steps read: the dimensions that must agree, as that function reads them; the shape of an
// output the caller must dimension; band widths against the stored band; element indices against
// the shape; the compressed-row structure handed to LSMsolver; outputs that share storage with
// inputs where that is undefined; negative sizes. The first broken condition goes to the
// handler, before anything is changed. libkelmatrix has none of these checks (what it does with
// such calls is undefined) and does not define kelmatrix_set_check_handler. Link
// KelMatrix::kelmatrix_checked (CMake) or kelmatrix_checked (pkg-config) instead of the normal
// library while developing; the headers are the same.
#ifndef KELMATRIX_CHECKED_H
#define KELMATRIX_CHECKED_H

#include "kelmatrix/export.h"

/// A misuse report. function: the exported function ("SolveSP", "KelMatrix::operator()");
/// condition: what should have held, in the documented parameter names with rows, cols, kl and
/// ku for the shape and band widths ("B.rows == A.cols"); values: the values involved
/// ("A.cols = 4, B.rows = 3"). The strings live only for the duration of the call.
typedef void (*kelmatrix_check_handler)(const char* function, const char* condition,
                                        const char* values);

/// Installs handler for every later report, process-wide, and returns the handler it replaces
/// (nullptr for the default). nullptr restores the default, which writes one line to stderr,
/// "kelmatrix: misuse in SolveSP: B.rows == A.cols does not hold (order = 4, B.rows = 3)",
/// and aborts. A handler must not return: it may abort, exit, throw (the reporting function has
/// changed nothing of its arguments) or jump away; should it return, the library aborts.
/// Exported by libkelmatrix_checked only.
KELMATRIX_API kelmatrix_check_handler kelmatrix_set_check_handler(kelmatrix_check_handler handler);

#endif
