#ifndef KELO_PLATFORM_SPACE_FILE_SPACE_MANAGER_H_
#define KELO_PLATFORM_SPACE_FILE_SPACE_MANAGER_H_

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kelo {

// Keeps the completed bag files in one folder within a size budget by deleting the oldest
// of them. It manages exactly the regular files directly inside `directory` whose name
// begins with `prefix` (an empty prefix: any name) and ends with `extension` (".kelobag":
// "x.kelobag.active", a file still being written, never matches). Nothing else is ever
// deleted: not other files, not subdirectories or what is in them, not symbolic links nor
// what they point to, and nothing outside the folder.
//
//   FileSpaceManager space("rec", "", ".kelobag", 2048ul << 20, FileSpaceManager::kRescan);
//   space.free(nullptr);   // before writing the next file
//
// All members may be called from any thread; calls of free() are serialised.
class FileSpaceManager {
 public:
  enum Mode {
    // Keeps an index of the managed files between calls. Each call still lists the folder,
    // but measures (stats) only the files that are new since the last call, by name or by
    // directory entry, plus those it is about to delete, which are measured again first.
    // For very large folders with many files, where measuring every file on every call
    // costs too much. Relies on completed files never being rewritten in place, which the
    // bag library guarantees; a file renamed over another is a new entry and is measured.
    kIndexed = 0,
    // Lists and measures every file afresh on every call: exact whatever happens in the
    // folder between calls, and cheap for folders of a few gigabytes.
    kRescan = 1,
  };

  // `size_limit` is in bytes; 0 means no limit (free() never deletes). Nothing is read
  // before the first free().
  FileSpaceManager(const std::string& directory, const std::string& prefix, const std::string& extension,
                   unsigned long size_limit, Mode mode);

  // Manages only the files whose names (without the folder) `filter` accepts as well, so
  // that one program's budget never touches another's files. Call before the first free().
  void set_filter(std::function<bool(const std::string& name)> filter);

  // Called on free()'s thread after each file it deleted, with its path and size. Call
  // before the first free().
  void set_on_delete(std::function<void(const std::string& path, uint64_t size)> on_delete);

  FileSpaceManager(const FileSpaceManager&) = delete;
  FileSpaceManager& operator=(const FileSpaceManager&) = delete;

  // Deletes the oldest managed files (by modification time, ties by name) until the sizes
  // of the managed files add up to at most the limit. When `fn` is set it is first given the
  // paths ("<directory>/<name>", oldest first) of the files about to be deleted, and
  // nothing is deleted when it returns false; it is not called when nothing needs deleting.
  // `fn` runs on the calling thread and must not call free() of this manager. A file that
  // changed into something else (another file, a link, a directory) since it was measured
  // is left alone. Returns true when the managed files fit the limit afterwards (always
  // with no limit), false when they still do not (a veto, a file that could not be deleted,
  // reported on stderr) or when the folder could not be read (reported on stderr).
  bool free(std::function<bool(const std::vector<std::string>&)> fn);

  const std::string& directory() const { return directory_; }
  unsigned long size_limit() const { return size_limit_; }
  Mode mode() const { return mode_; }

 private:
  struct File {
    std::string name;
    uint64_t size = 0;
    int64_t mtime_ns = 0;
    dev_t dev = 0;
    ino_t ino = 0;      // as stat() reports it
    ino_t dir_ino = 0;  // as the folder listing reports it (may differ on some file systems)
  };

  bool Matches(const std::string& name) const;
  // Fills `files` with the managed files of the open folder `dir_fd`.
  bool List(int dir_fd, std::vector<File>* files);
  // Measures `name`; false when it is not a regular file (`*missing`, when given, tells
  // whether it is gone altogether).
  static bool Measure(int dir_fd, const std::string& name, File* file, bool* missing);
  std::string PathOf(const std::string& name) const;

  const std::string directory_;
  const std::string prefix_;
  const std::string extension_;
  const unsigned long size_limit_;
  const Mode mode_;
  std::function<bool(const std::string&)> filter_;
  std::function<void(const std::string&, uint64_t)> on_delete_;

  std::mutex mu_;                      // serialises free(); guards the members below
  std::map<std::string, File> index_;  // kIndexed: the managed files as last measured
  dev_t indexed_dev_ = 0;              // which folder the index describes
  ino_t indexed_ino_ = 0;
  bool read_failing_ = false;  // a failure to read the folder was reported
};

}  // namespace kelo

#endif  // KELO_PLATFORM_SPACE_FILE_SPACE_MANAGER_H_
