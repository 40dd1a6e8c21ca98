# Cross build for 32-bit ARM (hard float) with Debian's cross compiler and
# the armhf libraries of multiarch (json-c, cJSON, GoogleTest under
# /usr/lib/arm-linux-gnueabihf). Test programs run under qemu-arm-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_STRIP arm-linux-gnueabihf-strip)

# Only the armhf directories of multiarch hold libraries and CMake package
# files of this target; the host's x86-64 ones must never be picked up.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)

# The dynamic loader and libraries of armhf come from multiarch (/lib,
# /usr/lib/arm-linux-gnueabihf), where qemu finds them without -L.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
