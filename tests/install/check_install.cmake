# Installs the built library into a scratch prefix, runs the installed tool from there, then
# configures, builds and runs a small program against it twice, as users of the package would:
# with find_package(VyxGL), and with pkg-config alone.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(result)
    message(FATAL_ERROR "${what} failed (${result}):\n${output}")
  endif()
  set(output "${output}" PARENT_SCOPE)
endfunction()

run("install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The tool finds the library through its run path, not through the environment.
unset(ENV{LD_LIBRARY_PATH})
if(TOOL)
  run("the installed vyxgl info" ${prefix}/${BINDIR}/vyxgl info)
  if(NOT output MATCHES "GL version:")
    message(FATAL_ERROR "the installed vyxgl info printed no GL version:\n${output}")
  endif()
endif()

# The package refuses a project that already uses the other Qt major (when that Qt is installed).
math(EXPR other_major "11 - ${QT_MAJOR}")
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/build-mixed
  -DCMAKE_PREFIX_PATH=${prefix} -DVYX_OTHER_QT_MAJOR=${other_major} -DVYX_EXPECTED_QT_MAJOR=${QT_MAJOR}
  RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
# CMake wraps the reason at a width that depends on the prefix's length.
string(REGEX REPLACE "[ \t\r\n]+" " " flat "${output}")
if(NOT result OR NOT flat MATCHES "no Qt ${other_major} here|built with Qt ${QT_MAJOR}, but this project already uses Qt ${other_major}")
  message(FATAL_ERROR "a consumer on Qt ${other_major} was not refused:\n${output}")
endif()

foreach(route cmake pkgconfig)
  set(build ${WORK_DIR}/build-${route})
  if(route STREQUAL "pkgconfig")
    set(ENV{PKG_CONFIG_PATH} ${prefix}/${LIBDIR}/pkgconfig)
    set(locate -DVYX_USE_PKGCONFIG=ON)
  else()
    set(locate -DCMAKE_PREFIX_PATH=${prefix})
  endif()
  run("configuring the ${route} consumer" ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${build}
      ${locate} -DVYX_EXPECTED_QT_MAJOR=${QT_MAJOR} "-DCMAKE_CXX_FLAGS=${CONSUMER_FLAGS}")
  run("building the ${route} consumer" ${CMAKE_COMMAND} --build ${build})
  run("running the ${route} consumer" ${build}/consumer)
endforeach()
