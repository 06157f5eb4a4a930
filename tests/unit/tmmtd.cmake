kvard_add_gtest(tmmtd_test SOURCES tmmtd_test.cpp LIBS kvard_core PRELOAD mtdsim)
