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
# Or the target's libraries come from a root unpacked from Debian's armhf
# packages (tools/armhf-sysroot.sh), when the machine has no armhf architecture.
set(KVARD_ARMHF_SYSROOT "$ENV{KVARD_ARMHF_SYSROOT}" CACHE PATH "root unpacked from armhf packages, or empty")
if(KVARD_ARMHF_SYSROOT)
  list(APPEND CMAKE_FIND_ROOT_PATH ${KVARD_ARMHF_SYSROOT})
  set(ENV{PKG_CONFIG_LIBDIR} ${KVARD_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${KVARD_ARMHF_SYSROOT}/usr/share/pkgconfig)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KVARD_ARMHF_SYSROOT})
  # The libraries' own dependencies are looked up there at link time too.
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
         " -Wl,-rpath-link,${KVARD_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf:${KVARD_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
endif()
# Tests run under qemu-user with the target's own C library.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)
