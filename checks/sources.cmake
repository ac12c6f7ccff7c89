# The check macro's runtime, require() and the misuse handler: compiled into the checked variants
# only, with KELMATRIX_CHECKED defined for every source (see kelmatrix_add_checks). Each layer's
# checks are listed beside it.
set(KELMATRIX_CHECK_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/report.cpp)
