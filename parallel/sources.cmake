# The native routines' opt-in threads: the setting and the team over the OpenMP runtime.
set(KELMATRIX_PARALLEL_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/team.cpp)
