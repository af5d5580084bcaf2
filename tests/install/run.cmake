# Installs the build tree into WORK_DIR/prefix, then configures and builds a
# small consumer with find_package(dischive) and pkg-config, and runs it.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Debug
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
if(NOT last_output MATCHES "^DiscHive [0-9]+\\.[0-9]+ [0-9A-F]+\n$")
  message(FATAL_ERROR "unexpected consumer output: ${last_output}")
endif()
if(NOT EXISTS ${prefix}/lib/pkgconfig/dischive.pc AND NOT EXISTS ${prefix}/lib/x86_64-linux-gnu/pkgconfig/dischive.pc)
  message(FATAL_ERROR "pkg-config file not installed")
endif()
if(NOT EXISTS ${prefix}/bin/dischive)
  message(FATAL_ERROR "dischive program not installed")
endif()
