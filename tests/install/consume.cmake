# SPDX-License-Identifier: Apache-2.0
# Installs the build into a fresh prefix, builds consumer.c against it once
# with find_package and once with pkg-config, runs both on the installed
# example schema and compares what each prints with expected.txt.
#   cmake -DBUILD_DIR=... -DWORK=... -DCC=... -P consume.cmake
set(here ${CMAKE_CURRENT_LIST_DIR})
set(prefix ${WORK}/prefix)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

set(input /dev/null)
function(run what)
  execute_process(COMMAND ${ARGN} INPUT_FILE ${input} RESULT_VARIABLE failed OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(failed)
    message(FATAL_ERROR "${what} failed (${failed}):\n${out}${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
file(GLOB_RECURSE pcFiles ${prefix}/*/swmgr.pc)
file(GLOB_RECURSE schema ${prefix}/share/swmgr/examples/router.sql)
if(NOT pcFiles OR NOT schema)
  message(FATAL_ERROR "the install lacks swmgr.pc or the example schema")
endif()
get_filename_component(pcDir ${pcFiles} DIRECTORY)
get_filename_component(libDir ${pcDir} DIRECTORY)

run("configure with find_package" ${CMAKE_COMMAND} -S ${here} -B ${WORK}/by-cmake -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_BUILD_TYPE=Release)
run("build with find_package" ${CMAKE_COMMAND} --build ${WORK}/by-cmake)

run("pkg-config" ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pcDir} pkg-config --cflags --libs swmgr-port-linux)
separate_arguments(flags UNIX_COMMAND "${out}")
run("build with pkg-config" ${CC} -std=c99 -Wall -Wextra -Werror ${here}/consumer.c ${flags} -Wl,-rpath,${libDir}
    -o ${WORK}/by-pkg-config)

file(READ ${here}/expected.txt expected)
set(input ${schema})  # the consumers read the schema on their standard input
foreach(program by-cmake/consumer by-pkg-config)
  string(REPLACE "/" "-" name ${program})
  file(MAKE_DIRECTORY ${WORK}/run-${name})
  run("${program}" ${WORK}/${program} ${WORK}/run-${name})
  if(NOT out STREQUAL expected)
    message(FATAL_ERROR "${program} printed:\n${out}\nexpected:\n${expected}")
  endif()
endforeach()
message(STATUS "both consumers started the service from ${prefix}")
