# The history of the production daemon: the rebuild from crafted flash
# images, and a long run of random traffic with restarts against a model.
kvard_system_test(kvard_rebuild_test SOURCES kvard_rebuild_test.cpp LIBS kvard_harness)
kvard_system_test(kvard_invariant_test SOURCES kvard_invariant_test.cpp LIBS kvard_harness)
set_tests_properties(kvard_invariant_test PROPERTIES TIMEOUT 600)
