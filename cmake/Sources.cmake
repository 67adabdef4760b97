# Source lists are globbed: a new file in a folder needs no CMake change.
# Files ending in _win.cpp build only for Windows, _linux.cpp only for Linux.
function(cr_glob_sources out)
  file(GLOB_RECURSE files CONFIGURE_DEPENDS ${ARGN})
  if(WIN32)
    list(FILTER files EXCLUDE REGEX "_linux\\.cpp$")
  else()
    list(FILTER files EXCLUDE REGEX "_win\\.cpp$")
  endif()
  set(${out} ${files} PARENT_SCOPE)
endfunction()
