// KELMATRIX load-time environment
// Sets KMP_DUPLICATE_LIB_OK=TRUE in the environment when the shared library is loaded.
//
// An Intel OpenMP runtime aborts ("Initializing ..., but found ... already initialized") when
// another copy of an OpenMP runtime is already loaded into the host process; with this variable
// set it carries on. A static initializer of the library makes the setting, so it is in place
// before any of the library's functions can run, in two steps in this order: the name=value
// string goes into the C runtime's own environment table by putenv, then the process variable is
// set by setenv. Both results are ignored and nothing is undone at unload. putenv keeps the
// very array it is given, hence a static one (it must outlive the call); on Linux both steps
// write the one table, and setenv replaces that entry with a copy of its own, so after load the
// environment refers to no storage of this library and unloading it leaves nothing dangling.
#include <cstdlib>

namespace {

// Not const: putenv takes char* and the array becomes part of the environment.
char duplicate_lib_ok[] = "KMP_DUPLICATE_LIB_OK=TRUE";

struct LoadEnvironment {
    LoadEnvironment()
    {
        (void)putenv(duplicate_lib_ok);
        (void)setenv("KMP_DUPLICATE_LIB_OK", "TRUE", 1);
    }
};

const LoadEnvironment load_environment;

} // namespace
