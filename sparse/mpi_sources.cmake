# The distributed sparse solver over MKL's cluster engine (libkelmatrix_mpi, MPI).
set(KELMATRIX_MPI_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/cluster_solver.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cluster_vectors.cpp)
