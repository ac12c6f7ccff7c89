// KELMATRIX test interposers
// What a test executable needs to define an MKL entry point itself and watch the library's calls.
//
// The library reaches MKL's pardiso and mkl_set_num_threads by their unsuffixed names; a test
// executable built with ENABLE_EXPORTS that defines one of them is found first. The definitions
// take their signatures from the library's own binding header, so they cannot drift from the
// calls they intercept, and forward to MKL's definition found past the executable's.
#ifndef KELMATRIX_TEST_INTERPOSERS_H
#define KELMATRIX_TEST_INTERPOSERS_H

#include <dlfcn.h>

#include "matrix/mkl_bindings.h"

extern "C" {
// MKL's thread count, to put it back after a test has changed it (MKL's C entry, by value).
int mkl_get_max_threads(void);
}

namespace kt {

/// MKL's definition of an entry point this executable defines too: the next one in lookup order.
template <class Function> Function next_definition(Function, const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace kt

#endif
