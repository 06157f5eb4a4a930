# docs/guide.md read by its test, and each of its checked tables reproduced with the installed daemon in the box.
kvard_system_test(guide_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/guide_test.cpp LIBS kvard_harness
                  ENV "KVARD_GUIDE=${CMAKE_SOURCE_DIR}/docs/guide.md")
