#include "platform/fileio/directory_path.h"

#include <climits>
#include <utility>

namespace kelo {
namespace fileio {

namespace {

std::string StripTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

DirectoryPath::DirectoryPath(const std::string& path) : directory_(StripTrailingSlashes(path)) {}

DirectoryPath::DirectoryPath(Split, std::string directory) : directory_(std::move(directory)) {}

DirectoryPath::~DirectoryPath() = default;

bool DirectoryPath::IsNormal() const { return IsWellFormed(directory_); }

std::string DirectoryPath::Join(const std::string& name) const {
  if (directory_ == "/") return "/" + name;
  return directory_ + "/" + name;
}

bool DirectoryPath::IsWellFormed(const std::string& path) {
  if (path.empty() || path.size() >= PATH_MAX) return false;
  size_t component = 0;
  for (char c : path) {
    if (c == '\0') return false;
    component = (c == '/') ? 0 : component + 1;
    if (component > NAME_MAX) return false;
  }
  return true;
}

}  // namespace fileio
}  // namespace kelo
