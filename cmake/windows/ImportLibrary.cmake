# Makes the import library of Python's DLL out of the symbols that some objects want. A script for cmake -P:
# NM, DLLTOOL (programs), DLL (its name), OBJECTS (a file with their paths), LIBRARY (the output).

cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${NM} --undefined-only @${OBJECTS} OUTPUT_VARIABLE _wanted COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "U (__imp_)?_?Py[A-Za-z0-9_]+" _wanted "${_wanted}")
list(REMOVE_DUPLICATES _wanted)
list(SORT _wanted)
set(_exports "")
foreach(_symbol IN LISTS _wanted)
  string(REGEX REPLACE "^U (__imp_)?" "" _name "${_symbol}")
  # DATA: reached through its pointer only, so that no jump to it is needed.
  if(NOT "U ${_name}" IN_LIST _wanted)
    string(APPEND _name " DATA")
  endif()
  list(APPEND _exports "  ${_name}")
endforeach()
list(REMOVE_DUPLICATES _exports)
list(JOIN _exports "\n" _exports)
file(WRITE ${LIBRARY}.def "LIBRARY ${DLL}\nEXPORTS\n${_exports}\n")
execute_process(COMMAND ${DLLTOOL} -d ${LIBRARY}.def -l ${LIBRARY} COMMAND_ERROR_IS_FATAL ANY)
