# The production daemon in the sandbox; fail_socket is preloaded into it to make every socket() fail.
kvard_system_test(kvard_startup_test SOURCES kvard_startup_test.cpp LIBS kvard_harness
                  ENV "KVARD_FAIL_SOCKET_LIB=$<TARGET_FILE:fail_socket>")
kvard_system_test(kvard_protocol_test SOURCES kvard_protocol_test.cpp LIBS kvard_harness)
kvard_system_test(kvard_statistics_test SOURCES kvard_statistics_test.cpp LIBS kvard_harness)
kvard_system_test(kvard_dump_test SOURCES kvard_dump_test.cpp LIBS kvard_harness)
add_library(fail_socket SHARED fail_socket.c)
target_compile_options(fail_socket PRIVATE -fno-sanitize=all)
target_link_options(fail_socket PRIVATE -fno-sanitize=all)
add_dependencies(kvard_startup_test fail_socket)
