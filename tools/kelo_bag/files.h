#ifndef KELO_TOOLS_KELO_BAG_FILES_H_
#define KELO_TOOLS_KELO_BAG_FILES_H_

#include <string>
#include <vector>

namespace kelo {
namespace cli {

// Creates the directory `path` and any missing parents. True when it exists afterwards;
// otherwise `error` holds one line with the system's reason.
bool MakeDirectories(const std::string& path, std::string* error);

// Whether files can be created in `directory` now: a probe file is created and removed.
// False, with `error` holding one line with the system's reason, when not.
bool CheckWritableDirectory(const std::string& directory, std::string* error);

// The directory part of a file path: "." when it has none, "/" for a file in the root.
std::string DirectoryOf(const std::string& file_path);

// A new, empty directory "/tmp/<prefix>XXXXXX" (under TMPDIR when set); "" on failure.
std::string MakeTempDirectory(const std::string& prefix);

// The completed bags (".kelobag") in `directory`, as paths, in natural order: the parts of
// a split recording ("_2" before "_10") come in the order they were written.
std::vector<std::string> ListBags(const std::string& directory);

// Whether `a` sorts before `b` when runs of digits are compared as numbers.
bool NaturalLess(const std::string& a, const std::string& b);

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_FILES_H_
