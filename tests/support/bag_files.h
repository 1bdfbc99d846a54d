#ifndef KELO_TESTS_SUPPORT_BAG_FILES_H_
#define KELO_TESTS_SUPPORT_BAG_FILES_H_

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bag/bag_loss_ledger.h"
#include "platform/bag/bag_message.h"
#include "platform/bag/bag_reader.h"

namespace kelo {
namespace testing_support {

// Every message of a bag, in the reader's order; fails the test when the bag has an error.
inline std::vector<BagMessage> ReadAll(const std::string& path) {
  BagReader reader(path);
  EXPECT_EQ(reader.get_error(), "") << path;
  std::vector<BagMessage> messages;
  for (; !reader.eof(); reader.next()) messages.push_back(*reader.read());
  return messages;
}

// What the recording lost while the bag at `path` was written, as the bag says.
inline BagLosses LossesIn(const std::string& path) {
  BagLosses losses;
  for (const BagMetadata& m : BagReader(path).metadata()) {
    if (m.name == BagLosses::kMetadataName) { EXPECT_TRUE(losses.AddMetadata(m.values)) << path; }
  }
  return losses;
}

// `bytes` bytes that no codec shrinks, different for every seed.
inline std::string Noise(size_t bytes, unsigned seed) {
  std::string s(bytes, '\0');
  unsigned long long x = seed * 0x9E3779B97F4A7C15ULL + 1;
  for (char& c : s) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    c = static_cast<char>(x);
  }
  return s;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// A file of `bytes` bytes last modified at `mtime`, seconds since the epoch.
inline void WriteFileDated(const std::string& path, size_t bytes, time_t mtime) {
  WriteFile(path, std::string(bytes, 'x'));
  const timespec times[2] = {{mtime, 0}, {mtime, 0}};
  EXPECT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0)) << path;
}

// How many files this process has open.
inline long OpenFiles() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// Whether `path` names anything, a link to nothing included.
inline bool Exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_SUPPORT_BAG_FILES_H_
