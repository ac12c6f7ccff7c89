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
  ${CMAKE_CURRENT_LIST_DIR}/kernel_isa.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kronecker.cpp
  ${CMAKE_CURRENT_LIST_DIR}/substitution_kernels.cpp
  ${CMAKE_CURRENT_LIST_DIR}/substitution_kernels_avx2.cpp
  ${CMAKE_CURRENT_LIST_DIR}/substitution_kernels_avx512.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tiled_factor.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tiled_factor_avx2.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tiled_factor_avx512.cpp)
