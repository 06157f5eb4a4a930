# The emulated NAND's operation log of a fixed two-day run compared byte for byte with a recorded one.
kvard_system_test(flash_oplog_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/flash_oplog_test.cpp LIBS kvard_harness
                  ENV "KVARD_FIXTURES=${CMAKE_SOURCE_DIR}/tests/fixtures")
