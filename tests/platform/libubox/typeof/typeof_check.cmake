# The macros below use plain typeof in the router's libubox headers, so a
# daemon source using them builds only in GNU mode. Check that ours behave
# the same: each use must fail in -std=c++20 and build in -std=gnu++20.
#
# Variables: CXX SOURCE INCLUDE
cmake_minimum_required(VERSION 3.25)

set(names avl_find_element avl_find_ge_element avl_find_le_element
          list_next_entry list_prev_entry)
set(use 0)
foreach(name ${names})
  math(EXPR use "${use} + 1")
  foreach(std c++20 gnu++20)
    execute_process(
      COMMAND ${CXX} -std=${std} -Wall -Wextra -Werror -fsyntax-only
              -I${INCLUDE} -DUSE=${use} ${SOURCE}
      RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
    if(std STREQUAL "c++20" AND rc EQUAL 0)
      message(FATAL_ERROR "${name} compiles in strict C++20; the router's header does not")
    endif()
    if(std STREQUAL "gnu++20" AND NOT rc EQUAL 0)
      message(FATAL_ERROR "${name} does not compile in GNU C++20:\n${err}")
    endif()
  endforeach()
endforeach()
# The plain build (USE=0) compiles in both modes.
execute_process(COMMAND ${CXX} -std=c++20 -Wall -Wextra -Werror -fsyntax-only
                        -I${INCLUDE} -DUSE=0 ${SOURCE}
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the headers alone do not compile in C++20:\n${err}")
endif()
