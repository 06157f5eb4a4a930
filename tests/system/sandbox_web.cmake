# kvard-sandbox web: lighttpd serving the page and tm.cgi from the box to a host port.
find_package(nlohmann_json 3 REQUIRED)
kvard_system_test(sandbox_web_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sandbox_web_test.cpp
                  LIBS kvard_harness nlohmann_json::nlohmann_json)
