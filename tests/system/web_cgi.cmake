# tm.cgi: the installed CGI program run as a web server runs it, beside kvard in the box.
find_package(nlohmann_json 3 REQUIRED)
kvard_system_test(web_cgi_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/web_cgi_test.cpp
                  LIBS kvard_harness nlohmann_json::nlohmann_json ENV ${KVARD_ASAN_RUNTIME_ENV})
