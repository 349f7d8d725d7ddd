# Installs the built library into a scratch prefix, then configures, builds and runs a small
# program against it with find_package(VyxGL), as a user of the package would.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
  RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "install failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/build
  -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}" RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "configuring the consumer failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "building the consumer failed")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE result)
if(result)
  message(FATAL_ERROR "the consumer failed to run")
endif()
