# The system tests' harness, and the test of the sandbox and tmctl with a probe in the daemon's place.
add_library(kvard_harness STATIC ${CMAKE_CURRENT_LIST_DIR}/harness.cpp ${CMAKE_SOURCE_DIR}/tools/sandbox/stublog.cpp)
target_include_directories(kvard_harness PUBLIC ${CMAKE_SOURCE_DIR})
target_link_libraries(kvard_harness PUBLIC GTest::gtest)
add_executable(sandbox_probe ${CMAKE_CURRENT_LIST_DIR}/probe.cpp)
kvard_system_test(sandbox_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sandbox_test.cpp LIBS kvard_harness
                  ENV "SANDBOX_PROBE=$<TARGET_FILE:sandbox_probe>")
add_dependencies(sandbox_test sandbox_probe)
