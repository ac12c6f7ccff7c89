# libkelmatrix_mpi: the distributed sparse solver (kelmatrix/sparse_mpi.h) over MKL's cluster
# sparse solver. A library of its own, so that libkelmatrix never depends on MPI.
#
# Built when MPI's C++ interface and MKL's BLACS layer for that MPI are found; configure with
# -DKELMATRIX_BUILD_MPI=OFF to leave it out. Provides the target kelmatrix_mpi (alias and
# installed name KelMatrix::kelmatrix_mpi), its own export set and pkg-config file, and
#   KELMATRIX_MPIEXEC_FLAGS   what the tests, examples and scripts pass to mpiexec before the
#                             program: Open MPI's switches for running as root (CI does) and for
#                             more ranks than cores.
option(KELMATRIX_BUILD_MPI "Build libkelmatrix_mpi, the distributed sparse solver (needs MPI)" ON)
if(NOT KELMATRIX_BUILD_MPI)
  return()
endif()

find_package(MPI COMPONENTS CXX)
if(MPI_CXX_FOUND)
  # MKL's BLACS layer must match the MPI library's ABI: Open MPI's, or MPICH's (MPICH, Intel MPI).
  include(CheckCXXSymbolExists)
  set(CMAKE_REQUIRED_LIBRARIES MPI::MPI_CXX)
  set(CMAKE_REQUIRED_QUIET ON)
  check_cxx_symbol_exists(OPEN_MPI mpi.h KELMATRIX_OPEN_MPI)
  unset(CMAKE_REQUIRED_LIBRARIES)
  unset(CMAKE_REQUIRED_QUIET)
  if(KELMATRIX_OPEN_MPI)
    set(_kelmatrix_blacs mkl_blacs_openmpi_lp64)
    set(KELMATRIX_MPIEXEC_FLAGS --allow-run-as-root --oversubscribe)
  else()
    set(_kelmatrix_blacs mkl_blacs_intelmpi_lp64)
    set(KELMATRIX_MPIEXEC_FLAGS "")
  endif()
  find_library(MKL_BLACS_LIBRARY ${_kelmatrix_blacs} HINTS ENV MKLROOT
               PATHS /usr/lib/x86_64-linux-gnu /opt/intel/mkl/lib/intel64)
  mark_as_advanced(MKL_BLACS_LIBRARY)
endif()
if(NOT MPI_CXX_FOUND OR NOT MKL_BLACS_LIBRARY)
  message(STATUS "libkelmatrix_mpi is not built: MPI (C++) or MKL's BLACS layer for it was not found")
  return()
endif()

include(${PROJECT_SOURCE_DIR}/sparse/mpi_sources.cmake)
kelmatrix_add_library(kelmatrix_mpi SHARED ${KELMATRIX_MPI_SOURCES})
add_library(KelMatrix::kelmatrix_mpi ALIAS kelmatrix_mpi)
# MPI's C interface only: its C++ bindings are neither used nor linked.
target_compile_definitions(kelmatrix_mpi PRIVATE OMPI_SKIP_MPICXX MPICH_SKIP_MPICXX)
# The public header includes mpi.h and the core's sparse.h. MKL's cluster engine looks its BLACS
# layer up by symbol at run time, so the library records that layer as a dependency although it
# names none of its symbols (hence not "as needed").
target_link_libraries(kelmatrix_mpi
  PUBLIC kelmatrix MPI::MPI_CXX
  PRIVATE "-Wl,--push-state,--no-as-needed" ${MKL_BLACS_LIBRARY} "-Wl,--pop-state")
# Installed beside libkelmatrix, it finds it there ($ORIGIN) whatever the prefix: an executable's
# run path does not reach a library's own dependencies.
set_target_properties(kelmatrix_mpi PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS kelmatrix_mpi EXPORT KelMatrixMPITargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT KelMatrixMPITargets NAMESPACE KelMatrix:: DESTINATION ${KELMATRIX_CMAKE_DIR})

# pkg-config: MPI's flags from MPI's own pkg-config module for C (Open MPI's ompi-c, MPICH's
# mpich), required by name so that no path of this machine is written into the file; where MPI
# has no such module, the flags FindMPI found, the C++ bindings library left out. The C++
# bindings are never needed: the header uses MPI's C interface only.
get_filename_component(_kelmatrix_blacs_name ${MKL_BLACS_LIBRARY} NAME_WE)
string(REGEX REPLACE "^lib" "-l" _kelmatrix_blacs_flag ${_kelmatrix_blacs_name})
set(KELMATRIX_MPI_PC_REQUIRES "")
set(KELMATRIX_MPI_PC_CFLAGS "-DOMPI_SKIP_MPICXX -DMPICH_SKIP_MPICXX")
set(KELMATRIX_MPI_PC_LIBS "")
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_search_module(_kelmatrix_pc_mpi QUIET ompi-c mpich mpi-c)
endif()
if(_kelmatrix_pc_mpi_FOUND)
  set(KELMATRIX_MPI_PC_REQUIRES ", ${_kelmatrix_pc_mpi_MODULE_NAME}")
else()
  list(TRANSFORM MPI_CXX_INCLUDE_DIRS PREPEND "-I" OUTPUT_VARIABLE _kelmatrix_mpi_cflags)
  string(JOIN " " KELMATRIX_MPI_PC_CFLAGS ${KELMATRIX_MPI_PC_CFLAGS} ${_kelmatrix_mpi_cflags})
  foreach(_kelmatrix_lib IN LISTS MPI_CXX_LIBRARIES)
    get_filename_component(_kelmatrix_lib_name ${_kelmatrix_lib} NAME_WE)
    get_filename_component(_kelmatrix_lib_dir ${_kelmatrix_lib} DIRECTORY)
    if(NOT _kelmatrix_lib_name MATCHES "mpi_cxx|mpicxx")
      string(REGEX REPLACE "^lib" "" _kelmatrix_lib_name ${_kelmatrix_lib_name})
      string(APPEND KELMATRIX_MPI_PC_LIBS " -L${_kelmatrix_lib_dir} -l${_kelmatrix_lib_name}")
    endif()
  endforeach()
endif()
set(KELMATRIX_MPI_PC_LIBS_PRIVATE "${_kelmatrix_blacs_flag} ${MKL_PKGCONFIG_LIBS}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/kelmatrix_mpi.pc.in
               ${PROJECT_BINARY_DIR}/kelmatrix_mpi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelmatrix_mpi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
