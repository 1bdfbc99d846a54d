# Tests of the player (included by tests/CMakeLists.txt).
kelo_add_test(bag_view_test play/bag_view_test.cc)
kelo_add_test(bag_play_test play/bag_play_test.cc)
