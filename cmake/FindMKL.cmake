# FindMKL: Intel MKL's LP64 layered libraries as Debian's libmkl-dev installs them.
#
# Debian's MKL ships pkg-config files but no CMake package (and no pkg-config file for the GNU
# threading layer), so the layers are found here. Provides
#   MKL::MKL              imported target: include directory, the interface, threading and
#                         core layers and the runtime libraries they need
#   MKL_THREADING         cache variable: "gnu" (default) or "sequential"
#   MKL_PKGCONFIG_LIBS    the same link line as pkg-config flags (-lmkl_intel_lp64 ...), for
#                         Libs.private of a package that links MKL privately
#   MKL_INCLUDE_DIR       directory of mkl_types.h
# The GNU threading layer is the default because Debian's libiomp5 is LLVM's OpenMP runtime,
# under which PARDISO factorisations failed intermittently on two threads.
include(FindPackageHandleStandardArgs)

set(MKL_THREADING "gnu" CACHE STRING "MKL threading layer: gnu or sequential")
set_property(CACHE MKL_THREADING PROPERTY STRINGS gnu sequential)

# The one list of what MKL needs: layers in link order, then the system libraries behind them.
if(MKL_THREADING STREQUAL "gnu")
  set(_mkl_layers mkl_intel_lp64 mkl_gnu_thread mkl_core)
  set(_mkl_system gomp pthread m dl)
elseif(MKL_THREADING STREQUAL "sequential")
  set(_mkl_layers mkl_intel_lp64 mkl_sequential mkl_core)
  set(_mkl_system pthread m dl)
else()
  message(FATAL_ERROR "MKL_THREADING must be gnu or sequential, not '${MKL_THREADING}'")
endif()

find_path(MKL_INCLUDE_DIR mkl_types.h PATH_SUFFIXES mkl HINTS ENV MKLROOT
          PATHS /usr/include /opt/intel/mkl/include)

set(_mkl_required MKL_INCLUDE_DIR)
set(_mkl_libraries "")
foreach(_layer IN LISTS _mkl_layers)
  string(TOUPPER "MKL_${_layer}_LIBRARY" _var)
  string(REPLACE "MKL_MKL_" "MKL_" _var "${_var}")
  find_library(${_var} ${_layer} HINTS ENV MKLROOT
               PATHS /usr/lib/x86_64-linux-gnu /opt/intel/mkl/lib/intel64)
  mark_as_advanced(${_var})
  list(APPEND _mkl_required ${_var})
  list(APPEND _mkl_libraries ${${_var}})
endforeach()

find_package_handle_standard_args(MKL REQUIRED_VARS ${_mkl_required})
mark_as_advanced(MKL_INCLUDE_DIR)

if(MKL_FOUND)
  if(NOT TARGET MKL::MKL)
    add_library(MKL::MKL INTERFACE IMPORTED)
    set_target_properties(MKL::MKL PROPERTIES
      INTERFACE_INCLUDE_DIRECTORIES "${MKL_INCLUDE_DIR}"
      INTERFACE_LINK_LIBRARIES "${_mkl_libraries};${_mkl_system}")
  endif()
  list(TRANSFORM _mkl_layers PREPEND "-l" OUTPUT_VARIABLE _mkl_flags)
  list(TRANSFORM _mkl_system PREPEND "-l" OUTPUT_VARIABLE _mkl_system_flags)
  string(JOIN " " MKL_PKGCONFIG_LIBS ${_mkl_flags} ${_mkl_system_flags})
endif()
