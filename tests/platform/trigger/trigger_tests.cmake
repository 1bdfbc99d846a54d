# Tests of the trigger service (included by tests/CMakeLists.txt). Everything that opens a
# socket runs in a private network namespace through run_in_netns.sh.
kelo_add_test(trigger_notice_test platform/trigger/trigger_notice_test.cc)
kelo_add_netns_test(trigger_record_node_api_test platform/trigger/trigger_record_node_api_test.cc)
set_tests_properties(trigger_record_node_api_test PROPERTIES TIMEOUT 300)
