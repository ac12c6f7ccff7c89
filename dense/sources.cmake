target_sources(kelmatrix PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/products.cpp
  ${CMAKE_CURRENT_LIST_DIR}/linear_solves.cpp)
