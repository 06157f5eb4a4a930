# The data-model store: locked reads and writes as the daemon does them.
add_executable(cms_bench ${CMAKE_CURRENT_LIST_DIR}/cms_bench.cpp)
target_include_directories(cms_bench PRIVATE ${CMAKE_SOURCE_DIR})
target_link_libraries(cms_bench PRIVATE kvard_cms benchmark::benchmark)
