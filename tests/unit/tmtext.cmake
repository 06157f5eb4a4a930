kvard_add_gtest(tmtext_test SOURCES tmtext_test.cpp LIBS kvard_core)
