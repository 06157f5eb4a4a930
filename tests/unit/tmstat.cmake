kvard_add_gtest(tmstat_test SOURCES tmstat_test.cpp LIBS kvard_core)
# The clock is the test's own: time() is replaced at link time.
target_link_options(tmstat_test PRIVATE -Wl,--wrap=time)
