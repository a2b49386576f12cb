# Debian packages from the install components: cpack -G DEB in a build
# configured for /usr (scripts/package does it).
#   runtime -> libplexaN    the shared library
#   dev     -> libplexa-dev headers, CMake package, pkg-config file
#   tools   -> plexa-tools  plexa-entity-server and plexa-bench
set(PLEXA_PACKAGE_MAINTAINER "plexa developers <plexa@example.org>"
  CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_PACKAGE_NAME plexa)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${PLEXA_PACKAGE_MAINTAINER}")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools' package does not hold the library their RUNPATH names: let
# dpkg-shlibdeps find it in the build tree (libplexa0 is a stated dependency).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
# libplexa-dev and plexa-tools need the library of exactly their version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)

# CPack indents the lines after the first and turns empty ones into " .".
set(_plexa_about
  "plexa gives C++17 host programs a reactor that turns socket, pipe and\ntimer completions into handler calls on its own threads, a framed binary\nmessage protocol with optional deflate compression, dispatch by service\nand command id, threads with message loops, pooled buffers, a rotating\nlogger and an XML configuration reader.")

# A shlibs file, and ldconfig through its trigger rather than by hand.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
file(WRITE ${CMAKE_BINARY_DIR}/debian/runtime/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/debian/runtime/triggers)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libplexa${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "event-driven networking and service framework - shared library\n${_plexa_about}\n\nThis package holds the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libplexa-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION
  "event-driven networking and service framework - development files\n${_plexa_about}\n\nThis package holds the headers, the CMake package (find_package(plexa))\nand the pkg-config file.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME plexa-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "event-driven networking and service framework - tools\n${_plexa_about}\n\nThis package holds plexa-entity-server, a server of the library's entity\nprotocol (echo and key-value services), and plexa-bench, its load client.")

# Debian wants a changelog in every package; this one only names the
# release. Packages alone get it: a plain install has no use for it.
string(TIMESTAMP _plexa_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${CMAKE_BINARY_DIR}/debian/changelog
  "plexa (${PROJECT_VERSION}) unstable; urgency=medium\n\n  * Release ${PROJECT_VERSION}.\n\n -- ${PLEXA_PACKAGE_MAINTAINER}  ${_plexa_date}\n")
execute_process(COMMAND gzip -9nf ${CMAKE_BINARY_DIR}/debian/changelog)
foreach(_component runtime dev tools)
  string(TOUPPER ${_component} _upper)
  install(FILES ${CMAKE_BINARY_DIR}/debian/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${_upper}_PACKAGE_NAME}
    COMPONENT ${_component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
