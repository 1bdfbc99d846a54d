#ifndef KELO_PLATFORM_FILEIO_FILE_PATH_H_
#define KELO_PLATFORM_FILEIO_FILE_PATH_H_

#include <string>

#include "platform/fileio/directory_path.h"

namespace kelo {
namespace fileio {

// The path of a file, split into the directory that holds it and its name. Handed to code
// that wants a DirectoryPath, a FilePath stands for the file's directory.
//
//   fileio::FilePath path("rec/bag_1.kelobag.active");
//   path.GetPath();      // "rec"
//   path.GetName();      // "bag_1.kelobag.active"
//   path.GetFullPath();  // "rec/bag_1.kelobag.active"
class FilePath : public DirectoryPath {
 public:
  explicit FilePath(const std::string& path);
  ~FilePath() override;

  // True when the directory part is normal and the name is a real file name: not empty
  // (a path ending in '/' names no file), not "." or "..", and within NAME_MAX.
  bool IsNormal() const override;

  // The file name without its directory.
  const std::string& GetName() const { return name_; }

  // The path as it was given.
  const std::string& GetFullPath() const { return full_path_; }

 private:
  std::string name_;
  std::string full_path_;
};

}  // namespace fileio
}  // namespace kelo

#endif  // KELO_PLATFORM_FILEIO_FILE_PATH_H_
