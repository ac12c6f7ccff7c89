# The entry-point checks and the misuse handler: compiled into the checked variants only, with
# KELMATRIX_CHECKED defined for every source (see kelmatrix_add_checks).
set(KELMATRIX_CHECK_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/report.cpp
  ${CMAKE_CURRENT_LIST_DIR}/matrix_checks.cpp
  ${CMAKE_CURRENT_LIST_DIR}/dense_checks.cpp
  ${CMAKE_CURRENT_LIST_DIR}/band_checks.cpp
  ${CMAKE_CURRENT_LIST_DIR}/sparse_checks.cpp)
