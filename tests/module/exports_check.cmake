# Checks the export table and the load-time imports of a built module.
#
#   cmake -DMODULE=<dll or so> -DOBJDUMP=<objdump> [-DNM=<nm>]
#         [-DEXPECTED=QvCreateObject;QvDestroyObject] -P exports_check.cmake
#
# Passes when the module exports exactly the EXPECTED names and needs no
# library at load time that would have to be shipped beside it: on Windows no
# toolchain runtime DLL (lib*.dll: libstdc++, libgcc, libwinpthread) and, on
# both systems, not the optional logging library, which is loaded at run time.
# Prints one line per problem ("missing export: X", "unexpected export: X",
# "forbidden import: X") and fails when there is any.

cmake_minimum_required(VERSION 3.25)

if(NOT DEFINED EXPECTED)
  set(EXPECTED QvCreateObject QvDestroyObject)
endif()
foreach(var MODULE OBJDUMP)
  if(NOT ${var})
    message(FATAL_ERROR "exports_check: ${var} not given")
  endif()
endforeach()
if(NOT EXISTS "${MODULE}")
  message(FATAL_ERROR "exports_check: ${MODULE} does not exist")
endif()

function(run_tool out)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE text ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "exports_check: '${ARGN}' failed (${rc}): ${err}")
  endif()
  # Lines as list items; list separators in the text would split items.
  string(REPLACE ";" "\\;" text "${text}")
  string(REPLACE "\n" ";" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

run_tool(headers "${OBJDUMP}" -p "${MODULE}")

set(exports "")
set(imports "")
if(MODULE MATCHES "\\.[dD][lL][lL]$")
  # PE: names follow the "[Ordinal/Name Pointer] Table" heading, one per line
  # ("\t[   0] QvCreateObject"), up to the next blank line. Imported DLLs are
  # listed as "\tDLL Name: KERNEL32.dll".
  set(in_names FALSE)
  foreach(line IN LISTS headers)
    if(line MATCHES "^\\[Ordinal/Name Pointer\\] Table")
      set(in_names TRUE)
    elseif(in_names AND line MATCHES "^[ \t]*\\[ *[0-9]+\\] (.+)$")
      list(APPEND exports "${CMAKE_MATCH_1}")
    elseif(in_names)
      set(in_names FALSE)
    endif()
    if(line MATCHES "^[ \t]*DLL Name: (.+)$")
      list(APPEND imports "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  set(forbidden_import "^([lL][iI][bB].*|[lL][oO][gG])\\.[dD][lL][lL]$")
else()
  # ELF: the defined dynamic symbols, "name type value [size]" per line.
  if(NOT NM)
    message(FATAL_ERROR "exports_check: NM not given for an ELF module")
  endif()
  run_tool(symbols "${NM}" -D --defined-only --format=posix "${MODULE}")
  foreach(line IN LISTS symbols)
    if(line MATCHES "^([^ @]+)(@[^ ]*)? [A-Za-z] ")
      list(APPEND exports "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  foreach(line IN LISTS headers)
    if(line MATCHES "^[ \t]*NEEDED[ \t]+(.+)$")
      list(APPEND imports "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  set(forbidden_import "^liblog\\.so")
endif()

set(problems "")
foreach(name IN LISTS EXPECTED)
  if(NOT name IN_LIST exports)
    list(APPEND problems "missing export: ${name}")
  endif()
endforeach()
foreach(name IN LISTS exports)
  if(NOT name IN_LIST EXPECTED)
    list(APPEND problems "unexpected export: ${name}")
  endif()
endforeach()
foreach(name IN LISTS imports)
  if(name MATCHES "${forbidden_import}")
    list(APPEND problems "forbidden import: ${name}")
  endif()
endforeach()

list(JOIN exports " " export_text)
list(JOIN imports " " import_text)
message(STATUS "exports of ${MODULE}: ${export_text}")
message(STATUS "imports: ${import_text}")
if(problems)
  list(JOIN problems "\n" problem_text)
  message(FATAL_ERROR "${problem_text}")
endif()
