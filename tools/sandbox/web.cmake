# kvard-sandbox web: lighttpd serving the Traffic Meter page from the box.
target_sources(kvard-sandbox PRIVATE ${CMAKE_CURRENT_LIST_DIR}/web.cpp)
