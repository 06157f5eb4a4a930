# Start-up of the installed daemon on full flash rings (the history rebuild),
# against an erased partition. Needs an installed tree: see README.md.
add_executable(rebuild_bench ${CMAKE_CURRENT_LIST_DIR}/rebuild_bench.cpp)
target_include_directories(rebuild_bench PRIVATE ${CMAKE_SOURCE_DIR})
target_link_libraries(rebuild_bench PRIVATE kvard_harness benchmark::benchmark)
