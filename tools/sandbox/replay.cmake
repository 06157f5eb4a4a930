# kvard-sandbox advance and replay (docs/replay.md).
target_sources(kvard-sandbox PRIVATE ${CMAKE_CURRENT_LIST_DIR}/replay.cpp)
target_link_libraries(kvard-sandbox PRIVATE kvard_version)
