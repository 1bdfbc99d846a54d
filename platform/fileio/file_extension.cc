#include "platform/fileio/file_extension.h"

namespace kelo {
namespace common {
namespace util {

bool CheckFileExtension(const std::string& file, const std::string& extension) {
  if (extension.empty() || file.size() < extension.size()) return false;
  return file.compare(file.size() - extension.size(), extension.size(), extension) == 0;
}

}  // namespace util
}  // namespace common
}  // namespace kelo
