# SPDX-License-Identifier: Apache-2.0
# GoogleTest: the installed package when there is one for this machine,
# else built from Debian's sources with this build's own flags. A cross
# build always takes the sources (find_package would find the host's
# libraries).
set(SWMGR_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources used when no package is found")
if(NOT CMAKE_CROSSCOMPILING)
  find_package(GTest QUIET)
endif()
if(NOT TARGET GTest::gtest_main)
  if(NOT EXISTS ${SWMGR_GTEST_SOURCE_DIR}/CMakeLists.txt)
    message(FATAL_ERROR "GoogleTest not found: install libgtest-dev or googletest, "
                        "set SWMGR_GTEST_SOURCE_DIR, or configure with -DSWMGR_BUILD_TESTS=OFF")
  endif()
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(${SWMGR_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
endif()
