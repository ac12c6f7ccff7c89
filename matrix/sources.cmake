# Containers and aligned storage.
set(KELMATRIX_MATRIX_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/generic_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dense_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/banded_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/packed_matrix.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sparse_vector.cpp
  ${CMAKE_CURRENT_LIST_DIR}/product_status.cpp)
