#include "platform/space/file_space_manager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "platform/fileio/file_extension.h"

namespace kelo {

namespace {

// Closes a directory stream on every way out.
class DirCloser {
 public:
  explicit DirCloser(DIR* dir) : dir_(dir) {}
  ~DirCloser() { closedir(dir_); }
  DirCloser(const DirCloser&) = delete;
  DirCloser& operator=(const DirCloser&) = delete;

 private:
  DIR* dir_;
};

bool Older(const std::pair<int64_t, const std::string*>& a, const std::pair<int64_t, const std::string*>& b) {
  return a.first != b.first ? a.first < b.first : *a.second < *b.second;
}

}  // namespace

FileSpaceManager::FileSpaceManager(const std::string& directory, const std::string& prefix,
                                   const std::string& extension, unsigned long size_limit, Mode mode)
    : directory_(directory), prefix_(prefix), extension_(extension), size_limit_(size_limit), mode_(mode) {}

void FileSpaceManager::set_filter(std::function<bool(const std::string& name)> filter) {
  std::lock_guard<std::mutex> lock(mu_);
  filter_ = std::move(filter);
  index_.clear();
}

void FileSpaceManager::set_on_delete(std::function<void(const std::string& path, uint64_t size)> on_delete) {
  std::lock_guard<std::mutex> lock(mu_);
  on_delete_ = std::move(on_delete);
}

bool FileSpaceManager::Matches(const std::string& name) const {
  return name.compare(0, prefix_.size(), prefix_) == 0 &&
         common::util::CheckFileExtension(name, extension_) &&
         name.size() >= prefix_.size() + extension_.size() && (!filter_ || filter_(name));
}

std::string FileSpaceManager::PathOf(const std::string& name) const {
  if (!directory_.empty() && directory_.back() == '/') return directory_ + name;
  return directory_ + "/" + name;
}

bool FileSpaceManager::Measure(int dir_fd, const std::string& name, File* file, bool* missing) {
  struct stat st;
  // Never follows a link: a link is not a regular file, whatever it points to.
  const bool found = fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
  if (missing != nullptr) *missing = !found && errno == ENOENT;
  if (!found || !S_ISREG(st.st_mode)) return false;
  file->name = name;
  file->size = static_cast<uint64_t>(st.st_size);
  file->mtime_ns = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  file->dev = st.st_dev;
  file->ino = st.st_ino;
  return true;
}

bool FileSpaceManager::List(int dir_fd, std::vector<File>* files) {
  struct stat dir_st;
  if (fstat(dir_fd, &dir_st) != 0) return false;
  if (mode_ == kIndexed && (dir_st.st_dev != indexed_dev_ || dir_st.st_ino != indexed_ino_)) {
    index_.clear();  // another folder now stands at this path
    indexed_dev_ = dir_st.st_dev;
    indexed_ino_ = dir_st.st_ino;
  }
  // The stream gets a descriptor of its own: dir_fd stays open for the deletions.
  const int list_fd = openat(dir_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (list_fd < 0) return false;
  DIR* dir = fdopendir(list_fd);
  if (dir == nullptr) {
    close(list_fd);
    return false;
  }
  DirCloser closer(dir);
  std::map<std::string, File> seen;
  for (;;) {
    errno = 0;  // readdir() tells its end from an error only by errno
    const dirent* entry = readdir(dir);
    if (entry == nullptr) {
      if (errno != 0) return false;
      break;
    }
    const std::string name = entry->d_name;
    if (!Matches(name) || (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN)) continue;
    File file;
    auto known = index_.find(name);
    if (mode_ == kIndexed && known != index_.end() && known->second.dir_ino == entry->d_ino) {
      file = known->second;
    } else if (!Measure(dir_fd, name, &file, nullptr)) {
      continue;
    }
    file.dir_ino = entry->d_ino;
    if (mode_ == kIndexed) seen.emplace(name, file);
    files->push_back(file);
  }
  if (mode_ == kIndexed) index_.swap(seen);
  return true;
}

bool FileSpaceManager::free(std::function<bool(const std::vector<std::string>&)> fn) {
  if (size_limit_ == 0) return true;
  std::lock_guard<std::mutex> lock(mu_);
  const int dir_fd = open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::vector<File> files;
  if (dir_fd < 0 || !List(dir_fd, &files)) {
    const int err = errno;
    if (dir_fd >= 0) close(dir_fd);
    if (!read_failing_) {
      std::fprintf(stderr, "space: cannot read folder \"%s\": %s; nothing deleted\n", directory_.c_str(),
                   std::strerror(err));
      read_failing_ = true;
    }
    return false;
  }
  read_failing_ = false;

  uint64_t total = 0;
  for (const File& f : files) total += f.size;
  std::vector<const File*> victims;
  for (int attempt = 0;; ++attempt) {
    victims.clear();
    if (total <= size_limit_) break;
    std::vector<std::pair<int64_t, const std::string*>> order;
    std::map<std::string, const File*> by_name;
    for (const File& f : files) {
      order.emplace_back(f.mtime_ns, &f.name);
      by_name[f.name] = &f;
    }
    std::sort(order.begin(), order.end(), Older);
    uint64_t left = total;
    for (const auto& o : order) {
      if (left <= size_limit_) break;
      const File* f = by_name[*o.second];
      victims.push_back(f);
      left -= f->size;
    }
    // An index may be stale for the files chosen: measure them again, and choose again when
    // any of them changed. Each round corrects at least one entry, so this ends.
    if (mode_ != kIndexed || attempt >= static_cast<int>(files.size())) break;
    bool changed = false;
    for (const File* v : victims) {
      File now;
      const bool regular = Measure(dir_fd, v->name, &now, nullptr);
      if (regular && now.size == v->size && now.mtime_ns == v->mtime_ns && now.ino == v->ino) continue;
      changed = true;
      auto it = std::find_if(files.begin(), files.end(), [&](const File& f) { return f.name == v->name; });
      total -= it->size;
      if (regular) {
        now.dir_ino = it->dir_ino;
        *it = now;
        total += now.size;
        index_[now.name] = now;
      } else {
        index_.erase(it->name);
        files.erase(it);
      }
      break;  // `victims` points into `files`, which just changed
    }
    if (!changed) break;
  }
  if (victims.empty()) {
    close(dir_fd);
    return total <= size_limit_;
  }

  if (fn) {
    std::vector<std::string> paths;
    for (const File* v : victims) paths.push_back(PathOf(v->name));
    if (!fn(paths)) {
      close(dir_fd);
      return false;
    }
  }

  for (const File* v : victims) {
    File now;
    bool missing = false;
    if (!Measure(dir_fd, v->name, &now, &missing)) {
      if (missing) {
        total -= v->size;  // someone else deleted it: its space is free all the same
        index_.erase(v->name);
      }
      continue;
    }
    // The name may now belong to another file (or have been rewritten): not the one chosen.
    if (now.dev != v->dev || now.ino != v->ino) continue;
    if (unlinkat(dir_fd, v->name.c_str(), 0) != 0 && errno != ENOENT) {
      std::fprintf(stderr, "space: cannot delete \"%s\": %s\n", PathOf(v->name).c_str(),
                   std::strerror(errno));
      continue;
    }
    total -= v->size;
    if (on_delete_) on_delete_(PathOf(v->name), v->size);
    index_.erase(v->name);
  }
  close(dir_fd);
  return total <= size_limit_;
}

}  // namespace kelo
