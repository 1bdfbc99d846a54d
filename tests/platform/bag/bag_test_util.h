#ifndef KELO_TESTS_PLATFORM_BAG_BAG_TEST_UTIL_H_
#define KELO_TESTS_PLATFORM_BAG_BAG_TEST_UTIL_H_

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/bag/bag_message.h"
#include "platform/bag/bag_reader.h"

namespace kelo {
namespace testing_util {

// A fresh directory under TMPDIR, removed with its contents when the object goes.
class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base ? base : "/tmp") + "/bagtest.XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    path_ = ::mkdtemp(buf.data());
  }
  ~TempDir() { RemoveTree(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  static void RemoveTree(const std::string& path) {
    DIR* d = ::opendir(path.c_str());
    if (d != nullptr) {
      while (dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        RemoveTree(path + "/" + name);
      }
      ::closedir(d);
      ::rmdir(path.c_str());
    } else {
      ::unlink(path.c_str());
    }
  }

 private:
  std::string path_;
};

inline std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  DIR* d = ::opendir(path.c_str());
  if (d == nullptr) return names;
  while (dirent* e = ::readdir(d)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

inline bool FileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Every message of a bag, read front to back.
inline std::vector<BagMessage> ReadAll(BagReader* reader) {
  std::vector<BagMessage> out;
  for (reader->seek(0); !reader->eof(); reader->next()) {
    auto m = reader->read();
    if (!m) break;
    out.push_back(*m);
  }
  return out;
}

inline std::vector<BagMessage> ReadAll(const std::string& path) {
  BagReader reader(path);
  return ReadAll(&reader);
}

inline bool SameMessage(const BagMessage& a, const BagMessage& b) {
  return a.topic == b.topic && a.time == b.time && a.type == b.type && a.data == b.data &&
         a.record_time == b.record_time;
}

// Deterministic bytes that compress somewhat, like real payloads.
inline std::string Payload(size_t size, unsigned seed) {
  std::string s(size, '\0');
  unsigned x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    if (i % 16 == 0) x = x * 1103515245u + 12345u;
    s[i] = static_cast<char>((i % 16 < 8) ? (x >> 16) & 0xFF : i & 0x0F);
  }
  return s;
}

}  // namespace testing_util
}  // namespace kelo

#endif  // KELO_TESTS_PLATFORM_BAG_BAG_TEST_UTIL_H_
