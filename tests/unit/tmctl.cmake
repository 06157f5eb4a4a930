# tmctl's datagram building; compiled from its source so that it also runs in
# the cross-built tier, where the tool itself is not built.
kvard_add_gtest(tmctl_wire_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_wire_test.cpp ${CMAKE_SOURCE_DIR}/tools/tmctl/wire.cpp)
