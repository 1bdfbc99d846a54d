# Tests of the UDP multicast library; everything that opens a socket runs in a private
# network namespace through run_in_netns.sh.
kelo_add_test(udp_frame_test platform/udp/udp_frame_test.cc)
kelo_add_netns_test(udp_cast_server_test platform/udp/udp_cast_server_test.cc)
kelo_add_netns_test(udp_cast_client_test platform/udp/udp_cast_client_test.cc)
set_tests_properties(udp_cast_server_test udp_cast_client_test PROPERTIES TIMEOUT 300)
