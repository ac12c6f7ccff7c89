target_sources(kelmatrix PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/band_cholesky.cpp)
target_sources(kelmatrix PRIVATE ${CMAKE_CURRENT_LIST_DIR}/kronecker.cpp)
