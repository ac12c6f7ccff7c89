target_sources(kelmatrix PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/band_cholesky.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cyclic_cholesky.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cyclic_solve.cpp
  ${CMAKE_CURRENT_LIST_DIR}/kronecker.cpp)
