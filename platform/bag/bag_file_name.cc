#include "platform/bag/bag_file_name.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/fileio/file_extension.h"
#include "platform/fileio/file_path.h"

namespace kelo {

namespace {

constexpr char kActive[] = ".active";
constexpr char kBagExtension[] = ".kelobag";
constexpr int kMaxSuffix = 10000;

bool Exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 || errno != ENOENT;
}

}  // namespace

BagFileName BagFileName::ForPart(const std::string& writer_path, const std::string& part) {
  std::string path = writer_path;
  if (common::util::CheckFileExtension(path, kActive)) path.resize(path.size() - sizeof(kActive) + 1);
  BagFileName name;
  if (common::util::CheckFileExtension(path, kBagExtension)) {
    name.extension = kBagExtension;
  } else {
    // Keep any other extension the caller chose ("x.mcap" stays an .mcap file).
    const std::string file = fileio::FilePath(path).GetName();
    size_t dot = file.rfind('.');
    if (dot != std::string::npos && dot > 0) name.extension = file.substr(dot);
  }
  name.stem = path.substr(0, path.size() - name.extension.size());
  if (!part.empty()) name.stem += "_" + part;
  return name;
}

std::string BagFileName::Completed(int n) const {
  return n == 0 ? stem + extension : stem + "-" + std::to_string(n) + extension;
}

int CreateActiveFile(const BagFileName& name, std::string* active_path,
                     std::string* completed_path) {
  for (int n = 0; n < kMaxSuffix; ++n) {
    std::string completed = name.Completed(n);
    std::string active = completed + kActive;
    if (Exists(completed)) continue;
    int fd = ::open(active.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) {
      *active_path = active;
      *completed_path = completed;
      return fd;
    }
    if (errno != EEXIST) return -1;
  }
  errno = EEXIST;
  return -1;
}

bool RenameCompleted(const std::string& active_path, const BagFileName& name,
                     std::string* completed_path) {
  std::string target = *completed_path;
  for (int n = 0; n < kMaxSuffix; ++n) {
    if (n > 0) target = name.Completed(n);
    if (n > 0 && target == *completed_path) continue;
    if (::renameat2(AT_FDCWD, active_path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) {
      *completed_path = target;
      return true;
    }
    if (errno == EEXIST) continue;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // A file system without RENAME_NOREPLACE: a hard link fails on an existing name just
    // the same, and dropping the active name afterwards leaves the completed one.
    if (::link(active_path.c_str(), target.c_str()) == 0) {
      ::unlink(active_path.c_str());
      *completed_path = target;
      return true;
    }
    if (errno != EEXIST) return false;
  }
  errno = EEXIST;
  return false;
}

void SyncDirectoryOf(const std::string& path) {
  int fd = ::open(fileio::FilePath(path).GetPath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace kelo
