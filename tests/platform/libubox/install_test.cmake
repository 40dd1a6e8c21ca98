# Installs the build tree into a scratch prefix, builds the examples against
# that prefix with the plain compiler drivers, as a program for the router's
# libraries would be built, runs them and compares their output with the
# golden files.
#
# Variables: BUILD_DIR PREFIX LIBDIR CC CXX SAN_FLAGS EXAMPLES (source dir)
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
endfunction()

file(REMOVE_RECURSE ${PREFIX})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})
foreach(h list avl utils uloop blob blobmsg blobmsg_json)
  if(NOT EXISTS ${PREFIX}/include/libubox/${h}.h)
    message(FATAL_ERROR "not installed: include/libubox/${h}.h")
  endif()
endforeach()

foreach(f include/iwinfo.h include/iwinfo/utils.h ${LIBDIR}/libiwinfo.so)
  if(NOT EXISTS ${PREFIX}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()

separate_arguments(san UNIX_COMMAND "${SAN_FLAGS}")
set(link -I${PREFIX}/include -L${PREFIX}/${LIBDIR} -lblobmsg_json -lubox)
run(${CC} -std=c11 -Wall -Wextra -Werror ${san} ${EXAMPLES}/device_report.c ${link}
    -o ${PREFIX}/device_report)
run(${CXX} -std=c++20 -Wall -Wextra -Werror ${san} ${EXAMPLES}/client_count.cc ${link}
    -o ${PREFIX}/client_count)

foreach(prog device_report client_count)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${PREFIX}/${LIBDIR} ${PREFIX}/${prog}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${prog} exited with ${rc}\n${out}\n${err}")
  endif()
  file(READ ${EXAMPLES}/${prog}.golden golden)
  if(NOT out STREQUAL golden)
    file(WRITE ${PREFIX}/${prog}.out "${out}")
    message(FATAL_ERROR "${prog}: output differs from ${prog}.golden:\n${out}")
  endif()
  message(STATUS "${prog}: output matches")
endforeach()
