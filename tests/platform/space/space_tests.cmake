# Tests of the disk-space manager (included by tests/CMakeLists.txt).
kelo_add_test(file_space_manager_test platform/space/file_space_manager_test.cc)
