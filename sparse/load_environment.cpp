// KELMATRIX load-time environment
// Sets KMP_DUPLICATE_LIB_OK=TRUE in the process environment when the shared library is loaded.
//
// An Intel OpenMP runtime aborts ("Initializing ..., but found ... already initialized") when
// another copy of an OpenMP runtime is already loaded into the host process; with this variable
// set it carries on. The setting is made by a static initializer of the library, so it is in
// place before any of the library's functions can run. The result of setenv is ignored and
// nothing is undone at unload. setenv copies name and value into the process environment: a
// putenv string owned by the library would dangle once the library is unloaded.
#include <cstdlib>

namespace {

struct LoadEnvironment {
    LoadEnvironment() { (void)setenv("KMP_DUPLICATE_LIB_OK", "TRUE", 1); }
};

const LoadEnvironment load_environment;

} // namespace
