#ifndef KELO_PLATFORM_FILEIO_FILE_EXTENSION_H_
#define KELO_PLATFORM_FILEIO_FILE_EXTENSION_H_

#include <string>

namespace kelo {
namespace common {
namespace util {

// True when `file` ends with `extension`, compared byte for byte (so case matters and
// ".kelobag" does not match "x.kelobag.active"). An empty extension matches nothing. A name
// that is nothing but the extension matches.
bool CheckFileExtension(const std::string& file, const std::string& extension);

}  // namespace util
}  // namespace common
}  // namespace kelo

#endif  // KELO_PLATFORM_FILEIO_FILE_EXTENSION_H_
