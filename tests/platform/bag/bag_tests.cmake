set(KELO_MCAP_CONFORMANCE_DIR "${PROJECT_SOURCE_DIR}/../shared/mcap-conformance"
    CACHE PATH "The MCAP conformance corpus read by the bag reader's tests")

kelo_add_test(mcap_codec_test platform/bag/mcap_codec_test.cc)
target_link_libraries(mcap_codec_test PRIVATE zstd)  # writes a frame of another writer
kelo_add_test(bag_reader_test platform/bag/bag_reader_test.cc)
kelo_add_test(mcap_conformance_test platform/bag/mcap_conformance_test.cc)
target_compile_definitions(mcap_conformance_test PRIVATE
  KELO_MCAP_CONFORMANCE_DIR="${KELO_MCAP_CONFORMANCE_DIR}")
kelo_add_netns_test(bag_writer_test platform/bag/bag_writer_test.cc)
target_compile_definitions(bag_writer_test PRIVATE KELO_BAG_AA_VERSION="${PROJECT_VERSION}")

# Bags read by an independent MCAP reader and its files by ours (needs `npm ci` in tests/interop).
add_executable(bag_interop_tool ${PROJECT_SOURCE_DIR}/tests/interop/bag_interop_tool.cc)
target_link_libraries(bag_interop_tool PRIVATE kelo_platform JsonCpp::JsonCpp)
target_include_directories(bag_interop_tool PRIVATE ${PROJECT_SOURCE_DIR})
add_test(NAME bag_interop_test
  COMMAND ${PROJECT_SOURCE_DIR}/tests/interop/run_interop.sh $<TARGET_FILE:bag_interop_tool>
          ${CMAKE_CURRENT_BINARY_DIR}/bag_interop_work)
kelo_add_test(bag_cache_writer_test platform/bag/bag_cache_writer_test.cc)
