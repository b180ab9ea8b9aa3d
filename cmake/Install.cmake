# What is installed and where. An installation serves one interpreter, the first of those built for: it holds that one's
# extensions only, in the folder below the prefix where that interpreter looks. Components: "python" is what an import
# needs, "command" the skiffhost command with its manual page and completions, "doc" the documents.
include(GNUInstallDirs)

list(GET SKIFFPORT_PYTHON_TAGS 0 _tag)
# Debian's default scheme starts with /local, the administrator's prefix; here CMake names the prefix.
execute_process(
  COMMAND ${SKIFFPORT_PYTHON_${_tag}_EXECUTABLE} -c "import sysconfig; \
path = sysconfig.get_path('platlib', vars={'base': '', 'platbase': ''}); \
print(path[len('/local'):] if path.startswith('/local/') else path)"
  OUTPUT_VARIABLE _site OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
string(REGEX REPLACE "^/" "" _site ${_site})
set(SKIFFPORT_INSTALL_PYTHONDIR "" CACHE STRING "Where Python code is installed; empty: ${_site} below the prefix")
if(SKIFFPORT_INSTALL_PYTHONDIR)
  set(_site ${SKIFFPORT_INSTALL_PYTHONDIR})
endif()

file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/skiffhost @ONLY CONTENT "#!${SKIFFPORT_PYTHON_${_tag}_EXECUTABLE}
import sys

from skiffhost.__main__ import main

sys.exit(main())
")

install(TARGETS skiffport_platform _Skiffport_${_tag} LIBRARY DESTINATION ${_site} COMPONENT python)
install(TARGETS _messageloop_${_tag} LIBRARY DESTINATION ${_site}/skiffhost COMPONENT python)
install(FILES ${SKIFFPORT_TREE}/Skiffport.py DESTINATION ${_site} COMPONENT python)
install(FILES ${SKIFFPORT_TREE}/skiffhost/_version.py DESTINATION ${_site}/skiffhost COMPONENT python)
install(DIRECTORY host/skiffhost DESTINATION ${_site} COMPONENT python
  FILES_MATCHING PATTERN "*.py" PATTERN "*.pyi" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)
# For a module that is not a package, type checkers look for a stub package of its own.
foreach(_module IN ITEMS Skiffport _Skiffport)
  install(FILES ${SKIFFPORT_TREE}/${_module}.pyi DESTINATION ${_site}/${_module}-stubs RENAME __init__.pyi
    COMPONENT python)
endforeach()

# Documents keep the layout of the sources, so that the links between them hold.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md TYPE DOC COMPONENT doc)
install(DIRECTORY docs TYPE DOC COMPONENT doc)
install(FILES examples/asyncio_publish.py examples/qt_publish.py DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  COMPONENT doc)

install(PROGRAMS ${PROJECT_BINARY_DIR}/skiffhost TYPE BIN COMPONENT command)
set(_made ${PROJECT_BINARY_DIR}/host) # from the command's parser
set(_share ${CMAKE_INSTALL_DATADIR})
install(FILES ${_made}/skiffhost.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT command)
install(FILES ${_made}/skiffhost.bash DESTINATION ${_share}/bash-completion/completions RENAME skiffhost
  COMPONENT command)
install(FILES ${_made}/_skiffhost DESTINATION ${_share}/zsh/vendor-completions COMPONENT command)
