# Compares the library's dynamic symbol table with the documented interface.
# -DLIBRARY=<libkelmatrix.so> -DEXPECTED=<file with one demangled symbol per line>
execute_process(COMMAND nm -D --defined-only --demangle ${LIBRARY}
  OUTPUT_VARIABLE nm_out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REPLACE "\n" ";" lines "${nm_out}")
set(actual "")
foreach(line IN LISTS lines)
  # "<address> <type> <name>"; the name may contain spaces.
  # The linker's section markers and ASan's ODR indicators of exported globals are not part
  # of any interface.
  if(line MATCHES "^[0-9a-f]+ [A-Za-z] (.+)$")
    set(name "${CMAKE_MATCH_1}")
    if(NOT name MATCHES "^(__bss_start|_edata|_end|__odr_asan\\..*)$")
      list(APPEND actual "${name}")
    endif()
  endif()
endforeach()
list(REMOVE_DUPLICATES actual)
list(SORT actual)

file(STRINGS ${EXPECTED} expected REGEX "^[^#].*")
list(REMOVE_DUPLICATES expected)
list(SORT expected)

set(extra ${actual})
list(REMOVE_ITEM extra ${expected})
set(missing ${expected})
list(REMOVE_ITEM missing ${actual})
if(extra OR missing)
  string(REPLACE ";" "\n  " extra_text "${extra}")
  string(REPLACE ";" "\n  " missing_text "${missing}")
  message(FATAL_ERROR "exported interface differs\nexported but not listed:\n  ${extra_text}\nlisted but not exported:\n  ${missing_text}")
endif()
list(LENGTH actual count)
message(STATUS "${LIBRARY}: exactly the ${count} listed symbols are exported")
