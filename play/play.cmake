# The player: merged multi-bag view, pacing, delivery and control (included by the
# top-level CMakeLists.txt before the library target is created).
list(APPEND KELO_BAG_AA_SOURCES
  play/bag_play.cc
  play/bag_view.cc
  play/play_clock.cc
  play/play_port.cc
)
list(APPEND KELO_BAG_AA_HEADERS
  play/bag_play.h
  play/bag_view.h
  play/play_port.h
)
