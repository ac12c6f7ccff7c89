target_sources(kelmatrix PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/lsm_solver.cpp
  ${CMAKE_CURRENT_LIST_DIR}/thread_policy.cpp
  ${CMAKE_CURRENT_LIST_DIR}/load_environment.cpp)
# Under ASan, GCC gives every instrumented exported global an ODR indicator (__odr_asan.<name>)
# that would join the library's exported interface; the one exported global here is the int
# LSMsolver::mNumThreadsDefault, so its file goes without global redzones.
if(KELMATRIX_SANITIZE STREQUAL "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set_source_files_properties(${CMAKE_CURRENT_LIST_DIR}/thread_policy.cpp
    PROPERTIES COMPILE_OPTIONS "--param=asan-globals=0")
endif()
