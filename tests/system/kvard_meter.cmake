# The metering loop and its history: wakes, link and clock events, the rebuild from crafted images, a model.
foreach(test kvard_meter_test kvard_rebuild_test kvard_invariant_test kvard_edge_test)
  kvard_system_test(${test} SOURCES ${test}.cpp LIBS kvard_harness)
endforeach()
