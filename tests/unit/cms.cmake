# The CMS stand-in's store and lock.
kvard_add_gtest(cms_store_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/cms_store_test.cpp LIBS kvard_cms)
