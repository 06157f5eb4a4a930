kvard_add_gtest(tmflash_test SOURCES tmflash_test.cpp LIBS kvard_core PRELOAD mtdsim)
find_package(ZLIB QUIET)  # zlib's crc32 is a second, independent oracle where the machine has it
target_link_libraries(tmflash_test PRIVATE $<$<BOOL:${ZLIB_FOUND}>:ZLIB::ZLIB>)
target_compile_definitions(tmflash_test PRIVATE KVARD_FIXTURES="${CMAKE_SOURCE_DIR}/tests/fixtures"
                           $<$<BOOL:${ZLIB_FOUND}>:KVARD_HAVE_ZLIB>)
