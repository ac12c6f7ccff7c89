# Containers and aligned storage.
set(KELMATRIX_MATRIX_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/generic_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dense_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/banded_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/packed_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sparse_vector.cpp
  ${CMAKE_CURRENT_LIST_DIR}/product_status.cpp)
# The checks of the containers: compiled into the checked variants only
# (kelmatrix_add_checks).
set(KELMATRIX_MATRIX_CHECK_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/matrix_checks.cpp)
