kvard_add_gtest(tmstat_test SOURCES tmstat_test.cpp LIBS kvard_core)
target_link_options(tmstat_test PRIVATE -Wl,--wrap=fopen -Wl,--wrap=time)
