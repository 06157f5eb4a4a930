kvard_add_gtest(tmwan_test SOURCES tmwan_test.cpp LIBS kvard_core)
# /proc/net/dev and the lock are replaced at link time by the test's own wrappers.
target_link_options(tmwan_test PRIVATE -Wl,--wrap=fopen -Wl,--wrap=cmsLck_acquireLockWithTimeoutTraced)
