kvard_add_gtest(mtdsim_device_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/mtdsim_device_test.cpp PRELOAD mtdsim
                ENV MTDSIM_WRITESIZE=2048 MTDSIM_ERASESIZE=8192 MTDSIM_SIZE=65536)
if(NOT CMAKE_CROSSCOMPILING)   # popen starts host programs, which qemu-user cannot exec
  target_compile_definitions(mtdsim_device_test PRIVATE MTDSIM_TEST_POPEN)
endif()
# Built as distributions build programs: reaches the device through the checked opens, which nm shows it calls.
kvard_add_gtest(mtdsim_fortify_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/mtdsim_fortify_test.cpp PRELOAD mtdsim
                ENV MTDSIM_WRITESIZE=512 MTDSIM_ERASESIZE=2048 MTDSIM_SIZE=16384)
target_compile_options(mtdsim_fortify_test PRIVATE -O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
add_test(NAME mtdsim_fortify_test_calls_the_checked_opens
         COMMAND sh -c "${CMAKE_NM} -D --undefined-only \"$1\" > \"$1.syms\" && for s in __open_2 __open64_2 __openat_2; do grep -q \" $s\\(@\\|$\\)\" \"$1.syms\" || { echo \"$s not called\"; exit 1; }; done"
                 sh $<TARGET_FILE:mtdsim_fortify_test>)
