if(LANROSTER_SANITIZE)
  set(_lr_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_compile_options(${_lr_san})
  add_link_options(${_lr_san})
endif()

if(LANROSTER_FUZZ AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "LANROSTER_FUZZ needs clang (configure with CMAKE_CXX_COMPILER=clang++)")
endif()

# In the fuzzing build every library gets coverage instrumentation, so the
# fuzzers are guided by what happens inside the code they drive, not only
# inside the harness. The sanitizer runtime supplies the coverage hooks.
if(LANROSTER_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
