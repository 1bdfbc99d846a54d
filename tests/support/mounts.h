#ifndef KELO_TESTS_SUPPORT_MOUNTS_H_
#define KELO_TESTS_SUPPORT_MOUNTS_H_

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace kelo {
namespace testing_support {

// Real faults for a test folder: a file system of its own that fills up, or the folder
// made read-only. Needs the private mount namespace that tests/run_in_netns.sh gives every
// test it runs; the mount goes with the object.
class ScopedMount {
 public:
  // A tmpfs of `bytes` at `dir`, which must exist: a disk that fills up.
  static ScopedMount SmallDisk(const std::string& dir, size_t bytes) {
    const std::string size = "size=" + std::to_string(bytes);
    return ScopedMount(dir, ::mount("tmpfs", dir.c_str(), "tmpfs", 0, size.c_str()) == 0);
  }

  // `dir` bound onto itself, read-only: nothing can be created in it.
  static ScopedMount ReadOnly(const std::string& dir) {
    const bool bound = ::mount(dir.c_str(), dir.c_str(), nullptr, MS_BIND, nullptr) == 0;
    return ScopedMount(
        dir, bound && ::mount(nullptr, dir.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0);
  }

  ScopedMount(ScopedMount&& other) noexcept : dir_(other.dir_), mounted_(other.mounted_) {
    other.mounted_ = false;
  }
  ScopedMount(const ScopedMount&) = delete;
  ScopedMount& operator=(const ScopedMount&) = delete;
  ScopedMount& operator=(ScopedMount&&) = delete;
  ~ScopedMount() {
    if (mounted_) ::umount2(dir_.c_str(), MNT_DETACH);
  }

 private:
  ScopedMount(const std::string& dir, bool mounted) : dir_(dir), mounted_(mounted) {
    EXPECT_TRUE(mounted) << "cannot mount at " << dir << ": " << std::strerror(errno)
                         << " (run the test through tests/run_in_netns.sh)";
  }

  std::string dir_;
  bool mounted_;
};

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_SUPPORT_MOUNTS_H_
