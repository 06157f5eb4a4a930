kvard_add_gtest(tmcalendar_test SOURCES tmcalendar_test.cpp LIBS kvard_core)
