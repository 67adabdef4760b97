# Checks that every library includes only headers of the libraries it may use.
#
#   cmake -DTABLE=<file> -DROOT=<folder> -P layering_check.cmake
#
# TABLE is a CMake file that sets CR_LAYERS, a list of "name|folder|deps"
# entries: the library `name`, its folder relative to ROOT, and the names it
# may use, separated by commas. A library may include its own headers
# ("name/..."), those of the libraries it may use and of everything below
# them, and the host's interfaces ("qv/..."). An include that goes through the
# source tree's root ("src/...", "sdk/...") is refused too. Includes without a
# folder ("local.h") and system includes (<...>) are not checked.
# Prints every offending include and fails when there is one.
cmake_minimum_required(VERSION 3.25)

if(NOT TABLE OR NOT ROOT)
  message(FATAL_ERROR "usage: cmake -DTABLE=<file> -DROOT=<folder> -P layering_check.cmake")
endif()
get_filename_component(ROOT "${ROOT}" ABSOLUTE)
include(${TABLE})

set(names "")
foreach(entry IN LISTS CR_LAYERS)
  string(REPLACE "|" ";" fields "${entry}")
  list(GET fields 0 name)
  list(GET fields 1 folder)
  list(LENGTH fields count)
  set(deps "")
  if(count GREATER 2)
    list(GET fields 2 deps)
    string(REPLACE "," ";" deps "${deps}")
  endif()
  list(APPEND names ${name})
  set(folder_${name} ${folder})
  set(deps_${name} ${deps})
endforeach()

# Everything a library may use: its dependencies and, in turn, theirs.
foreach(name IN LISTS names)
  set(reach ${deps_${name}})
  set(pending ${deps_${name}})
  while(pending)
    list(POP_FRONT pending next)
    foreach(dep IN LISTS deps_${next})
      if(NOT dep IN_LIST reach)
        list(APPEND reach ${dep})
        list(APPEND pending ${dep})
      endif()
    endforeach()
  endwhile()
  set(reach_${name} ${reach})
endforeach()

set(violations 0)
foreach(name IN LISTS names)
  file(GLOB_RECURSE files ${ROOT}/${folder_${name}}/*.h ${ROOT}/${folder_${name}}/*.cpp)
  foreach(file IN LISTS files)
    file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"[^\"]+/[^\"]*\"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"/]+)/.*$" "\\1" top "${line}")
      if(top STREQUAL name OR top STREQUAL "qv" OR top IN_LIST reach_${name})
        continue()
      endif()
      file(RELATIVE_PATH shown ${ROOT} ${file})
      string(STRIP "${line}" line)
      string(REPLACE ";" ", " allowed "${reach_${name}}")
      message(NOTICE "layering: ${shown}: '${line}': ${name} may use only: ${allowed}")
      math(EXPR violations "${violations} + 1")
    endforeach()
  endforeach()
endforeach()

if(violations GREATER 0)
  message(FATAL_ERROR "layering: ${violations} include(s) of a library that may not be used")
endif()
list(LENGTH names count)
message(STATUS "layering: ${count} libraries follow their declared dependencies")
