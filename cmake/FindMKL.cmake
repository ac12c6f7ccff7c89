# FindMKL: Intel MKL's LP64 layered libraries as Debian's libmkl-dev installs them.
#
# Debian's MKL ships pkg-config files but no CMake package, so the layers are found here:
#   MKL_INCLUDE_DIR     directory of mkl.h / mkl_types.h
#   MKL_LIBRARIES       interface + threading + core layers (+ the OpenMP runtime for "gnu")
#   MKL_THREADING       "gnu" (default) or "sequential"
# The GNU threading layer is the default because Debian's libiomp5 is LLVM's OpenMP runtime,
# under which PARDISO factorisations failed intermittently on two threads.
include(FindPackageHandleStandardArgs)

set(MKL_THREADING "gnu" CACHE STRING "MKL threading layer: gnu or sequential")
set_property(CACHE MKL_THREADING PROPERTY STRINGS gnu sequential)

find_path(MKL_INCLUDE_DIR mkl_types.h PATH_SUFFIXES mkl HINTS ENV MKLROOT PATHS /usr/include /opt/intel/mkl/include)

set(_mkl_hints ENV MKLROOT PATHS /usr/lib/x86_64-linux-gnu /opt/intel/mkl/lib/intel64)
find_library(MKL_INTERFACE_LIBRARY mkl_intel_lp64 HINTS ${_mkl_hints})
find_library(MKL_CORE_LIBRARY mkl_core HINTS ${_mkl_hints})
if(MKL_THREADING STREQUAL "sequential")
  find_library(MKL_THREAD_LIBRARY mkl_sequential HINTS ${_mkl_hints})
  set(_mkl_runtime "")
elseif(MKL_THREADING STREQUAL "gnu")
  find_library(MKL_THREAD_LIBRARY mkl_gnu_thread HINTS ${_mkl_hints})
  set(_mkl_runtime gomp)
else()
  message(FATAL_ERROR "MKL_THREADING must be gnu or sequential, not '${MKL_THREADING}'")
endif()

find_package_handle_standard_args(MKL
  REQUIRED_VARS MKL_INCLUDE_DIR MKL_INTERFACE_LIBRARY MKL_THREAD_LIBRARY MKL_CORE_LIBRARY)

if(MKL_FOUND)
  set(MKL_LIBRARIES ${MKL_INTERFACE_LIBRARY} ${MKL_THREAD_LIBRARY} ${MKL_CORE_LIBRARY}
      ${_mkl_runtime} pthread m dl)
endif()
mark_as_advanced(MKL_INCLUDE_DIR MKL_INTERFACE_LIBRARY MKL_THREAD_LIBRARY MKL_CORE_LIBRARY)
