// KELMATRIX Python binding: the module kelmatrix._core.
// One thin layer over libkelmatrix: every computing call copies its inputs once into the
// library's matrices, releases the GIL, calls one library function and hands the result back to
// NumPy without a copy. The package's Python files (kelmatrix/) add the conversions from
// scipy.sparse, the exception classes and the small result types.
#include "bindings.h"

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
}
