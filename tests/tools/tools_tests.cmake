# Tests of the kelo_bag command (included by tests/CMakeLists.txt). The tool's pieces are
# tested through the static library the tool is built from; the command itself is run as
# a program, in a private network namespace whenever it touches a bus or the cast group.
function(kelo_add_tool_test name runner)
  kelo_add_test_binary(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE kelo_bag_tool)
  target_compile_definitions(${name} PRIVATE KELO_BAG="$<TARGET_FILE:kelo_bag>")
  add_dependencies(${name} kelo_bag)
  if(runner STREQUAL "netns")
    add_test(NAME ${name} COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/run_in_netns.sh $<TARGET_FILE:${name}>)
  else()
    add_test(NAME ${name} COMMAND ${name})
  endif()
endfunction()

# The pieces.
kelo_add_tool_test(lcm_bus_test local tools/lcm_bus_test.cc)
kelo_add_tool_test(terminal_keys_test local tools/terminal_keys_test.cc)
kelo_add_tool_test(files_test netns tools/files_test.cc)
kelo_add_tool_test(command_options_test local tools/command_options_test.cc)
kelo_add_tool_test(status_line_test local tools/status_line_test.cc)
kelo_add_tool_test(play_control_test local tools/play_control_test.cc)

# A live publisher, for the tests that run the command against real traffic.
add_executable(lcm_publish tools/lcm_publish.cc)
target_link_libraries(lcm_publish PRIVATE kelo_bag_tool)
target_include_directories(lcm_publish PRIVATE ${PROJECT_SOURCE_DIR})

# The command: without a bus; with a live LCM bus, monitors and triggers.
kelo_add_tool_test(kelo_bag_cli_test local tools/kelo_bag_cli_test.cc)
kelo_add_tool_test(kelo_bag_live_test netns tools/kelo_bag_live_test.cc)
target_compile_definitions(kelo_bag_live_test PRIVATE KELO_LCM_PUBLISH="$<TARGET_FILE:lcm_publish>")
add_dependencies(kelo_bag_live_test lcm_publish)

# The demo, run as a user runs it, and its bags read by an independent MCAP reader. In a
# private network namespace, so that its monitor query meets no other recorder.
add_test(NAME kelo_bag_demo_test
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/run_in_netns.sh ${CMAKE_CURRENT_SOURCE_DIR}/tools/run_demo_check.sh
          $<TARGET_FILE:kelo_bag> ${CMAKE_CURRENT_BINARY_DIR}/kelo_bag_demo_work)
set_tests_properties(kelo_bag_demo_test PROPERTIES TIMEOUT 300)
