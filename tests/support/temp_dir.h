#ifndef KELO_TESTS_SUPPORT_TEMP_DIR_H_
#define KELO_TESTS_SUPPORT_TEMP_DIR_H_

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kelo {
namespace testing_support {

// The names in the directory `path`, sorted; none when it cannot be read.
inline std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& e : std::filesystem::directory_iterator(path, error)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// A fresh directory for one test, removed with everything in it afterwards.
class TempDir {
 public:
  TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/kelo_test_XXXXXX";
    char* made = mkdtemp(&pattern[0]);
    EXPECT_NE(made, nullptr);
    path_ = pattern;
  }
  ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }

  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

  std::vector<std::string> List() const { return ListDir(path_); }

 private:
  std::string path_;
};

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_SUPPORT_TEMP_DIR_H_
