// KELMATRIX export macros
// Mark the declarations that form the libraries' binary interfaces.
//
// The libraries are built with hidden visibility (GCC and Clang, ELF); only what carries
// KELMATRIX_API is exported from libkelmatrix.so, and only what carries KELMATRIX_MPI_API from
// libkelmatrix_mpi.so. KELMATRIX_LOCAL keeps a private member of an exported class out of either.
#ifndef KELMATRIX_EXPORT_H
#define KELMATRIX_EXPORT_H

#define KELMATRIX_API __attribute__((visibility("default")))
#define KELMATRIX_LOCAL __attribute__((visibility("hidden")))
#define KELMATRIX_MPI_API __attribute__((visibility("default")))

#endif
