# Dense wrappers: one LAPACK/BLAS routine each.
set(KELMATRIX_DENSE_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/products.cpp
  ${CMAKE_CURRENT_LIST_DIR}/linear_solves.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cholesky.cpp
  ${CMAKE_CURRENT_LIST_DIR}/least_squares.cpp
  ${CMAKE_CURRENT_LIST_DIR}/symmetric_eigen.cpp
  ${CMAKE_CURRENT_LIST_DIR}/residual.cpp)
# The checks of the dense wrappers: compiled into the checked variants only
# (kelmatrix_add_checks).
set(KELMATRIX_DENSE_CHECK_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/dense_checks.cpp)
