# The command line all tmctl verbs share: --help, --version, getopt_long options, message names.
kvard_system_test(tmctl_cli_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_cli_test.cpp LIBS kvard_harness)
