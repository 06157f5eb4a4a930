# tmctl, installed, as a black box: datagrams against a stand-in for the
# daemon's port in a private network namespace, and the data-model store.
kvard_system_test(tmctl_send_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_send_test.cpp)
kvard_system_test(tmctl_mdm_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/tmctl_mdm_test.cpp)
