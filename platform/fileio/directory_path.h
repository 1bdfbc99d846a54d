#ifndef KELO_PLATFORM_FILEIO_DIRECTORY_PATH_H_
#define KELO_PLATFORM_FILEIO_DIRECTORY_PATH_H_

#include <string>

namespace kelo {
namespace fileio {

// The path of a directory, as the user wrote it less any trailing slashes ("/" stays "/").
// Nothing here touches the file system: the directory need not exist.
//
//   fileio::DirectoryPath dir("/data/rec/");
//   dir.GetPath();   // "/data/rec"
class DirectoryPath {
 public:
  explicit DirectoryPath(const std::string& path);
  virtual ~DirectoryPath();

  // True for a non-empty path without NUL characters whose length and components stay
  // within the system's limits (PATH_MAX, NAME_MAX).
  virtual bool IsNormal() const;

  // The directory: for a DirectoryPath the path itself, for a FilePath the directory that
  // holds the file ("." when the file name has no directory part).
  const std::string& GetPath() const { return directory_; }

  // `name` inside this directory ("dir/name"; just "/name" for the root).
  std::string Join(const std::string& name) const;

 protected:
  // For FilePath, which hands over the directory part it has split off.
  struct Split {};
  DirectoryPath(Split, std::string directory);

  static bool IsWellFormed(const std::string& path);

 private:
  std::string directory_;
};

}  // namespace fileio
}  // namespace kelo

#endif  // KELO_PLATFORM_FILEIO_DIRECTORY_PATH_H_
