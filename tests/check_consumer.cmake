# Installs the built library into a scratch prefix, then configures, builds and runs an
# out-of-tree consumer through find_package(KelMatrix) and compiles it again through pkg-config.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGV}\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -G ${CMAKE_GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)

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
