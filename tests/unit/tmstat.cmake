# /proc/net/dev, the side files, the data-model lock and the clock are the test's own (link-time wraps).
kvard_add_gtest(tmstat_test SOURCES tmstat_test.cpp LIBS kvard_core)
target_link_options(tmstat_test PRIVATE -Wl,--wrap=fopen -Wl,--wrap=cmsLck_acquireLockWithTimeoutTraced -Wl,--wrap=time)
