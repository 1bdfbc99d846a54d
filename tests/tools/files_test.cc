#include "tools/kelo_bag/files.h"

#include <unistd.h>

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace kelo {
namespace cli {
namespace {

using testing_support::TempDir;

TEST(FilesTest, OrdersNumbersByValueSoPartsComeInTheOrderWritten) {
  std::vector<std::string> names = {"bag_10.kelobag", "bag_2.kelobag",  "bag_1.kelobag", "bag_02.kelobag",
                                    "bag.kelobag",    "bag_1b.kelobag", "a_100.kelobag", "bag_9.kelobag"};
  std::sort(names.begin(), names.end(), NaturalLess);
  const std::vector<std::string> want = {"a_100.kelobag",  "bag.kelobag",    "bag_1.kelobag",
                                         "bag_1b.kelobag", "bag_02.kelobag", "bag_2.kelobag",
                                         "bag_9.kelobag",  "bag_10.kelobag"};
  EXPECT_EQ(want, names);
  for (const std::string& a : names) EXPECT_FALSE(NaturalLess(a, a)) << a;
}

TEST(FilesTest, ListsOnlyCompletedBags) {
  TempDir dir;
  for (const char* name :
       {"r_11.kelobag", "r_3.kelobag", "r_12.kelobag.active", "notes.txt", "r_0.kelobag"}) {
    std::ofstream(dir.file(name)) << "x";
  }
  EXPECT_EQ(
      (std::vector<std::string>{dir.file("r_0.kelobag"), dir.file("r_3.kelobag"), dir.file("r_11.kelobag")}),
      ListBags(dir.path()));
  EXPECT_TRUE(ListBags(dir.file("missing")).empty());
}

TEST(FilesTest, MakesNestedDirectoriesAndSaysWhyItCannot) {
  TempDir dir;
  std::string error;
  ASSERT_TRUE(MakeDirectories(dir.file("a/b/c"), &error)) << error;
  struct stat st;
  EXPECT_EQ(0, stat(dir.file("a/b/c").c_str(), &st));
  EXPECT_TRUE(MakeDirectories(dir.file("a/b/c"), &error));  // already there
  std::ofstream(dir.file("file")) << "x";
  EXPECT_FALSE(MakeDirectories(dir.file("file/sub"), &error));
  EXPECT_NE(std::string::npos, error.find(dir.file("file"))) << error;
  EXPECT_EQ("rec", DirectoryOf("rec/bag_1.kelobag.active"));
  EXPECT_EQ(".", DirectoryOf("bag_1.kelobag.active"));
  EXPECT_EQ("/", DirectoryOf("/bag.kelobag.active"));
}

// Scratch folders go under $TMPDIR when it names one, else under /tmp.
TEST(FilesTest, MakesTemporaryFoldersWhereTheEnvironmentSays) {
  TempDir dir;
  setenv("TMPDIR", dir.path().c_str(), 1);
  const std::string inside = MakeTempDirectory("x_");
  EXPECT_EQ(0u, inside.find(dir.path() + "/x_")) << inside;
  setenv("TMPDIR", "", 1);
  const std::string fallback = MakeTempDirectory("x_");
  unsetenv("TMPDIR");
  const std::string unset = MakeTempDirectory("x_");
  EXPECT_EQ(0u, fallback.find("/tmp/x_")) << fallback;
  EXPECT_EQ(0u, unset.find("/tmp/x_")) << unset;
  for (const std::string& made : {inside, fallback, unset}) EXPECT_EQ(0, rmdir(made.c_str())) << made;
}

}  // namespace
}  // namespace cli
}  // namespace kelo
