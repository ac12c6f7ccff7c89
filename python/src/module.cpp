// KELMATRIX Python binding: the module kelmatrix._core.
// One thin layer over libkelmatrix: every computing call copies its inputs once into the
// library's matrices, releases the GIL, calls one library function and hands the result back to
// NumPy without a copy. The package's Python files (kelmatrix/) add the conversions from
// scipy.sparse, the exception classes and the small result types. Importing it turns the
// library's own threads on (every core OpenMP offers) unless KELMATRIX_NUM_THREADS is set.
#include <cstdlib>

#include "bindings.h"
#include "kelmatrix/threads.h"

PYBIND11_MODULE(_core, m)
{
    m.doc() = "KELMATRIX compiled core; use the kelmatrix package.";
    kelpy::bind_dense(m);
    kelpy::bind_band(m);
    kelpy::bind_sparse(m);
    m.def(
        "establish_numthreads",
        [](int requested) { return LSMsolver::establish_numthreads(requested); },
        py::arg("requested") = 0,
        "Decides the library's thread count and returns it (LSMsolver::establish_numthreads):\n"
        "requested > 0 is taken as it stands and handed to MKL; 0 returns the decided count,\n"
        "or reads OMP_NUM_THREADS (1 when unset).");
    m.def(
        "set_native_threads",
        [](int count) {
            const int status = kelmatrix_set_native_threads(count);
            if (status != KEL_THREADS_OK)
                throw py::value_error(kelmatrix_native_threads_message(status));
        },
        py::arg("count"),
        "Lets the library's own band, dense-storage, cyclic and Kronecker routines use up to "
        "count\n"
        "threads (kelmatrix_set_native_threads): 0 as many as OpenMP offers, 1 serial. The\n"
        "results are the same bits for every count. Raises ValueError outside 0 .. 1024.");
    m.def(
        "native_threads", [] { return kelmatrix_native_threads(); },
        "The count the library's own routines may use (0: as many as OpenMP offers).");
    // The package's own choice: the native threads on, unless the environment says otherwise.
    if (!std::getenv("KELMATRIX_NUM_THREADS"))
        kelmatrix_set_native_threads(0);
}
