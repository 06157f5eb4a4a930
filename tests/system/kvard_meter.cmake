# The metering loop of the production daemon: timer wake, link and clock
# events, half-day close and period roll-overs.
kvard_system_test(kvard_meter_wake_test SOURCES kvard_meter_wake_test.cpp LIBS kvard_harness)
kvard_system_test(kvard_meter_link_test SOURCES kvard_meter_link_test.cpp LIBS kvard_harness)
kvard_system_test(kvard_meter_rollover_test SOURCES kvard_meter_rollover_test.cpp LIBS kvard_harness)
