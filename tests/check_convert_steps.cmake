# vyxgl convert makes what it is asked for and nothing else: run as
#   cmake -DTOOL=<vyxgl> -DENVMAP=<lat-long HDR> -DOUT=<empty folder> -P check_convert_steps.cmake
file(REMOVE_RECURSE ${OUT})
file(MAKE_DIRECTORY ${OUT})

function(convert expected_status)
  execute_process(COMMAND ${TOOL} convert ${ARGN} RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE errors)
  if(NOT status EQUAL expected_status)
    message(FATAL_ERROR "vyxgl convert ${ARGN}: status ${status}, not ${expected_status}\n${errors}")
  endif()
endfunction()

function(expect_files)
  file(GLOB made RELATIVE ${OUT} ${OUT}/*)
  list(SORT made)
  set(wanted ${ARGN})
  list(SORT wanted)
  if(NOT "${made}" STREQUAL "${wanted}")
    message(FATAL_ERROR "made '${made}', wanted '${wanted}'")
  endif()
endfunction()

# The BRDF table needs no picture; SH alone writes no cube map.
convert(0 --brdf ${OUT}/brdf.ktx)
expect_files(brdf.ktx)
convert(0 ${ENVMAP} --size 32 --sh ${OUT}/sh.txt)
expect_files(brdf.ktx sh.txt)
convert(0 ${ENVMAP} --size 32 --irradiance ${OUT}/diffuse.ktx --prefiltered ${OUT}/specular.ktx --levels 4)
expect_files(brdf.ktx diffuse.ktx sh.txt specular.ktx)
# Nothing asked for, or a picture missing where one is needed: refused before any work.
convert(2 ${ENVMAP})
convert(2 --sh ${OUT}/more.txt)
expect_files(brdf.ktx diffuse.ktx sh.txt specular.ktx)
