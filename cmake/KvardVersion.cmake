# The version every tool prints for --version: the project's version, and the
# commit it was built from when the source is a git work tree. Taken when CMake
# configures the build.
find_package(Git QUIET)
set(KVARD_VERSION_STRING "${PROJECT_VERSION}")
if(GIT_FOUND)
  execute_process(COMMAND ${GIT_EXECUTABLE} -C ${CMAKE_SOURCE_DIR} describe --always --dirty
                  OUTPUT_VARIABLE kvard_git OUTPUT_STRIP_TRAILING_WHITESPACE
                  RESULT_VARIABLE kvard_git_result ERROR_QUIET)
  if(kvard_git_result EQUAL 0 AND kvard_git)
    set(KVARD_VERSION_STRING "${PROJECT_VERSION} (${kvard_git})")
  endif()
endif()
configure_file(${CMAKE_SOURCE_DIR}/cmake/version.h.in ${CMAKE_BINARY_DIR}/generated/kvard_version.h @ONLY)
add_library(kvard_version INTERFACE)
target_include_directories(kvard_version INTERFACE ${CMAKE_BINARY_DIR}/generated)
