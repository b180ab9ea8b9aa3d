# The interpreters that the build for Windows makes modules for. Sets SKIFFPORT_PYTHON_TAGS (such as "cp38-win_amd64")
# and, for each tag, SKIFFPORT_PYTHON_<tag>_INCLUDE and _LIBRARY, the import library of its DLL.
#
# With SKIFFPORT_WINDOWS_PYTHON: a CPython for Windows, with its own headers and import library. Without: the headers of
# each interpreter of the building system, which are the same but for pyconfig.h, and an import library made of the
# symbols that the modules want.
set(SKIFFPORT_WINDOWS_PYTHON "" CACHE PATH "Folder of a 64-bit CPython for Windows; empty: headers of this system's")

set(_platform win_amd64) # as Python names it
if(NOT CMAKE_SIZEOF_VOID_P EQUAL 8)
  message(FATAL_ERROR "Windows: the compiler is not for 64-bit Windows")
endif()

set(_windows_tags "")
if(SKIFFPORT_WINDOWS_PYTHON)
  if(NOT EXISTS ${SKIFFPORT_WINDOWS_PYTHON}/include/patchlevel.h)
    message(FATAL_ERROR "Python: no CPython for Windows in ${SKIFFPORT_WINDOWS_PYTHON}: it has no include/patchlevel.h")
  endif()
  file(STRINGS ${SKIFFPORT_WINDOWS_PYTHON}/include/patchlevel.h _lines REGEX "define PY_M(AJOR|INOR)_VERSION")
  string(REGEX MATCHALL "[0-9]+" _version "${_lines}")
  list(JOIN _version "" _version)
  set(_windows_tags cp${_version}-${_platform})
  set(SKIFFPORT_PYTHON_${_windows_tags}_INCLUDE ${SKIFFPORT_WINDOWS_PYTHON}/include)
  set(_library ${SKIFFPORT_WINDOWS_PYTHON}/libs/python${_version}.lib)
  if(NOT EXISTS ${_library})
    message(FATAL_ERROR "Python: no import library ${_library}")
  endif()
  # The DLL's machine stands 4 bytes after its signature, which stands where the 60th byte says.
  set(_dll ${SKIFFPORT_WINDOWS_PYTHON}/python${_version}.dll)
  if(EXISTS ${_dll})
    file(READ ${_dll} _at OFFSET 60 LIMIT 2 HEX)
    string(REGEX REPLACE "(..)(..)" "0x\\2\\1" _at ${_at})
    math(EXPR _at "${_at} + 4")
    file(READ ${_dll} _machine OFFSET ${_at} LIMIT 2 HEX)
    if(_machine STREQUAL "4c01")
      message(FATAL_ERROR "Python: a 32-bit CPython in ${SKIFFPORT_WINDOWS_PYTHON}; build for a 64-bit one")
    endif()
  endif()
  set(SKIFFPORT_PYTHON_${_windows_tags}_LIBRARY ${_library})
  find_program(SKIFFPORT_BUILD_PYTHON NAMES python3 python REQUIRED)
else()
  include(${PROJECT_SOURCE_DIR}/cmake/Pythons.cmake)
  foreach(_tag IN LISTS SKIFFPORT_PYTHON_TAGS)
    string(REGEX MATCH "[0-9]+" _version ${_tag})
    set(_windows_tag cp${_version}-${_platform})
    # A copy, since Python.h finds the pyconfig.h beside it first.
    set(_folder ${PROJECT_BINARY_DIR}/cpython/${_version})
    file(COPY ${SKIFFPORT_PYTHON_${_tag}_INCLUDE}/ DESTINATION ${_folder} PATTERN pyconfig.h EXCLUDE)
    file(COPY ${PROJECT_SOURCE_DIR}/cmake/windows/pyconfig.h DESTINATION ${_folder})
    list(APPEND _windows_tags ${_windows_tag})
    set(SKIFFPORT_PYTHON_${_windows_tag}_INCLUDE ${_folder})
    set(SKIFFPORT_PYTHON_${_windows_tag}_LIBRARY ${PROJECT_BINARY_DIR}/cpython/libpython${_version}.dll.a)
  endforeach()
endif()
set(SKIFFPORT_PYTHON_TAGS ${_windows_tags})
list(JOIN SKIFFPORT_PYTHON_TAGS " " _list)
message(STATUS "Python for Windows: ${_list}")
file(WRITE ${PROJECT_BINARY_DIR}/tags.txt "${_list}") # for what packs the modules

# add_python_imports(): the import libraries, after every module has been added.
function(add_python_imports)
  if(SKIFFPORT_WINDOWS_PYTHON)
    return()
  endif()
  foreach(_tag IN LISTS SKIFFPORT_PYTHON_TAGS)
    get_property(_targets GLOBAL PROPERTY SKIFFPORT_PYTHON_${_tag}_TARGETS)
    set(_objects "")
    foreach(_target IN LISTS _targets)
      list(APPEND _objects $<TARGET_OBJECTS:${_target}>)
    endforeach()
    string(REGEX MATCH "[0-9]+" _version ${_tag})
    file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/cpython/${_tag}.objects CONTENT "$<JOIN:${_objects},\n>")
    add_custom_command(
      OUTPUT ${SKIFFPORT_PYTHON_${_tag}_LIBRARY}
      COMMAND ${CMAKE_COMMAND} -D NM=${CMAKE_NM} -D DLLTOOL=${CMAKE_DLLTOOL} -D DLL=python${_version}.dll
              -D OBJECTS=${PROJECT_BINARY_DIR}/cpython/${_tag}.objects -D LIBRARY=${SKIFFPORT_PYTHON_${_tag}_LIBRARY}
              -P ${PROJECT_SOURCE_DIR}/cmake/windows/ImportLibrary.cmake
      DEPENDS ${_objects} ${PROJECT_SOURCE_DIR}/cmake/windows/ImportLibrary.cmake
      COMMENT "Making the import library of python${_version}.dll")
    add_custom_target(skiffport_imports_${_tag} DEPENDS ${SKIFFPORT_PYTHON_${_tag}_LIBRARY})
    get_property(_modules GLOBAL PROPERTY SKIFFPORT_PYTHON_${_tag}_MODULES)
    foreach(_module IN LISTS _modules)
      add_dependencies(${_module} skiffport_imports_${_tag})
    endforeach()
  endforeach()
endfunction()
