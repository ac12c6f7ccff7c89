// KELMATRIX export macro
// Marks the declarations that form the library's binary interface.
//
// The library is built with hidden visibility; only what carries KELMATRIX_API is exported
// from libkelmatrix.so. KELMATRIX_LOCAL keeps a private member of an exported class out of it.
#ifndef KELMATRIX_EXPORT_H
#define KELMATRIX_EXPORT_H

#if defined(_WIN32)
#  if defined(KELMATRIX_BUILDING)
#    define KELMATRIX_API __declspec(dllexport)
#  else
#    define KELMATRIX_API __declspec(dllimport)
#  endif
#  define KELMATRIX_LOCAL
#else
#  define KELMATRIX_API __attribute__((visibility("default")))
#  define KELMATRIX_LOCAL __attribute__((visibility("hidden")))
#endif

#endif
