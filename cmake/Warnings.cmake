# Warnings for the project's own code. The platform headers come in as SYSTEM
# include directories, so what the real OpenWrt headers trip stays quiet.
add_library(lr_warnings INTERFACE)
target_compile_options(lr_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wformat=2 -Wimplicit-fallthrough -Werror
  $<$<COMPILE_LANGUAGE:CXX>:-Wmissing-declarations>
  $<$<COMPILE_LANGUAGE:C>:-Wmissing-prototypes>)
