# What is built once per interpreter: static libraries of code that includes Python.h, and the extension modules. For
# Windows, where a module links with its Python's DLL, both are noted for add_python_imports.

# add_python_library(<name> <tag> <sources>...): <name>_<tag>, a static library of code that includes Python.h.
function(add_python_library name tag)
  add_library(${name}_${tag} STATIC ${ARGN})
  target_include_directories(${name}_${tag} SYSTEM PUBLIC ${SKIFFPORT_PYTHON_${tag}_INCLUDE})
  target_link_libraries(${name}_${tag} PUBLIC ${SKIFFPORT_PYTHON_${tag}_LIBRARY} skiffport_options)
  set_property(GLOBAL APPEND PROPERTY SKIFFPORT_PYTHON_${tag}_TARGETS ${name}_${tag})
endfunction()

# add_python_module(<name> <tag> <folder> <sources>...): an extension module in that folder of the importable tree.
function(add_python_module name tag folder)
  set(_target ${name}_${tag})
  if(WIN32)
    add_python_library(${name}_objects ${tag} ${ARGN})
    file(STRINGS ${PROJECT_SOURCE_DIR}/pyproject.toml _description REGEX "^description = ")
    string(REGEX REPLACE ".*\"(.*)\"" "\\1" _description ${_description})
    set(_file ${name}.${tag}.pyd)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/windows/version.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${_target}.rc @ONLY)
    add_library(${_target} MODULE $<TARGET_OBJECTS:${name}_objects_${tag}> ${CMAKE_CURRENT_BINARY_DIR}/${_target}.rc)
    set_target_properties(${_target} PROPERTIES SUFFIX ".${tag}.pyd" LINKER_LANGUAGE CXX)
    target_link_libraries(${_target} PRIVATE ${SKIFFPORT_PYTHON_${tag}_LIBRARY})
    set_property(GLOBAL APPEND PROPERTY SKIFFPORT_PYTHON_${tag}_MODULES ${_target})
  else()
    add_library(${_target} MODULE ${ARGN})
    target_include_directories(${_target} SYSTEM PRIVATE ${SKIFFPORT_PYTHON_${tag}_INCLUDE})
    # Where the platform's library lies from there, alone: CMake pads the path of a build tree with an empty entry, and
    # an empty entry is the current directory.
    cmake_path(RELATIVE_PATH SKIFFPORT_TREE BASE_DIRECTORY ${folder} OUTPUT_VARIABLE _up)
    string(REGEX REPLACE "/\\.$" "" _path "$ORIGIN/${_up}")
    set_target_properties(${_target} PROPERTIES SUFFIX ".${tag}.so" INSTALL_RPATH ${_path} BUILD_WITH_INSTALL_RPATH ON)
  endif()
  target_link_libraries(${_target} PRIVATE skiffport_options)
  set_target_properties(${_target} PROPERTIES PREFIX "" OUTPUT_NAME ${name} LIBRARY_OUTPUT_DIRECTORY ${folder})
endfunction()
