#include "platform/fileio/file_path.h"

namespace kelo {
namespace fileio {

namespace {

std::string DirectoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  size_t end = slash;
  while (end > 0 && path[end - 1] == '/') --end;  // "a//b" lives in "a"
  return end == 0 ? "/" : path.substr(0, end);
}

std::string NameOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

FilePath::FilePath(const std::string& path)
    : DirectoryPath(Split{}, DirectoryOf(path)), name_(NameOf(path)), full_path_(path) {}

FilePath::~FilePath() = default;

bool FilePath::IsNormal() const {
  return !name_.empty() && name_ != "." && name_ != ".." && IsWellFormed(full_path_) &&
         DirectoryPath::IsNormal();
}

}  // namespace fileio
}  // namespace kelo
