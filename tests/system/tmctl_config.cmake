# tmctl config: the settings checked, written all or nothing, and kvard told, in the box.
find_package(nlohmann_json 3 REQUIRED)
kvard_system_test(tmctl_config_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_config_test.cpp
                  LIBS kvard_harness nlohmann_json::nlohmann_json)
