#include "platform/space/file_space_manager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing_support::Exists;
using testing_support::TempDir;
using testing_support::WriteFileDated;

constexpr time_t kDay = 1709600000;

class FileSpaceManagerTest : public ::testing::TestWithParam<FileSpaceManager::Mode> {};

// Drops the oldest while over the limit, for limits at and next to the size of every newest-files set.
TEST_P(FileSpaceManagerTest, KeepsTheNewestFilesThatFit) {
  const std::vector<size_t> sizes = {30, 5, 70, 1, 0, 44, 12};  // oldest first
  std::set<unsigned long> limits;
  size_t newest = 0;
  for (size_t i = sizes.size(); i-- > 0;) {
    newest += sizes[i];
    for (size_t limit : {newest - 1, newest, newest + 1}) limits.insert(limit);
  }
  for (unsigned long limit : limits) {
    TempDir dir;
    for (size_t i = 0; i < sizes.size(); ++i) {  // name order and age order differ
      WriteFileDated(dir.file("f" + std::to_string(6 - i) + ".kelobag"), sizes[i], kDay + static_cast<time_t>(i));
    }
    size_t left = newest, first_kept = 0;
    while (left > limit) left -= sizes[first_kept++];
    std::vector<std::string> expected;
    for (size_t i = sizes.size(); i-- > first_kept;) expected.push_back("f" + std::to_string(6 - i) + ".kelobag");
    FileSpaceManager space(dir.path(), "", ".kelobag", limit, GetParam());
    EXPECT_TRUE(space.free(nullptr)) << "limit " << limit;
    EXPECT_EQ(dir.List(), expected) << "limit " << limit;
  }
}

// Catches foreign files, links, subfolders and others' bags counted or deleted, and a bag another deleted
// first still counted against the limit.
TEST_P(FileSpaceManagerTest, NeverTouchesWhatItDoesNotManage) {
  TempDir outside;
  const std::string dir = outside.file("rec");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  // Old and large, so that each would be first to go if it counted.
  const std::vector<std::string> foreign = {"bag_1.kelobag.active", "bag_2.kelobag.bak", "bag_3.kelobagx",
                                            "bag_4.KELOBAG", "other_5.kelobag", "bag_6.mcap"};
  for (const std::string& name : foreign) WriteFileDated(dir + "/" + name, 1000, kDay);
  ASSERT_EQ(mkdir((dir + "/bag_sub.kelobag").c_str(), 0755), 0);
  WriteFileDated(dir + "/bag_sub.kelobag/bag_7.kelobag", 1000, kDay);
  WriteFileDated(outside.file("bag_8.kelobag"), 1000, kDay);  // beside the folder, not in it
  ASSERT_EQ(symlink(outside.file("bag_8.kelobag").c_str(), (dir + "/bag_link.kelobag").c_str()), 0);
  ASSERT_EQ(symlink("/nonexistent", (dir + "/bag_dangling.kelobag").c_str()), 0);
  WriteFileDated(dir + "/bag_old_b.kelobag", 20, kDay + 1);
  WriteFileDated(dir + "/bag_old_a.kelobag", 20, kDay + 1);
  WriteFileDated(dir + "/bag_new.kelobag", 40, kDay + 2);

  FileSpaceManager space(dir, "bag_", ".kelobag", 50, GetParam());
  std::vector<std::string> seen;  // what is to go: oldest first, ties by name; another recorder deletes one first
  EXPECT_TRUE(space.free([&](const std::vector<std::string>& files) {
    return !(seen = files).empty() && unlink(files[1].c_str()) == 0;
  }));
  EXPECT_EQ(seen, (std::vector<std::string>{dir + "/bag_old_a.kelobag", dir + "/bag_old_b.kelobag"}));
  EXPECT_FALSE(Exists(dir + "/bag_old_a.kelobag") || Exists(dir + "/bag_old_b.kelobag"));
  // With a limit of 1 only its own files go; the rest never counts.
  FileSpaceManager strict(dir, "bag_", ".kelobag", 1, GetParam());
  EXPECT_TRUE(strict.free(nullptr));
  std::vector<std::string> kept = {"bag_sub.kelobag/bag_7.kelobag", "bag_link.kelobag", "bag_dangling.kelobag",
                                   "../bag_8.kelobag"};
  kept.insert(kept.end(), foreign.begin(), foreign.end());
  for (const std::string& name : kept) EXPECT_TRUE(Exists(dir + "/" + name)) << name;
  EXPECT_FALSE(Exists(dir + "/bag_new.kelobag"));
}

// A folder that cannot be read does not fit, said once, not at every call; no budget checks nothing.
TEST_P(FileSpaceManagerTest, AFolderThatCannotBeReadDoesNotFit) {
  FileSpaceManager missing("/nonexistent/absent", "", ".kelobag", 10, GetParam());
  testing::internal::CaptureStderr();
  EXPECT_FALSE(missing.free(nullptr));
  EXPECT_FALSE(missing.free(nullptr));
  EXPECT_FALSE(FileSpaceManager("", "", ".kelobag", 10, GetParam()).free(nullptr));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
  EXPECT_TRUE(FileSpaceManager("/nonexistent/absent", "", ".kelobag", 0, GetParam()).free(nullptr));
}

// Files replaced, removed, added or rewritten in place between calls are seen (victims re-measured).
TEST_P(FileSpaceManagerTest, SeesWhatChangedInTheFolderBetweenCalls) {
  TempDir dir;
  WriteFileDated(dir.file("a.kelobag"), 10, kDay);
  WriteFileDated(dir.file("b.kelobag"), 10, kDay + 1);
  WriteFileDated(dir.file("d.kelobag"), 10, kDay + 2);
  FileSpaceManager space(dir.path(), "", ".kelobag", 100, GetParam());
  EXPECT_TRUE(space.free(nullptr));  // fits; an index now knows a, b and d
  // "a" is replaced by a newer, larger file of the same name; "b" vanishes; "c" appears;
  // "d" becomes the newest without a new directory entry.
  WriteFileDated(dir.file("a.tmp"), 60, kDay + 10);
  ASSERT_EQ(rename(dir.file("a.tmp").c_str(), dir.file("a.kelobag").c_str()), 0);
  ASSERT_EQ(unlink(dir.file("b.kelobag").c_str()), 0);
  WriteFileDated(dir.file("c.kelobag"), 40, kDay + 5);
  WriteFileDated(dir.file("d.kelobag"), 10, kDay + 20);
  EXPECT_TRUE(space.free(nullptr));
  EXPECT_EQ(dir.List(), (std::vector<std::string>{"a.kelobag", "d.kelobag"}));
}

INSTANTIATE_TEST_SUITE_P(BothModes, FileSpaceManagerTest,
                         ::testing::Values(FileSpaceManager::kIndexed, FileSpaceManager::kRescan),
                         [](const ::testing::TestParamInfo<FileSpaceManager::Mode>& info) {
                           return std::string(info.param == FileSpaceManager::kIndexed ? "Indexed" : "Rescan");
                         });

}  // namespace
}  // namespace kelo
