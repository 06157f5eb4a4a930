# Debian packages, made with `cpack -G DEB` in a build directory:
#   kvard        the daemon for the router's root file system: sbin/kvard, its
#                manual page, the documentation and whatever else is installed
#                with COMPONENT daemon (the init scripts); needs the C library only.
#   kvard-tools  tmctl, kvard-sandbox with its helper and the emulated NAND,
#                their manual pages and completions, and the Traffic Meter
#                page: its CGI program lib/kvard/cgi-bin/tm.cgi and its static
#                files share/kvard/www/, for a web server to serve.
# Both are laid out under /usr and built for the build's own architecture, so
# the cross build makes armhf packages.

# Debian's name of the target architecture: what the cross compiler's multiarch
# triplet maps to, or this machine's own.
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND dpkg-architecture -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
                  OUTPUT_VARIABLE kvard_deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
else()
  execute_process(COMMAND dpkg --print-architecture
                  OUTPUT_VARIABLE kvard_deb_arch OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT kvard_deb_arch)
  message(FATAL_ERROR "cannot tell the Debian architecture of this build (dpkg-dev is needed)")
endif()

# The C library the build compiled against. dpkg-shlibdeps works out the exact
# minimum from the symbols for the host's packages; a cross-built binary's C
# library comes from the cross toolchain, which dpkg knows no symbols of, so
# there the packages ask for at least the version the build used.
execute_process(COMMAND sh -c "printf '#include <features.h>\\n__GLIBC__.__GLIBC_MINOR__\\n' | '${CMAKE_C_COMPILER}' -E -P -x c - | tr -d ' ' | tail -n 1"
                OUTPUT_VARIABLE kvard_glibc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT kvard_glibc MATCHES "^[0-9]+\\.[0-9]+$")
  message(FATAL_ERROR "cannot tell the C library's version of ${CMAKE_C_COMPILER}: '${kvard_glibc}'")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kvard)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kvard developers <kvard@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "traffic meter daemon of a home router")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${kvard_deb_arch})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_STRIP_FILES ON)

set(CPACK_COMPONENTS_ALL daemon)
if(TARGET tmctl)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME kvard)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "traffic meter daemon of a home router
Meters the WAN link's volume and connection time against a monthly
allowance, keeps the history on a raw flash partition and reacts when
the allowance is used up.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kvard-tools)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "control client and router-in-a-box for the kvard traffic meter
tmctl talks to kvard, changes its settings and reads its figures and
flash history; kvard-sandbox runs kvard in a hermetic box with an
emulated NAND flash and a fake clock. The Traffic Meter page (static
files and the CGI program tm.cgi) shows the figures, the daily history
and the settings in a web browser.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "kvard (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "bubblewrap, libfaketime")
# kvard-sandbox web serves the page with it.
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "lighttpd")

if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "libc6 (>= ${kvard_glibc})")
  string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
         ", libc6 (>= ${kvard_glibc}), libstdc++6, libgcc-s1, libcairo2, libfontconfig1")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()

# Files under /etc are the administrator's once installed, and dpkg keeps an
# administrator's changes across upgrades only for conffiles: every file the
# daemon's package puts under /etc (the start scripts' settings) is listed as
# one. The list is made from what cpack staged, just before it packs.
set(kvard_conffiles ${CMAKE_BINARY_DIR}/cpack/daemon/conffiles)
file(WRITE ${CMAKE_BINARY_DIR}/cpack/conffiles.cmake "
set(staged \"\${CPACK_TEMPORARY_DIRECTORY}/daemon\")
file(GLOB_RECURSE etc LIST_DIRECTORIES false RELATIVE \"\${staged}\" \"\${staged}/etc/*\")
list(SORT etc)
set(text \"\")
foreach(f IN LISTS etc)
  string(APPEND text \"/\${f}\\n\")
endforeach()
file(WRITE \"${kvard_conffiles}\" \"\${text}\")
")
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_BINARY_DIR}/cpack/conffiles.cmake)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${kvard_conffiles})

include(CPack)
