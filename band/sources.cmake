# Native band Cholesky, cyclic band Cholesky and solve, Kronecker band solvers.
set(KELMATRIX_BAND_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/band_cholesky.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cyclic_cholesky.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cyclic_solve.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kronecker.cpp)
