kvard_add_gtest(tmflash_test SOURCES tmflash_test.cpp LIBS kvard_core PRELOAD mtdsim)
target_compile_definitions(tmflash_test PRIVATE KVARD_FIXTURES="${CMAKE_SOURCE_DIR}/tests/fixtures")
# zlib's crc32 is a second, independent oracle where the machine has it.
find_package(ZLIB QUIET)
if(ZLIB_FOUND)
  target_link_libraries(tmflash_test PRIVATE ZLIB::ZLIB)
  target_compile_definitions(tmflash_test PRIVATE KVARD_HAVE_ZLIB)
endif()
