# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts where, by component: runtime (the shared
# libraries), development (headers, pkg-config and CMake files, the
# libraries' link names) and tools (the daemon, its client, their man pages,
# bash completion, the service unit and the example schema).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(SWMGR_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/swmgr)

install(TARGETS swmgr swmgr_port_linux EXPORT swmgrTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# The public headers (include/swmgr): what a host daemon, a platform
# library or a driver needs to call or implement the system. Internal
# headers stay in src.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/swmgr DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/port/linux/osa_port.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/swmgr
        COMPONENT development)

install(EXPORT swmgrTargets NAMESPACE swmgr:: DESTINATION ${SWMGR_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/swmgrConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/swmgrConfig.cmake INSTALL_DESTINATION ${SWMGR_CMAKE_DIR})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/swmgrConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/swmgrConfig.cmake ${PROJECT_BINARY_DIR}/swmgrConfigVersion.cmake
        DESTINATION ${SWMGR_CMAKE_DIR} COMPONENT development)

# pkg-config files carry absolute paths, so they are written at install
# time for the prefix actually installed to (cmake --install --prefix).
foreach(pc swmgr swmgr-port-linux)
  install(CODE "
    set(SWMGR_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    set(SWMGR_PC_LIBDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}\")
    set(SWMGR_PC_INCLUDEDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_INCLUDEDIR}\")
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    configure_file(\"${PROJECT_SOURCE_DIR}/packaging/pkgconfig/${pc}.pc.in\"
                   \"${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc\" @ONLY)" COMPONENT development)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT development)
endforeach()

# The unit is written in every build so that its check runs everywhere.
configure_file(${PROJECT_SOURCE_DIR}/packaging/systemd/swmgrd.service.in
               ${PROJECT_BINARY_DIR}/packaging/swmgrd.service @ONLY)

if(NOT TARGET swmgrd)
  return()
endif()

install(TARGETS swmgrd DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tools)
install(TARGETS swmgrctl DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
# Outside the system's library directories the tools find the libraries
# beside them; a /usr install (the packages) carries no run path.
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  file(RELATIVE_PATH libFromBin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(swmgrd swmgrctl PROPERTIES INSTALL_RPATH "$ORIGIN/${libFromBin}")
endif()
install(FILES ${PROJECT_SOURCE_DIR}/examples/router.sql DESTINATION ${CMAKE_INSTALL_DATADIR}/swmgr/examples
        COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/bash-completion/swmgrctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)

install(FILES ${PROJECT_BINARY_DIR}/packaging/swmgrd.service DESTINATION lib/systemd/system
        COMPONENT tools)

# Man pages from the tools' own --help and --version, when help2man is
# there to write them.
find_program(HELP2MAN help2man)
if(HELP2MAN)
  set(pages)
  foreach(page "swmgrd;8;switch manager daemon" "swmgrctl;1;operate the switch manager daemon and check its configurations")
    list(GET page 0 tool)
    list(GET page 1 section)
    list(GET page 2 summary)
    set(page ${PROJECT_BINARY_DIR}/man/${tool}.${section})
    set(out ${page}.gz)
    add_custom_command(OUTPUT ${out}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND ${HELP2MAN} --no-info --section=${section} --name=${summary} --output=${page} $<TARGET_FILE:${tool}>
      COMMAND gzip -9nf ${page}
      DEPENDS ${tool} VERBATIM)
    install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT tools)
    list(APPEND pages ${out})
  endforeach()
  add_custom_target(swmgr_man ALL DEPENDS ${pages})
else()
  message(STATUS "man pages not built: needs help2man")
endif()
