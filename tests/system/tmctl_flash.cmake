# tmctl flash decode: the installed tool on the kept image, on crafted images and
# read-only on a device of the emulated NAND.
find_package(nlohmann_json 3 REQUIRED)
set(tmctl_flash_env "KVARD_FIXTURES=${CMAKE_SOURCE_DIR}/tests/fixtures" ${KVARD_ASAN_RUNTIME_ENV})
kvard_system_test(tmctl_flash_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_flash_test.cpp
                  LIBS nlohmann_json::nlohmann_json ENV ${tmctl_flash_env})
