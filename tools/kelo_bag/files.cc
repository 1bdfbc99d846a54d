#include "tools/kelo_bag/files.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace kelo {
namespace cli {

bool MakeDirectories(const std::string& path, std::string* error) {
  struct stat st;
  if (path.empty() || (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))) return true;
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) {
      *error = "cannot create directory " + prefix + ": " + std::strerror(errno);
      return false;
    }
    if (slash == std::string::npos) break;
  }
  if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = path + " exists and is not a directory";
    return false;
  }
  return true;
}

bool CheckWritableDirectory(const std::string& directory, std::string* error) {
  std::string probe = directory + "/.kelo_bag_probe_XXXXXX";
  const int fd = mkstemp(&probe[0]);
  if (fd < 0) {
    *error = "cannot write in " + directory + ": " + std::strerror(errno);
    return false;
  }
  close(fd);
  unlink(probe.c_str());
  return true;
}

std::string DirectoryOf(const std::string& file_path) {
  const size_t slash = file_path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return file_path.substr(0, slash);
}

std::string MakeTempDirectory(const std::string& prefix) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/" + prefix + "XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) return "";
  return pattern;
}

bool NaturalLess(const std::string& a, const std::string& b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    const bool da = std::isdigit(static_cast<unsigned char>(a[i]));
    const bool db = std::isdigit(static_cast<unsigned char>(b[j]));
    if (da && db) {
      size_t ei = i, ej = j;
      while (ei < a.size() && std::isdigit(static_cast<unsigned char>(a[ei]))) ++ei;
      while (ej < b.size() && std::isdigit(static_cast<unsigned char>(b[ej]))) ++ej;
      // Compare as numbers: drop leading zeros, then the longer run is larger.
      size_t zi = i, zj = j;
      while (zi + 1 < ei && a[zi] == '0') ++zi;
      while (zj + 1 < ej && b[zj] == '0') ++zj;
      if (ei - zi != ej - zj) return ei - zi < ej - zj;
      const int order = a.compare(zi, ei - zi, b, zj, ej - zj);
      if (order != 0) return order < 0;
      i = ei;
      j = ej;
    } else {
      if (a[i] != b[j]) return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
      ++i;
      ++j;
    }
  }
  if (a.size() - i != b.size() - j) return a.size() - i < b.size() - j;
  return a < b;  // equal as numbers ("2", "02"): any fixed order will do
}

std::vector<std::string> ListBags(const std::string& directory) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(directory.c_str())) {
    const std::string extension = ".kelobag";
    while (dirent* entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name.size() > extension.size() &&
          name.compare(name.size() - extension.size(), extension.size(), extension) == 0) {
        names.push_back(name);
      }
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end(), NaturalLess);
  for (std::string& name : names) name = directory + "/" + name;
  return names;
}

}  // namespace cli
}  // namespace kelo
