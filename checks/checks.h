// KELMATRIX entry-point checks (internal)
// The check macro and require(); each layer declares its own checks beside it.
//
// Each exported function starts with one line, KELMATRIX_CHECK(<check>(arguments)). In the normal
// library (KELMATRIX_CHECKED undefined) the macro expands to nothing, its arguments included, so
// that library has the same code, symbols and speed as without it. In the checked library it
// calls the check of that function, declared with its layer (matrix/matrix_checks.h,
// dense/dense_checks.h, band/band_checks.h, sparse/sparse_checks.h) and compiled into that
// library only. A check reads what the function's own steps read, through the layer's own rules,
// and at the first broken condition calls require(), which hands the function's name, the
// condition and the values involved to the installed handler (kelmatrix/checked.h) and aborts
// should the handler return. A check changes nothing, so a handler that throws leaves every
// argument as it was. This header includes no library header, so any layer may include it.
#ifndef KELMATRIX_CHECKS_H
#define KELMATRIX_CHECKS_H

#if defined(KELMATRIX_CHECKED)

#    define KELMATRIX_CHECK(call) ::kelmatrix::checks::call

namespace kelmatrix {
namespace checks {

/// Reports a broken condition unless ok: the handler gets function, condition and the values
/// formatted printf-style (only then). Returns only when ok.
void require(bool ok, const char* function, const char* condition, const char* values, ...)
    __attribute__((format(printf, 4, 5)));

} // namespace checks
} // namespace kelmatrix

#else

#    define KELMATRIX_CHECK(call) static_cast<void>(0)

#endif

#endif
