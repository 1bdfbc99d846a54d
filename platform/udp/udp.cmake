# UDP multicast (included by platform/CMakeLists.txt). Only the public headers are
# installed; frame, reassembler and socket are internals.
list(APPEND KELO_PLATFORM_SOURCES
  udp/memory_stream.cc
  udp/udp_cast_base.cc
  udp/udp_cast_client.cc
  udp/udp_cast_manager.cc
  udp/udp_cast_server.cc
  udp/udp_frame.cc
  udp/udp_message.cc
  udp/udp_reassembler.cc
  udp/udp_socket.cc
)
list(APPEND KELO_PLATFORM_HEADERS
  udp/memory_stream.h
  udp/udp_cast_base.h
  udp/udp_cast_client.h
  udp/udp_cast_manager.h
  udp/udp_cast_options.h
  udp/udp_cast_server.h
  udp/udp_cast_stats.h
  udp/udp_message.h
)
