#ifndef KELO_PLATFORM_BAG_BAG_FILE_NAME_H_
#define KELO_PLATFORM_BAG_BAG_FILE_NAME_H_

#include <string>

namespace kelo {

// Where one bag file goes: "<stem><extension>" once complete, with ".active" appended
// while it is being written. Files are created and completed without ever replacing an
// existing file: a name that is taken gets "-1", "-2", ... after the stem.
struct BagFileName {
  std::string stem;       // "dir/bag_20240305140709_0"
  std::string extension;  // ".kelobag"

  // The name of part `part` of the bag whose writer was given `writer_path`
  // ("dir/bag_X.kelobag.active"): "dir/bag_X.kelobag" for part "", "dir/bag_X_0.kelobag"
  // for part "0".
  static BagFileName ForPart(const std::string& writer_path, const std::string& part);

  // "<stem>[-n]<extension>", the completed name with uniqueness suffix `n` (none for 0).
  std::string Completed(int n) const;
};

// Creates a new, empty active file for `name` with the smallest suffix for which neither
// the active nor the completed name exists. Returns its descriptor and sets both names,
// or returns -1 with errno set.
int CreateActiveFile(const BagFileName& name, std::string* active_path,
                     std::string* completed_path);

// Renames `active_path` to `*completed_path`, or to the next free suffixed name when that
// one has appeared meanwhile, never replacing a file; `*completed_path` is updated. The
// rename is atomic: either the active or the completed name exists. Returns false with
// errno set.
bool RenameCompleted(const std::string& active_path, const BagFileName& name,
                     std::string* completed_path);

// Makes the directory entry changes inside the directory of `path` durable.
void SyncDirectoryOf(const std::string& path);

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_FILE_NAME_H_
