# tmctl history: the installed tool against the daemon's published figures on the same images.
find_package(nlohmann_json 3 REQUIRED)
set(tmctl_history_env "")
if(KVARD_SANITIZE)
  # The tool is instrumented too, so the ASan runtime goes first in a preload of the emulated NAND.
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
                  OUTPUT_VARIABLE tmctl_history_asan OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND tmctl_history_env "KVARD_ASAN_RUNTIME=${tmctl_history_asan}")
endif()
kvard_system_test(tmctl_history_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_history_test.cpp
                  LIBS kvard_harness nlohmann_json::nlohmann_json ENV ${tmctl_history_env})
