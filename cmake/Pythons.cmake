# Finds the interpreters to build for and their headers. One build tree serves them all: what includes Python.h is
# compiled once per interpreter, everything else once. Sets SKIFFPORT_PYTHON_TAGS (such as
# "cpython-311-x86_64-linux-gnu") and, for each tag, SKIFFPORT_PYTHON_<tag>_EXECUTABLE and _INCLUDE.
set(_pythons ${SKIFFPORT_PYTHONS})
if(NOT _pythons)
  set(_pythons $ENV{SKIFFPORT_PYTHONS})
endif()
set(_versions "") # those to look for
if(NOT _pythons)
  set(_versions 3.8)
elseif(_pythons STREQUAL "all")
  set(_versions 3.8 3.9 3.10 3.11 3.12 3.13)
endif()
if(_versions)
  set(_pythons /usr/bin/python3)
  foreach(_version IN LISTS _versions)
    # What the PATH finds may be a version manager's shim that does not run, so the manager's own folder is tried too.
    find_program(_on_path python${_version} NO_CACHE)
    file(GLOB _managed $ENV{PYENV_ROOT}/versions/${_version}.*/bin/python${_version}
      $ENV{HOME}/.pyenv/versions/${_version}.*/bin/python${_version})
    list(APPEND _pythons ${_on_path} ${_managed})
    unset(_on_path)
  endforeach()
  list(FILTER _pythons EXCLUDE REGEX NOTFOUND)
endif()

set(SKIFFPORT_PYTHON_TAGS "")
foreach(_python IN LISTS _pythons)
  execute_process(
    COMMAND ${_python} -c "import sys, sysconfig; print(sys.executable, sysconfig.get_config_var('SOABI'), \
sysconfig.get_path('include'), sys.version_info >= (3, 8), sep=';')"
    OUTPUT_VARIABLE _found OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE _failed ERROR_QUIET)
  if(_failed)
    message(STATUS "Python: ${_python} does not run and is left out")
    continue()
  endif()
  list(GET _found 0 _executable)
  list(GET _found 1 _tag)
  list(GET _found 2 _include)
  list(GET _found 3 _new_enough)
  if(NOT _new_enough STREQUAL "True")
    message(FATAL_ERROR "Python: ${_python} is older than 3.8")
  endif()
  if(NOT EXISTS ${_include}/Python.h)
    message(STATUS "Python: ${_python} has no headers and is left out")
    continue()
  endif()
  if(NOT _tag IN_LIST SKIFFPORT_PYTHON_TAGS)
    list(APPEND SKIFFPORT_PYTHON_TAGS ${_tag})
    set(SKIFFPORT_PYTHON_${_tag}_EXECUTABLE ${_executable})
    set(SKIFFPORT_PYTHON_${_tag}_INCLUDE ${_include})
    message(STATUS "Python: ${_executable} (${_tag})")
  endif()
endforeach()
set(_list "")
foreach(_tag IN LISTS SKIFFPORT_PYTHON_TAGS)
  string(APPEND _list "${SKIFFPORT_PYTHON_${_tag}_EXECUTABLE}\n")
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/pythons.txt "${_list}") # for the scripts, one per line
if(NOT SKIFFPORT_PYTHON_TAGS)
  message(FATAL_ERROR "Python: found no interpreter with headers (Debian: python3-dev)")
endif()

# add_python_library(<name> <tag> <sources>...): <name>_<tag>, a static library of code that includes Python.h.
function(add_python_library name tag)
  add_library(${name}_${tag} STATIC ${ARGN})
  target_include_directories(${name}_${tag} SYSTEM PUBLIC ${SKIFFPORT_PYTHON_${tag}_INCLUDE})
  target_link_libraries(${name}_${tag} PUBLIC skiffport_options)
endfunction()

# add_python_module(<name> <tag> <folder> <sources>...): an extension module in that folder of the importable tree.
function(add_python_module name tag folder)
  set(_target ${name}_${tag})
  add_library(${_target} MODULE ${ARGN})
  target_include_directories(${_target} SYSTEM PRIVATE ${SKIFFPORT_PYTHON_${tag}_INCLUDE})
  target_link_libraries(${_target} PRIVATE skiffport_options)
  set_target_properties(${_target} PROPERTIES PREFIX "" OUTPUT_NAME ${name} SUFFIX ".${tag}.so"
    LIBRARY_OUTPUT_DIRECTORY ${folder})
endfunction()
