#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/fileio/directory_path.h"
#include "platform/fileio/file_extension.h"
#include "platform/fileio/file_path.h"

namespace kelo {
namespace {

// Catches a wrong split at the root, at doubled or trailing slashes, and a bare name.
TEST(FilePathTest, SplitsIntoDirectoryAndName) {
  for (auto [path, directory, name] :
       std::vector<std::array<std::string, 3>>{{"bag.active", ".", "bag.active"},
                                               {"/data/rec/bag", "/data/rec", "bag"},
                                               {"/bag", "/", "bag"},
                                               {"rec//bag", "rec", "bag"},
                                               {"rec/", "rec", ""}}) {
    fileio::FilePath p(path);
    EXPECT_EQ(p.GetPath(), directory) << path;
    EXPECT_EQ(p.GetName(), name) << path;
    EXPECT_EQ(p.GetFullPath(), path);
  }
  EXPECT_EQ(static_cast<const fileio::DirectoryPath&>(fileio::FilePath("/d/bag")).Join("x"), "/d/x");
  EXPECT_EQ(fileio::DirectoryPath("/data/rec///").GetPath(), "/data/rec");
  EXPECT_EQ(fileio::DirectoryPath("/").Join("bag"), "/bag");
}

// Catches unusable names (empty, "..", NUL, over 255 bytes) taken as normal, or long ones refused.
TEST(FilePathTest, IsNormalOnlyForAUsableFileName) {
  EXPECT_TRUE(fileio::FilePath("/data/rec/bag.kelobag.active").IsNormal());
  EXPECT_TRUE(fileio::FilePath(std::string(255, 'a')).IsNormal());
  for (const std::string& bad :
       {std::string(), std::string("rec/"), std::string("/"), std::string("rec/.."), std::string("ba\0g", 4),
        std::string(256, 'a'), std::string(256, 'd') + "/bag", std::string(5000, '/') + "bag"})
    EXPECT_FALSE(fileio::FilePath(bad).IsNormal()) << bad.substr(0, 20);
  EXPECT_TRUE(fileio::DirectoryPath(".").IsNormal() && fileio::DirectoryPath("//").IsNormal());
  EXPECT_FALSE(fileio::DirectoryPath("").IsNormal());
}

// Catches a name that is only the ending refused, or an empty ending matching all (a prefix, a partial
// ending and case: the space manager's test).
TEST(CheckFileExtensionTest, MatchesOnlyTheExactEnding) {
  EXPECT_TRUE(common::util::CheckFileExtension(".kelobag", ".kelobag"));
  EXPECT_FALSE(common::util::CheckFileExtension("kelobag", ".kelobag") || common::util::CheckFileExtension("bag", ""));
}

}  // namespace
}  // namespace kelo
