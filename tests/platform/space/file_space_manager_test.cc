#include "platform/space/file_space_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing_support::TempDir;

// Base of the modification times given to files: one second apart, from an arbitrary day.
constexpr time_t kDay = 1709600000;

void MakeFile(const std::string& path, size_t size, time_t mtime) {
  std::ofstream(path, std::ios::binary) << std::string(size, 'x');
  const timespec times[2] = {{mtime, 0}, {mtime, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Every rule must hold in both modes.
class FileSpaceManagerTest : public ::testing::TestWithParam<FileSpaceManager::Mode> {};

TEST_P(FileSpaceManagerTest, KeepsTheNewestFilesThatFitForEveryLimit) {
  const std::vector<size_t> sizes = {30, 5, 70, 1, 0, 44, 12};  // oldest first
  size_t total = 0;
  for (size_t s : sizes) total += s;
  // Around every sum of the newest files: 12, 56, 57, 127, 132, 162.
  for (unsigned long limit : {1, 11, 12, 13, 55, 56, 57, 58, 126, 127, 128, 131, 132, 133, 161, 162, 163}) {
    TempDir dir;
    for (size_t i = 0; i < sizes.size(); ++i) {  // name order and age order differ
      MakeFile(dir.file("f" + std::to_string(6 - i) + ".kelobag"), sizes[i], kDay + static_cast<time_t>(i));
    }
    // Expected: drop from the oldest while the rest is over the limit.
    size_t left = total, first_kept = 0;
    while (left > limit) left -= sizes[first_kept++];
    std::vector<std::string> expected;
    for (size_t i = first_kept; i < sizes.size(); ++i)
      expected.push_back("f" + std::to_string(6 - i) + ".kelobag");
    std::sort(expected.begin(), expected.end());

    FileSpaceManager space(dir.path(), "", ".kelobag", limit, GetParam());
    EXPECT_TRUE(space.free(nullptr)) << "limit " << limit;
    EXPECT_EQ(dir.List(), expected) << "limit " << limit;
  }
}

TEST_P(FileSpaceManagerTest, EqualModificationTimesGoInNameOrder) {
  TempDir dir;
  for (const char* name : {"b.kelobag", "c.kelobag", "a.kelobag"}) MakeFile(dir.file(name), 10, kDay);
  FileSpaceManager space(dir.path(), "", ".kelobag", 15, GetParam());
  std::vector<std::string> seen;
  EXPECT_TRUE(space.free([&](const std::vector<std::string>& files) {
    seen = files;
    return true;
  }));
  EXPECT_EQ(seen, (std::vector<std::string>{dir.file("a.kelobag"), dir.file("b.kelobag")}));
  EXPECT_EQ(dir.List(), std::vector<std::string>{"c.kelobag"});
}

TEST_P(FileSpaceManagerTest, NeverTouchesWhatItDoesNotManage) {
  TempDir outside;
  const std::string dir = outside.file("rec");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  // Old and large, so that each would be first to go if it counted.
  const std::vector<std::string> foreign = {
      "bag_1.kelobag.active", "bag_2.kelobag.bak", "bag_3.kelobagx",
      "bag_4.KELOBAG",        "other_5.kelobag",   "bag_6.mcap",
  };
  for (const std::string& name : foreign) MakeFile(dir + "/" + name, 1000, kDay);
  ASSERT_EQ(mkdir((dir + "/bag_sub.kelobag").c_str(), 0755), 0);
  MakeFile(dir + "/bag_sub.kelobag/bag_7.kelobag", 1000, kDay);
  MakeFile(outside.file("bag_8.kelobag"), 1000, kDay);  // beside the folder, not in it
  ASSERT_EQ(symlink(outside.file("bag_8.kelobag").c_str(), (dir + "/bag_link.kelobag").c_str()), 0);
  ASSERT_EQ(symlink("/nonexistent", (dir + "/bag_dangling.kelobag").c_str()), 0);
  MakeFile(dir + "/bag_old.kelobag", 40, kDay + 1);
  MakeFile(dir + "/bag_new.kelobag", 40, kDay + 2);

  FileSpaceManager space(dir, "bag_", ".kelobag", 50, GetParam());
  std::vector<std::string> seen;
  EXPECT_TRUE(space.free([&](const std::vector<std::string>& files) {
    seen = files;
    return true;
  }));
  EXPECT_EQ(seen, std::vector<std::string>{dir + "/bag_old.kelobag"});
  for (const std::string& name : foreign) EXPECT_TRUE(Exists(dir + "/" + name)) << name;
  EXPECT_TRUE(Exists(dir + "/bag_sub.kelobag/bag_7.kelobag"));
  EXPECT_TRUE(Exists(dir + "/bag_link.kelobag"));
  EXPECT_TRUE(Exists(dir + "/bag_dangling.kelobag"));
  EXPECT_TRUE(Exists(outside.file("bag_8.kelobag")));
  EXPECT_TRUE(Exists(dir + "/bag_new.kelobag"));
  EXPECT_FALSE(Exists(dir + "/bag_old.kelobag"));

  // Nothing it manages is left but the newest file; the rest never counts.
  FileSpaceManager strict(dir, "bag_", ".kelobag", 1, GetParam());
  EXPECT_TRUE(strict.free(nullptr));
  for (const std::string& name : foreign) EXPECT_TRUE(Exists(dir + "/" + name)) << name;
  EXPECT_TRUE(Exists(outside.file("bag_8.kelobag")));
}

// Only when something must go is anyone asked, and a veto keeps everything.
TEST_P(FileSpaceManagerTest, AsksOnlyWhenFilesMustGoAndAVetoKeepsThemAll) {
  TempDir dir;
  MakeFile(dir.file("old.kelobag"), 60, kDay);
  MakeFile(dir.file("mid.kelobag"), 60, kDay + 1);
  MakeFile(dir.file("new.kelobag"), 60, kDay + 2);
  MakeFile(dir.file("y.kelobag.active"), 600, kDay);  // an empty prefix still skips what is written
  bool asked = false;
  for (unsigned long limit : {0ul, 180ul}) {  // no limit; a limit the folder fits
    FileSpaceManager space(dir.path(), "", ".kelobag", limit, GetParam());
    EXPECT_TRUE(space.free([&](const std::vector<std::string>&) { return asked = true; }));
  }
  EXPECT_FALSE(asked);
  FileSpaceManager space(dir.path(), "", ".kelobag", 100, GetParam());
  std::vector<std::string> seen;
  EXPECT_FALSE(space.free([&](const std::vector<std::string>& files) {
    seen = files;
    return false;
  }));
  EXPECT_EQ(seen, (std::vector<std::string>{dir.file("old.kelobag"), dir.file("mid.kelobag")}));
  EXPECT_EQ(dir.List().size(), 4u);
  // Agreeing next time deletes exactly what was shown.
  EXPECT_TRUE(space.free([&](const std::vector<std::string>& files) { return files == seen; }));
  EXPECT_EQ(dir.List(), (std::vector<std::string>{"new.kelobag", "y.kelobag.active"}));
}

TEST_P(FileSpaceManagerTest, AFolderThatCannotBeReadDeletesNothingAndDoesNotFit) {
  TempDir dir;
  FileSpaceManager missing(dir.file("absent"), "", ".kelobag", 10, GetParam());
  testing::internal::CaptureStderr();
  EXPECT_FALSE(missing.free(nullptr));
  EXPECT_FALSE(missing.free(nullptr));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << "said once, not at every call: " << said;
  FileSpaceManager empty("", "", ".kelobag", 10, GetParam());
  testing::internal::CaptureStderr();
  EXPECT_FALSE(empty.free(nullptr));
  testing::internal::GetCapturedStderr();
  FileSpaceManager unlimited(dir.file("absent"), "", ".kelobag", 0, GetParam());
  EXPECT_TRUE(unlimited.free(nullptr)) << "no budget, nothing to check";
}

TEST_P(FileSpaceManagerTest, SeesWhatChangedInTheFolderBetweenCalls) {
  TempDir dir;
  MakeFile(dir.file("a.kelobag"), 10, kDay);
  MakeFile(dir.file("b.kelobag"), 10, kDay + 1);
  FileSpaceManager space(dir.path(), "", ".kelobag", 100, GetParam());
  EXPECT_TRUE(space.free(nullptr));  // fits; an index now knows a and b

  // "a" is replaced by a newer, larger file of the same name; "b" vanishes; "c" appears.
  MakeFile(dir.file("a.tmp"), 60, kDay + 10);
  ASSERT_EQ(rename(dir.file("a.tmp").c_str(), dir.file("a.kelobag").c_str()), 0);
  ASSERT_EQ(unlink(dir.file("b.kelobag").c_str()), 0);
  MakeFile(dir.file("c.kelobag"), 60, kDay + 5);
  EXPECT_TRUE(space.free(nullptr));
  EXPECT_EQ(dir.List(), std::vector<std::string>{"a.kelobag"});
}

TEST_P(FileSpaceManagerTest, AFileRewrittenInPlaceIsMeasuredAgainBeforeItIsDeleted) {
  TempDir dir;
  MakeFile(dir.file("a.kelobag"), 10, kDay);
  MakeFile(dir.file("b.kelobag"), 10, kDay + 1);
  FileSpaceManager space(dir.path(), "", ".kelobag", 25, GetParam());
  EXPECT_TRUE(space.free(nullptr));
  // "a" becomes the newest without a new directory entry; "c" pushes the folder over.
  MakeFile(dir.file("a.kelobag"), 10, kDay + 9);
  MakeFile(dir.file("c.kelobag"), 10, kDay + 2);
  EXPECT_TRUE(space.free(nullptr));
  EXPECT_EQ(dir.List(), (std::vector<std::string>{"a.kelobag", "c.kelobag"}));
}

TEST_P(FileSpaceManagerTest, ConcurrentCallsKeepTheBudgetAndOnlyDeleteManagedFiles) {
  TempDir dir;
  MakeFile(dir.file("keep.kelobag.active"), 5000, kDay);
  FileSpaceManager shared(dir.path(), "", ".kelobag", 300, GetParam());
  FileSpaceManager other(dir.path(), "", ".kelobag", 300, GetParam());
  std::atomic<bool> done{false};
  std::thread writer([&] {
    // Completed files appear whole, by rename, as the bag library makes them.
    for (int i = 0; i < 200; ++i) {
      const std::string name = dir.file("f" + std::to_string(i) + ".kelobag");
      MakeFile(name + ".active", 100, kDay + i);
      rename((name + ".active").c_str(), name.c_str());
    }
    done = true;
  });
  std::atomic<int> failures{0};
  auto run = [&](FileSpaceManager* space) {
    while (!done) {
      if (!space->free(nullptr)) ++failures;  // another's deletions are no failure
    }
  };
  std::thread a(run, &shared), b(run, &shared), c(run, &other);
  writer.join();
  a.join();
  b.join();
  c.join();
  EXPECT_EQ(failures, 0);
  EXPECT_TRUE(shared.free(nullptr));
  EXPECT_EQ(dir.List(), (std::vector<std::string>{"f197.kelobag", "f198.kelobag", "f199.kelobag",
                                                  "keep.kelobag.active"}));
}

INSTANTIATE_TEST_SUITE_P(BothModes, FileSpaceManagerTest,
                         ::testing::Values(FileSpaceManager::kIndexed, FileSpaceManager::kRescan),
                         [](const ::testing::TestParamInfo<FileSpaceManager::Mode>& info) {
                           return info.param == FileSpaceManager::kIndexed ? std::string("Indexed")
                                                                           : std::string("Rescan");
                         });

}  // namespace
}  // namespace kelo
