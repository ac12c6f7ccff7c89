target_sources(kelmatrix PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/products.cpp
  ${CMAKE_CURRENT_LIST_DIR}/linear_solves.cpp
  ${CMAKE_CURRENT_LIST_DIR}/cholesky.cpp
  ${CMAKE_CURRENT_LIST_DIR}/least_squares.cpp
  ${CMAKE_CURRENT_LIST_DIR}/symmetric_eigen.cpp)
