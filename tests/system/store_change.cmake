# A change of the store by another process between two wakes of the daemon, seen at the second.
kvard_system_test(store_change_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/store_change_test.cpp LIBS kvard_harness)
