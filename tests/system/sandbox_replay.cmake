# kvard-sandbox advance and replay against the daemon, with an exact model of the file replayed.
kvard_system_test(sandbox_replay_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/sandbox_replay_test.cpp LIBS kvard_harness)
