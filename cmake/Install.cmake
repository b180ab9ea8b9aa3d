# What is installed and where, and the Debian package made of it. An installation serves one interpreter, the first of
# those built for: it holds that one's extensions only, in the folder below the prefix where that interpreter looks.
# Components: "python" is what an import needs, "command" the skiffhost command with its manual page and
# completions, "doc" the documents, "debian" what Debian demands of a package.
include(GNUInstallDirs)

list(GET SKIFFPORT_PYTHON_TAGS 0 _tag)
# Debian's default scheme starts with /local, the administrator's prefix; here CMake names the prefix.
execute_process(
  COMMAND ${SKIFFPORT_PYTHON_${_tag}_EXECUTABLE} -c "import sys, sysconfig; \
path = sysconfig.get_path('platlib', vars={'base': '', 'platbase': ''}); \
print(path[len('/local'):] if path.startswith('/local/') else path, *sys.version_info[:2], sep=';')"
  OUTPUT_VARIABLE _found OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
list(GET _found 0 _site)
list(GET _found 1 _major)
list(GET _found 2 _minor)
math(EXPR _next_minor "${_minor} + 1")
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

set_target_properties(_Skiffport_${_tag} PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(_messageloop_${_tag} PROPERTIES INSTALL_RPATH "$ORIGIN/..")
install(TARGETS skiffport_platform _Skiffport_${_tag} LIBRARY DESTINATION ${_site} COMPONENT python)
install(TARGETS _messageloop_${_tag} LIBRARY DESTINATION ${_site}/skiffhost COMPONENT python)
install(FILES ${SKIFFPORT_TREE}/Skiffport.py DESTINATION ${_site} COMPONENT python)
install(FILES ${SKIFFPORT_TREE}/skiffhost/_version.py DESTINATION ${_site}/skiffhost COMPONENT python)
install(DIRECTORY host/skiffhost DESTINATION ${_site} COMPONENT python
  FILES_MATCHING PATTERN "*.py" PATTERN "*.pyi" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)
# For a module that is not a package, type checkers look for a stub package of its own.
foreach(_module IN ITEMS Skiffport _Skiffport)
  install(FILES shell/stubs/${_module}.pyi DESTINATION ${_site}/${_module}-stubs RENAME __init__.pyi COMPONENT python)
endforeach()

# Documents keep the layout of the sources, so that the links between them hold.
install(FILES README.md CONTRIBUTING.md TYPE DOC COMPONENT doc)
install(DIRECTORY docs TYPE DOC COMPONENT doc)
install(FILES examples/asyncio_publish.py examples/qt_publish.py DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  COMPONENT doc)

# install_compressed(<file> <path below the prefix> <component>): as Debian wants manual pages and changelogs, and
# without a time in them, so that equal input gives an equal package.
function(install_compressed file path component)
  install(CODE "
    set(_compressed \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${path}\")
    cmake_path(GET _compressed PARENT_PATH _folder)
    file(MAKE_DIRECTORY \${_folder})
    execute_process(COMMAND gzip -9nc \"${file}\" OUTPUT_FILE \${_compressed} COMMAND_ERROR_IS_FATAL ANY)"
    COMPONENT ${component})
endfunction()
install(PROGRAMS ${PROJECT_BINARY_DIR}/skiffhost TYPE BIN COMPONENT command)
if(TARGET skiffhost_documents) # made from the command's parser
  set(_made ${PROJECT_BINARY_DIR}/host)
  set(_share ${CMAKE_INSTALL_DATADIR})
  install_compressed(${_made}/skiffhost.1 ${CMAKE_INSTALL_MANDIR}/man1/skiffhost.1.gz command)
  install(FILES ${_made}/skiffhost.bash DESTINATION ${_share}/bash-completion/completions RENAME skiffhost
    COMPONENT command)
  install(FILES ${_made}/_skiffhost DESTINATION ${_share}/zsh/vendor-completions COMPONENT command)
  install(FILES ${_made}/skiffhost.fish DESTINATION ${_share}/fish/vendor_completions.d COMPONENT command)
endif()
install_compressed(${PROJECT_SOURCE_DIR}/packaging/debian/changelog ${CMAKE_INSTALL_DOCDIR}/changelog.gz debian)
install(FILES packaging/debian/copyright TYPE DOC COMPONENT debian)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME python3-skiffport)
set(CPACK_PACKAGE_CONTACT "Skiffport developers <skiffport@kestrelhub.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "links a desktop application to its community web service")
set(CPACK_PACKAGE_DESCRIPTION "Skiffport is a native extension module for Python. From a desktop
application that adjusts colours it logs a member of the Kestrelhub web
service in, publishes presets in the background with progress and
cancellation, and lists the categories of presets.

Its events arrive on the thread of the application's own event loop:
asyncio, Qt, GLib, Tk or none. The command skiffhost does the same from
the command line.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
  WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON) # strips what is packed, too
set(CPACK_DEBIAN_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${SKIFFPORT_TREE})
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3 (>= ${_major}.${_minor}~), python3 (<< ${_major}.${_next_minor})")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "ca-certificates")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "xdg-utils")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
  ${PROJECT_SOURCE_DIR}/packaging/debian/prerm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
