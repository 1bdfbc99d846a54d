#include <string>

#include <gtest/gtest.h>

#include "platform/fileio/directory_path.h"
#include "platform/fileio/file_extension.h"
#include "platform/fileio/file_path.h"

namespace kelo {
namespace {

TEST(FilePathTest, SplitsIntoDirectoryAndName) {
  struct Case {
    std::string path, directory, name;
  } cases[] = {
      {"bag_1.kelobag.active", ".", "bag_1.kelobag.active"},
      {"rec/bag.kelobag", "rec", "bag.kelobag"},
      {"/data/rec/bag.kelobag", "/data/rec", "bag.kelobag"},
      {"/bag.kelobag", "/", "bag.kelobag"},
      {"rec//bag", "rec", "bag"},
      {"./bag", ".", "bag"},
      {"rec/", "rec", ""},
  };
  for (const Case& c : cases) {
    fileio::FilePath path(c.path);
    EXPECT_EQ(path.GetPath(), c.directory) << c.path;
    EXPECT_EQ(path.GetName(), c.name) << c.path;
    EXPECT_EQ(path.GetFullPath(), c.path);
  }
}

TEST(FilePathTest, IsNormalOnlyForAUsableFileName) {
  EXPECT_TRUE(fileio::FilePath("bag.kelobag").IsNormal());
  EXPECT_TRUE(fileio::FilePath("/data/rec/bag.kelobag.active").IsNormal());
  EXPECT_TRUE(fileio::FilePath(std::string(255, 'a')).IsNormal());

  EXPECT_FALSE(fileio::FilePath("").IsNormal());
  EXPECT_FALSE(fileio::FilePath("rec/").IsNormal());
  EXPECT_FALSE(fileio::FilePath("/").IsNormal());
  EXPECT_FALSE(fileio::FilePath("rec/..").IsNormal());
  EXPECT_FALSE(fileio::FilePath(std::string("ba\0g", 4)).IsNormal());
  EXPECT_FALSE(fileio::FilePath(std::string(256, 'a')).IsNormal());
  EXPECT_FALSE(fileio::FilePath(std::string(256, 'd') + "/bag").IsNormal());
  EXPECT_FALSE(fileio::FilePath(std::string(5000, '/') + "bag").IsNormal());
}

TEST(FilePathTest, StandsForItsDirectoryWhereADirectoryIsExpected) {
  fileio::FilePath file("/data/rec/bag.kelobag");
  const fileio::DirectoryPath& directory = file;
  EXPECT_EQ(directory.GetPath(), "/data/rec");
  EXPECT_EQ(directory.Join("other.kelobag"), "/data/rec/other.kelobag");
  EXPECT_TRUE(fileio::DirectoryPath(file.GetPath()).IsNormal());
}

TEST(DirectoryPathTest, DropsTrailingSlashesButKeepsRoot) {
  EXPECT_EQ(fileio::DirectoryPath("/data/rec/").GetPath(), "/data/rec");
  EXPECT_EQ(fileio::DirectoryPath("/data/rec///").GetPath(), "/data/rec");
  EXPECT_EQ(fileio::DirectoryPath("/").GetPath(), "/");
  EXPECT_EQ(fileio::DirectoryPath("/").Join("bag"), "/bag");
  EXPECT_EQ(fileio::DirectoryPath("rec").Join("bag"), "rec/bag");
  EXPECT_TRUE(fileio::DirectoryPath(".").IsNormal());
  EXPECT_FALSE(fileio::DirectoryPath("").IsNormal());
}

TEST(CheckFileExtensionTest, MatchesOnlyTheExactEnding) {
  using common::util::CheckFileExtension;
  EXPECT_TRUE(CheckFileExtension("bag_1.kelobag.active", ".kelobag.active"));
  EXPECT_TRUE(CheckFileExtension("bag_1.kelobag", ".kelobag"));
  EXPECT_TRUE(CheckFileExtension(".kelobag", ".kelobag"));
  EXPECT_FALSE(CheckFileExtension("bag_1.kelobag.active", ".kelobag"));
  EXPECT_FALSE(CheckFileExtension("bag_1.kelobag", ".kelobag.active"));
  EXPECT_FALSE(CheckFileExtension("bag_1.KELOBAG", ".kelobag"));
  EXPECT_FALSE(CheckFileExtension("kelobag", ".kelobag"));
  EXPECT_FALSE(CheckFileExtension("bag", ""));
}

}  // namespace
}  // namespace kelo
