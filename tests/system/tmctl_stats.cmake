# tmctl stats: the installed tool against a running daemon's store, and against crafted stores.
find_package(nlohmann_json 3 REQUIRED)
kvard_system_test(tmctl_stats_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_stats_test.cpp
                  LIBS kvard_harness nlohmann_json::nlohmann_json)
