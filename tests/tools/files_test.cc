#include "tools/kelo_bag/files.h"

#include <unistd.h>

#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace kelo {
namespace cli {
namespace {

using testing_support::TempDir;

// Completed bags only, numbers ordered by value so that parts come in the order written.
TEST(FilesTest, ListsCompletedBagsInTheOrderTheyWereWritten) {
  TempDir dir;
  for (const char* name : {"bag_10.kelobag", "bag_2.kelobag", "bag_1.kelobag", "bag_02.kelobag", "bag.kelobag",
                           "bag_1b.kelobag", "a_100.kelobag", "bag_9.kelobag", "bag_3.kelobag.active", "notes.txt"}) {
    std::ofstream(dir.file(name)) << "x";
  }
  std::vector<std::string> want;
  for (const char* name : {"a_100", "bag", "bag_1", "bag_1b", "bag_02", "bag_2", "bag_9", "bag_10"})
    want.push_back(dir.file(name) + ".kelobag");
  EXPECT_EQ(want, ListBags(dir.path()));
  for (const std::string& a : want) EXPECT_FALSE(NaturalLess(a, a)) << a;
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
  EXPECT_FALSE(MakeDirectories(dir.file("file"), &error)) << "a file where the folder would be";
  // A folder that cannot be written in is refused before recording starts (read-only
  // mount: root may write in any folder its mode forbids). Needs the private mount
  // namespace that tests/run_in_netns.sh gives the test.
  EXPECT_TRUE(CheckWritableDirectory(dir.path(), &error)) << error;
  ASSERT_TRUE(MakeDirectories(dir.file("ro"), &error)) << error;
  ASSERT_EQ(0, ::mount("tmpfs", dir.file("ro").c_str(), "tmpfs", MS_RDONLY, "size=64k"));
  EXPECT_FALSE(CheckWritableDirectory(dir.file("ro"), &error));
  EXPECT_EQ("cannot write in " + dir.file("ro") + ": Read-only file system", error);
  ::umount2(dir.file("ro").c_str(), MNT_DETACH);
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
  for (const std::string& made : {fallback, unset}) EXPECT_EQ(0u, made.find("/tmp/x_")) << made;
  for (const std::string& made : {inside, fallback, unset}) EXPECT_EQ(0, rmdir(made.c_str())) << made;
}

}  // namespace
}  // namespace cli
}  // namespace kelo
