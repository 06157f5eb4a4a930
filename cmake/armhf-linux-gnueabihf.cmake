# 32-bit ARM Linux, little-endian, hard float: the router's kind of machine.
# long and time_t are 32 bits wide here, which is what this build is for.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# The cross toolchain's own C library, and Debian's multiarch root for the
# target's libraries (libcairo2-dev:armhf and the like, under
# /usr/lib/arm-linux-gnueabihf) and for architecture-independent packages
# such as nlohmann-json's CMake files.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config answers for the target: its .pc files only, never the host's.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
# Tests run under qemu-user with the target's own C library.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
