kvard_add_gtest(tmconfig_test SOURCES tmconfig_test.cpp LIBS kvard_core)
