kvard_add_gtest(tmrings_test SOURCES tmrings_test.cpp LIBS kvard_history)
