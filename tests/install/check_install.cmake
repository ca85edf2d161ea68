# Installs the built tree into a scratch prefix, then configures, builds and runs a small consumer project
# that finds the package with find_package(imagery CONFIG REQUIRED), with the component io when it was built.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/build
                -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix -DWITH_IO=${WITH_IO} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "configuring the consumer failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building the consumer failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${WORK_DIR}/prefix/lib ${WORK_DIR}/build/consumer
                WORKING_DIRECTORY ${WORK_DIR}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(NOT rc EQUAL 0 OR NOT out MATCHES "consumer ok")
  message(FATAL_ERROR "the consumer did not run: ${rc} ${out}")
endif()
