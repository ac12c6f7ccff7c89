# Native band Cholesky, cyclic band Cholesky and solve, Kronecker band solvers.
set(KELMATRIX_BAND_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/band_cholesky.cpp
  ${CMAKE_CURRENT_LIST_DIR}/band_products.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bordered_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cyclic_cholesky.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cyclic_kernels.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cyclic_solve.cpp
  ${CMAKE_CURRENT_LIST_DIR}/direct_route.cpp
  ${CMAKE_CURRENT_LIST_DIR}/factor_kernels.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kernel_table.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kronecker.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ring_factor.cpp
  ${CMAKE_CURRENT_LIST_DIR}/vector_kernels_sse2.cpp
  ${CMAKE_CURRENT_LIST_DIR}/vector_kernels_avx2.cpp
  ${CMAKE_CURRENT_LIST_DIR}/vector_kernels_avx512.cpp)
# The checks of the native band solvers: compiled into the checked variants only
# (kelmatrix_add_checks).
set(KELMATRIX_BAND_CHECK_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/band_checks.cpp)
