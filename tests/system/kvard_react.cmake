# Reactions and control of the production daemon: limits and warnings, WAN and
# LED actions, configuration updates, the manual reset.
kvard_system_test(kvard_react_limit_test SOURCES kvard_react_limit_test.cpp LIBS kvard_harness)
kvard_system_test(kvard_react_action_test SOURCES kvard_react_action_test.cpp LIBS kvard_harness)
kvard_system_test(kvard_react_config_test SOURCES kvard_react_config_test.cpp LIBS kvard_harness)
kvard_system_test(kvard_react_reset_test SOURCES kvard_react_reset_test.cpp LIBS kvard_harness)
