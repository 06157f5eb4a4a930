# The CMS stand-in: store, lock, log, messaging and string helpers.
kvard_add_gtest(cms_store_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/cms_store_test.cpp LIBS kvard_cms)
kvard_add_gtest(cms_lock_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/cms_lock_test.cpp LIBS kvard_cms)
kvard_add_gtest(cms_util_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/cms_util_test.cpp LIBS kvard_cms)
