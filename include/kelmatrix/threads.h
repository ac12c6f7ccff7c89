// KELMATRIX threads of the native routines
// How many threads the library's own band, dense-storage, cyclic and Kronecker routines may use.
//
// By default they run on the calling thread alone, as they always have. A program opts in with
// kelmatrix_set_native_threads (or the environment variable KELMATRIX_NUM_THREADS, read once,
// at the first native call that could use threads, when nothing was set before). The count only
// decides how independent work is shared out (right-hand-side columns, columns of a factor's
// row, border columns): every element takes exactly the same operations in the same order, so
// the results are the same bits for every count. Routines over MKL (the LAPACK wrappers,
// SolveBSP_Cyclic, Solve_Kronecker, LSMsolver) follow MKL's own thread count instead; this
// setting does not touch it.
#ifndef KELMATRIX_THREADS_H
#define KELMATRIX_THREADS_H

#include "kelmatrix/export.h"

/// Results of kelmatrix_set_native_threads; kelmatrix_native_threads_message names them.
enum KelThreads_status : int {
    KEL_THREADS_OK = 0,
    KEL_THREADS_OUT_OF_RANGE = 1 ///< a count below 0 or above KEL_THREADS_MAX
};

/// The largest count kelmatrix_set_native_threads accepts.
constexpr int KEL_THREADS_MAX = 1024;

/// Lets the native routines use up to count threads of the OpenMP runtime: 1 (the default) runs
/// them on the calling thread, as if no threads existed; 0 takes as many as the runtime offers
/// a parallel region (omp_get_max_threads(), i.e. OMP_NUM_THREADS or the cores). Process-wide;
/// returns KEL_THREADS_OK, or KEL_THREADS_OUT_OF_RANGE and changes nothing. Small problems run
/// serially whatever the count, and so does any call made from inside an OpenMP parallel region.
KELMATRIX_API int kelmatrix_set_native_threads(int count);
/// The count in effect: the last one set, else KELMATRIX_NUM_THREADS (an integer 0 ..
/// KEL_THREADS_MAX; anything else is ignored), else 1.
KELMATRIX_API int kelmatrix_native_threads();
/// The status in words ("unknown status" for a value not listed above).
KELMATRIX_API const char* kelmatrix_native_threads_message(int status);

#endif
