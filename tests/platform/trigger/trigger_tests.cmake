# Tests of the trigger service (included by tests/CMakeLists.txt). Everything that opens a
# socket runs in a private network namespace through run_in_netns.sh.
kelo_add_test(trigger_notice_test platform/trigger/trigger_notice_test.cc)

# Nodes and senders in a process of their own, for the tests of several processes.
add_executable(trigger_peer platform/trigger/trigger_peer.cc)
target_link_libraries(trigger_peer PRIVATE kelo_platform)
target_include_directories(trigger_peer PRIVATE ${PROJECT_SOURCE_DIR})
kelo_add_netns_test(trigger_record_node_api_test platform/trigger/trigger_record_node_api_test.cc)
target_compile_definitions(trigger_record_node_api_test PRIVATE KELO_TRIGGER_PEER="$<TARGET_FILE:trigger_peer>")
add_dependencies(trigger_record_node_api_test trigger_peer)
set_tests_properties(trigger_record_node_api_test PROPERTIES TIMEOUT 300)
