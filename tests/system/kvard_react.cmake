# Limits and their reactions, settings updates and the manual reset.
kvard_system_test(kvard_react_test SOURCES kvard_react_test.cpp LIBS kvard_harness)
