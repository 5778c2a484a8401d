# SPDX-License-Identifier: Apache-2.0
# Debian packages, one per install component (cpack -G DEB in the build
# directory). Built from a /usr-prefixed build so the libraries land in the
# multiarch directory: see `make debs`.
set(CPACK_PACKAGE_NAME swmgr)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "switch manager of an embedded Linux router")
set(CPACK_PACKAGE_CONTACT "swmgr maintainers <swmgr@localhost>")
if(EXISTS ${PROJECT_SOURCE_DIR}/LICENSE)
  set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
endif()
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET swmgrd)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Library and system dependencies come from dpkg-shlibdeps; the packages'
# dependencies on each other are stated below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools' own libraries are found in the build, and belong to no
# installed package yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(exact "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libswmgr${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "switch manager of an embedded Linux router - libraries
 libswmgr owns the configuration of the device's Ethernet switches: it loads
 the switch, port and VLAN tables of an SQLite database, programs the switch
 chip and the packet switch engine and serves requests on the message bus.
 libswmgr-port-linux supplies the platform interfaces on a Linux host.")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libswmgr-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libswmgr${PROJECT_VERSION_MAJOR} ${exact}, libsqlite3-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "switch manager of an embedded Linux router - development files
 C headers of the entry points, switch records, command codes, configuration
 records and platform declarations, with pkg-config files (swmgr,
 swmgr-port-linux) and a CMake package (find_package(swmgr CONFIG)).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME swmgr)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libswmgr${PROJECT_VERSION_MAJOR} ${exact}")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "switch manager of an embedded Linux router - daemon and client
 swmgrd runs the switch manager on a configuration database and serves the
 message bus; swmgrctl sends it requests. With a systemd unit, man pages and
 bash completion.")

include(CPack)
