# Disk-space manager of the trigger output folder (included by platform/CMakeLists.txt).
list(APPEND KELO_PLATFORM_SOURCES
  space/file_space_manager.cc
)
list(APPEND KELO_PLATFORM_HEADERS
  space/file_space_manager.h
)
