# Trigger recording service (included by platform/CMakeLists.txt). The node registry is an
# internal of the node API and is not installed.
list(APPEND KELO_PLATFORM_SOURCES
  trigger/trigger_key.cc
  trigger/trigger_node_registry.cc
  trigger/trigger_notice.cc
  trigger/trigger_protocol.cc
  trigger/trigger_record_node_api.cc
  trigger/trigger_sender.cc
)
list(APPEND KELO_PLATFORM_HEADERS
  trigger/trigger_key.h
  trigger/trigger_notice.h
  trigger/trigger_protocol.h
  trigger/trigger_record_node_api.h
  trigger/trigger_sender.h
)
