kvard_add_gtest(tmsidefile_test SOURCES tmsidefile_test.cpp LIBS kvard_core)
# The fixed paths in /data and /tmp are redirected by the test's own fopen.
target_link_options(tmsidefile_test PRIVATE -Wl,--wrap=fopen)
