# tmctl flash decode: the installed tool on the kept image, on crafted images and
# read-only on a device of the emulated NAND.
find_package(nlohmann_json 3 REQUIRED)
set(tmctl_flash_env "KVARD_FIXTURES=${CMAKE_SOURCE_DIR}/tests/fixtures")
if(KVARD_SANITIZE)
  # The tool is instrumented too, so the ASan runtime goes first in a preload.
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
                  OUTPUT_VARIABLE tmctl_flash_asan OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND tmctl_flash_env "KVARD_ASAN_RUNTIME=${tmctl_flash_asan}")
endif()
kvard_system_test(tmctl_flash_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_flash_test.cpp
                  LIBS nlohmann_json::nlohmann_json ENV ${tmctl_flash_env})
