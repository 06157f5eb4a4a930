# Test helpers shared by tests/unit and tests/system.
#
# kvard_add_gtest(NAME SOURCES ... [LIBS ...] [ENV ...] [PRELOAD lib ...])
#   One GoogleTest executable run as one CTest test. PRELOAD names shared
#   library targets (libmtdsim) to load first; under the sanitizers the ASan
#   runtime is put in front of them, and under qemu-user the preload is handed
#   to the guest only.
function(kvard_add_gtest name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;ENV;PRELOAD;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR})
  add_test(NAME ${name} COMMAND ${name})
  set(env ${T_ENV})
  if(T_PRELOAD)
    set(pre "")
    if(KVARD_SANITIZE)
      execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
                      OUTPUT_VARIABLE asan OUTPUT_STRIP_TRAILING_WHITESPACE)
      list(APPEND pre ${asan})
    endif()
    foreach(lib ${T_PRELOAD})
      list(APPEND pre $<TARGET_FILE:${lib}>)
      add_dependencies(${name} ${lib})
    endforeach()
    list(JOIN pre ":" pre)
    if(CMAKE_CROSSCOMPILING)
      list(APPEND env "QEMU_SET_ENV=LD_PRELOAD=${pre}")
    else()
      list(APPEND env "LD_PRELOAD=${pre}")
    endif()
  endif()
  if(env)
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "${env}")
  endif()
  if(T_LABELS)
    set_tests_properties(${name} PROPERTIES LABELS "${T_LABELS}")
  endif()
endfunction()
