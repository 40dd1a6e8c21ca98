# Installs the stand-ins as a staging dir and configures the project against
# it with LANROSTER_OPENWRT_LIBS=ON: once without libmac-oui (our stand-in is
# built and one configure line says so) and once with it (imported).
#
# Variables: SOURCE_DIR BUILD_DIR WORK LIBDIR
cmake_minimum_required(VERSION 3.25)

function(run out_var)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(${out_var} "${out}${err}" PARENT_SCOPE)
endfunction()

function(configure staging tree out_var)
  file(REMOVE_RECURSE ${tree})
  run(out ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${tree} -G Ninja
      -DLANROSTER_OPENWRT_LIBS=ON -DCMAKE_PREFIX_PATH=${staging}
      -DLANROSTER_BUILD_BENCH=ON -DLANROSTER_BUILD_TESTS=ON)
  set(${out_var} "${out}" PARENT_SCOPE)
endfunction()

set(staging ${WORK}/staging)
file(REMOVE_RECURSE ${WORK})
run(ignored ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${staging})

# With libmac-oui.
configure(${staging} ${WORK}/with-oui out)
if(out MATCHES "libmac-oui: not in the staging dir")
  message(FATAL_ERROR "libmac-oui was in the staging dir but the stand-in was built:\n${out}")
endif()

# Without it, as a staging dir of OpenWrt's own packages is.
file(REMOVE ${staging}/include/mac_oui.h)
file(GLOB _oui ${staging}/${LIBDIR}/libmac-oui*)
file(REMOVE ${_oui})
configure(${staging} ${WORK}/without-oui out)
string(REGEX MATCHALL "[^\n]*libmac-oui[^\n]*" lines "${out}")
list(LENGTH lines n)
if(NOT n EQUAL 1 OR NOT lines MATCHES "not in the staging dir, building the stand-in")
  message(FATAL_ERROR "expected one configure line about libmac-oui, got:\n${out}")
endif()

file(READ ${WORK}/without-oui/build.ninja ninja)
# The tests of the stand-ins and bench/ubus are left out; the daemon's stay.
foreach(gone ubox_tests libuci_test libubus_test ubusd_frame_fuzz ubus_bench)
  if(ninja MATCHES "build ${gone}:" OR ninja MATCHES "/${gone}:")
    message(FATAL_ERROR "${gone} is built against the real libraries")
  endif()
endforeach()
foreach(kept lanroster db_mac_oui_test core_startup_test bus_client_list_test)
  if(NOT ninja MATCHES "${kept}")
    message(FATAL_ERROR "${kept} is missing against the real libraries")
  endif()
endforeach()
# The headers come from the staging dir only: no stand-in include dir.
if(ninja MATCHES "(-I|-isystem )${SOURCE_DIR}/platform/include")
  message(FATAL_ERROR "the stand-ins' headers are on the include path")
endif()
file(READ ${WORK}/without-oui/CMakeCache.txt cache)
if(NOT cache MATCHES "LANROSTER_UBUSD:FILEPATH=${staging}/sbin/ubusd")
  message(FATAL_ERROR "the staging dir's ubusd was not found")
endif()
file(REMOVE_RECURSE ${WORK})
