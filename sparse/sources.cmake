# The sparse solver over PARDISO and the compressed-row checker.
set(KELMATRIX_SPARSE_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/lsm_solver.cpp
  ${CMAKE_CURRENT_LIST_DIR}/thread_policy.cpp
  ${CMAKE_CURRENT_LIST_DIR}/load_environment.cpp
  ${CMAKE_CURRENT_LIST_DIR}/pardiso_controls.cpp
  ${CMAKE_CURRENT_LIST_DIR}/csr_check.cpp
  ${CMAKE_CURRENT_LIST_DIR}/csr_products.cpp)
# The checks of the sparse solver: compiled into the checked variants only
# (kelmatrix_add_checks).
set(KELMATRIX_SPARSE_CHECK_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/sparse_checks.cpp)
