# The emulated NAND (libmtdsim), driven through the plain device interface
# with the library preloaded.
kvard_add_gtest(mtdsim_device_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/mtdsim_device_test.cpp PRELOAD mtdsim)
if(NOT CMAKE_CROSSCOMPILING)
  # Starts host programs (sh, cat, od), which a 32-bit ARM build under
  # qemu-user cannot exec.
  target_compile_definitions(mtdsim_device_test PRIVATE MTDSIM_TEST_POPEN)
endif()

# A program built the way distributions build theirs: the fortified open
# entry points must be intercepted too.
kvard_add_gtest(mtdsim_fortify_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/mtdsim_fortify_test.cpp PRELOAD mtdsim)
target_compile_options(mtdsim_fortify_test PRIVATE -O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
# ... and that program really calls them, or the test above proves nothing.
add_test(NAME mtdsim_fortify_test_calls_the_checked_opens
         COMMAND sh -c "${CMAKE_NM} -D --undefined-only \"$1\" > \"$1.syms\" && for s in __open_2 __open64_2 __openat_2; do grep -q \" $s\\(@\\|$\\)\" \"$1.syms\" || { echo \"$s not called\"; exit 1; }; done"
                 sh $<TARGET_FILE:mtdsim_fortify_test>)
