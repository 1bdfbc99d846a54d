# Tests of the UDP multicast library (included by tests/CMakeLists.txt). Everything that
# opens a socket runs in a private network namespace through run_in_netns.sh.
kelo_add_test(memory_stream_test platform/udp/memory_stream_test.cc)
kelo_add_test(udp_frame_test platform/udp/udp_frame_test.cc)

kelo_add_netns_test(udp_cast_server_test platform/udp/udp_cast_server_test.cc)

# A group member in a process of its own, for the tests of several processes.
add_executable(udp_cast_peer platform/udp/udp_cast_peer.cc)
target_link_libraries(udp_cast_peer PRIVATE kelo_platform)
kelo_add_netns_test(udp_cast_client_test platform/udp/udp_cast_client_test.cc)
target_compile_definitions(udp_cast_client_test PRIVATE KELO_UDP_CAST_PEER="$<TARGET_FILE:udp_cast_peer>")
add_dependencies(udp_cast_client_test udp_cast_peer)

set_tests_properties(udp_cast_server_test udp_cast_client_test PROPERTIES TIMEOUT 300)
