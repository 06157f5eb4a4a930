# tmctl history: the installed tool against the daemon's published figures on the same images.
find_package(nlohmann_json 3 REQUIRED)
kvard_system_test(tmctl_history_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_history_test.cpp
                  LIBS kvard_harness nlohmann_json::nlohmann_json ENV ${KVARD_ASAN_RUNTIME_ENV})
