# The tests in Python and in shell as tests of CTest, with what a sanitizer's build needs for an interpreter that is not
# instrumented: the sanitizers' run-time libraries are preloaded. Those with the label "full" are slow or need large
# packages; scripts/test leaves them out unless asked.
set(_tests ${PROJECT_SOURCE_DIR}/tests)
set(_environment SKIFFPORT_TREE=${SKIFFPORT_TREE} PYTHONPATH=${SKIFFPORT_TREE}:${_tests}/python)
set(_runner -m unittest)
set(_preloaded "")
if(SKIFFPORT_SANITIZE MATCHES "address") # malloc shows it each Python object
  foreach(_library IN ITEMS asan ubsan)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=lib${_library}.so OUTPUT_VARIABLE _path
      OUTPUT_STRIP_TRAILING_WHITESPACE)
    list(APPEND _preloaded ${_path})
  endforeach()
  list(JOIN _preloaded " " _preloaded)
  list(APPEND _environment PYTHONMALLOC=malloc UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
    ASAN_OPTIONS=detect_leaks=1:detect_stack_use_after_return=1:leak_check_at_exit=0)
  set(_runner ${_tests}/support/leak_checked.py)
elseif(SKIFFPORT_SANITIZE MATCHES "thread") # sees the interpreter's locks, the GIL among them
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libtsan.so OUTPUT_VARIABLE _preloaded
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND _environment
    TSAN_OPTIONS=die_after_fork=0:second_deadlock_stack=1:suppressions=${_tests}/lifecycle/tsan.supp)
endif()

# Each module with each interpreter; under ThreadSanitizer none, which would report the interpreter.
file(GLOB _modules CONFIGURE_DEPENDS ${_tests}/python/test_*.py)
foreach(_tag IN LISTS SKIFFPORT_PYTHON_TAGS)
  foreach(_module IN LISTS _modules)
    cmake_path(GET _module STEM _name)
    if(SKIFFPORT_SANITIZE AND _name MATCHES "^test_(cli|docs|outcomes|windows)")
      continue() # Python code over calls that the other modules make too
    endif()
    if(_name STREQUAL "test_memory" AND (SKIFFPORT_SANITIZE
        OR NOT SKIFFPORT_PYTHON_${_tag}_EXECUTABLE STREQUAL SKIFFPORT_BUILD_PYTHON))
      continue() # sanitizers have allocators, and other interpreters faults, of their own
    endif()
    string(REGEX REPLACE "^cpython-3([0-9]+).*" "python3.\\1-${_name}" _name ${_tag})
    if(NOT SKIFFPORT_SANITIZE MATCHES "thread")
      add_test(NAME ${_name} WORKING_DIRECTORY ${_tests}/python
        COMMAND ${SKIFFPORT_PYTHON_${_tag}_EXECUTABLE} -B -X faulthandler ${_runner} ${_module})
      set_tests_properties(${_name} PROPERTIES ENVIRONMENT "${_environment};LD_PRELOAD=${_preloaded}")
    endif()
  endforeach()
endforeach()

add_test(NAME lifecycle COMMAND ${SKIFFPORT_BUILD_PYTHON} -B ${_tests}/lifecycle/lifecycle_test.py)
set_tests_properties(lifecycle PROPERTIES TIMEOUT 240 ENVIRONMENT "${_environment};LIFECYCLE_PRELOAD=${_preloaded}")
if(SKIFFPORT_SANITIZE)
  set_tests_properties(lifecycle PROPERTIES LABELS full)
  return()
endif()
add_test(NAME loop COMMAND ${SKIFFPORT_BUILD_PYTHON} -B ${_tests}/full/toolkits_test.py asyncio)
set_tests_properties(loop PROPERTIES ENVIRONMENT "${_environment}")

# add_full_test(<name> <command>...)
function(add_full_test name)
  add_test(NAME full-${name} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} COMMAND ${ARGN})
  set_tests_properties(full-${name} PROPERTIES LABELS full RUN_SERIAL ON TIMEOUT 1200)
endfunction()
file(GLOB _scripts CONFIGURE_DEPENDS ${_tests}/full/*.sh)
foreach(_script IN LISTS _scripts)
  cmake_path(GET _script STEM _name)
  add_full_test(${_name} ${_script})
endforeach()
add_full_test(fuzz-corpora scripts/fuzz)
add_full_test(fuzz scripts/fuzz --no-install --jobs 2 all 20)
add_full_test(demo scripts/demo)
add_full_test(native scripts/native)
# Each toolkit's loop, the examples and the snippets of the docs, on a display of their own.
list(APPEND _environment QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR=${CMAKE_CURRENT_BINARY_DIR} SKIFFPORT_TOOLKITS=1)
foreach(_loop IN ITEMS PyQt6 PyQt6-without-GLib PyQt5 PySide2 GLib GLib-context GLib-timer Tk examples)
  string(REPLACE "-without-GLib" "" _argument ${_loop})
  add_full_test(${_loop} xvfb-run -a ${SKIFFPORT_BUILD_PYTHON} -B ${_tests}/full/toolkits_test.py ${_argument})
  set_tests_properties(full-${_loop} PROPERTIES ENVIRONMENT "${_environment}")
endforeach()
set_tests_properties(full-PyQt6-without-GLib PROPERTIES ENVIRONMENT "${_environment};QT_NO_GLIB=1")
add_full_test(snippets xvfb-run -a ${SKIFFPORT_BUILD_PYTHON} -B -m unittest ${_tests}/python/test_docs.py)
set_tests_properties(full-snippets PROPERTIES ENVIRONMENT "${_environment}")
