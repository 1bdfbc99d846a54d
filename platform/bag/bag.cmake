# Bag files: MCAP writer and reader (included by platform/CMakeLists.txt).
find_package(PkgConfig REQUIRED)
pkg_check_modules(KELO_ZSTD REQUIRED IMPORTED_TARGET libzstd)
pkg_check_modules(KELO_LZ4 REQUIRED IMPORTED_TARGET liblz4)
find_package(ZLIB REQUIRED)

list(APPEND KELO_PLATFORM_SOURCES
  bag/bag_cache_writer.cc
  bag/bag_channel_table.cc
  bag/bag_error_log.cc
  bag/bag_file_name.cc
  bag/bag_file_writer.cc
  bag/bag_loss_ledger.cc
  bag/bag_reader.cc
  bag/bag_writer.cc
  bag/mcap_compression.cc
  bag/mcap_crc32.cc
  bag/mcap_file.cc
  bag/mcap_index.cc
  bag/mcap_records.cc
  bag/mcap_summary.cc
)
list(APPEND KELO_PLATFORM_HEADERS
  bag/bag_cache_writer.h
  bag/bag_channel_table.h
  bag/bag_error_log.h
  bag/bag_file_name.h
  bag/bag_file_writer.h
  bag/bag_loss_ledger.h
  bag/bag_message.h
  bag/bag_reader.h
  bag/bag_topic.h
  bag/bag_writer.h
  bag/bag_writer_options.h
  bag/mcap_compression.h
  bag/mcap_crc32.h
  bag/mcap_file.h
  bag/mcap_index.h
  bag/mcap_records.h
  bag/mcap_summary.h
)
list(APPEND KELO_PLATFORM_PRIVATE_LIBS PkgConfig::KELO_ZSTD PkgConfig::KELO_LZ4 ZLIB::ZLIB)
