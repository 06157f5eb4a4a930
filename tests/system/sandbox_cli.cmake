# The runner's command line: the parsing of time arguments on its own, and
# every command's options through the installed kvard-sandbox.
kvard_add_gtest(sandbox_cli_unit_test
                SOURCES ${CMAKE_CURRENT_LIST_DIR}/sandbox_cli_unit_test.cpp
                        ${CMAKE_SOURCE_DIR}/tools/sandbox/timespec.cpp ${CMAKE_SOURCE_DIR}/tools/sandbox/layout.cpp
                        ${CMAKE_SOURCE_DIR}/tools/sandbox/util.cpp)
kvard_system_test(sandbox_cli_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sandbox_cli_test.cpp)
