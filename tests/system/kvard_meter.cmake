# The metering loop and the history of the production daemon: wakes, link and
# clock events, roll-overs, the rebuild from crafted flash images, and a model.
foreach(test kvard_meter_test kvard_rebuild_test kvard_invariant_test)
  kvard_system_test(${test} SOURCES ${test}.cpp LIBS kvard_harness)
endforeach()
