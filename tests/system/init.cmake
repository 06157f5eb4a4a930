# The start scripts of init/: the SysV script run for real in the box with the installed kvard, the
# syntax of all scripts in sh and busybox sh, the systemd unit through systemd-analyze, and the install.
set(init_env "KVARD_INIT_DIR=${CMAKE_SOURCE_DIR}/init")
if(NOT KVARD_INIT_SYSCONFDIR)  # the staged tree is no /usr: its /etc files lie under it
  list(APPEND init_env "KVARD_INIT_ETC=${CMAKE_INSTALL_SYSCONFDIR}")
endif()
kvard_system_test(init_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/init_test.cpp LIBS kvard_harness ENV ${init_env})
set_tests_properties(init_test PROPERTIES LABELS "system;init")
