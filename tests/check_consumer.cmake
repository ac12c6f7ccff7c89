# Installs the built library into a scratch prefix, then configures, builds and runs an
# out-of-tree consumer through find_package(KelMatrix) and compiles it again through pkg-config;
# the same for a program on the checked library (KelMatrix::kelmatrix_checked, kelmatrix_checked).
# With -DMPIEXEC="<mpiexec and its flags>" the MPI library is checked the same way: the consumer's
# MPI program is built through find_package(KelMatrix COMPONENTS mpi) and through pkg-config, and
# each build runs on two ranks.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGV}\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
if(MPIEXEC)
  set(with_mpi ON)
else()
  set(with_mpi OFF)
endif()
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -G ${CMAKE_GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release -DCONSUMER_MPI=${with_mpi})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
run(${WORK_DIR}/build/consumer_checked)
if(MPIEXEC)
  run(${MPIEXEC} 2 ${WORK_DIR}/build/consumer_mpi)
endif()

# pkg-config, relocated: the .pc file finds its prefix from its own location.
file(GLOB pc_file ${prefix}/lib*/pkgconfig/kelmatrix.pc ${prefix}/lib/*/pkgconfig/kelmatrix.pc)
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
execute_process(COMMAND pkg-config --cflags --libs kelmatrix OUTPUT_VARIABLE flags
  RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know kelmatrix")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
get_filename_component(libdir "${pc_dir}" DIRECTORY)
run(c++ -std=c++17 ${CONSUMER_DIR}/main.cpp ${flags} -Wl,-rpath,${libdir} -o ${WORK_DIR}/consumer_pc)
run(${WORK_DIR}/consumer_pc)
execute_process(COMMAND pkg-config --cflags --libs kelmatrix_checked OUTPUT_VARIABLE flags
  RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know kelmatrix_checked")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${CONSUMER_DIR}/main_checked.cpp ${flags} -Wl,-rpath,${libdir}
    -o ${WORK_DIR}/consumer_checked_pc)
run(${WORK_DIR}/consumer_checked_pc)

if(MPIEXEC)
  execute_process(COMMAND pkg-config --cflags --libs kelmatrix_mpi OUTPUT_VARIABLE flags
    RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know kelmatrix_mpi")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run(c++ -std=c++17 ${CONSUMER_DIR}/main_mpi.cpp ${flags} -Wl,-rpath,${libdir}
      -o ${WORK_DIR}/consumer_mpi_pc)
  run(${MPIEXEC} 2 ${WORK_DIR}/consumer_mpi_pc)
endif()
