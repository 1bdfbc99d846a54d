#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/fileio/file_extension.h"
#include "platform/fileio/file_path.h"
#include "record/bag_record_options.h"
#include "record/bag_record_writer.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing_support::ReadAll;
using testing_support::TempDir;

// Catches a split at (not past) the period, or on time going back, a part past its size, a
// misnumbered report, an unfinished file.
TEST(BagRecordActualTest, SplitsOnlyWhenMessageTimeIsStrictlyPastThePeriodOrThePartIsFull) {
  std::vector<long> hours, every_two_s;
  for (long t = 1; t <= 50; ++t) hours.push_back(t * 3600 * 1000);
  for (long t = 1; t <= 11; ++t) every_two_s.push_back(t * 2001);
  const struct {
    long split;
    std::vector<long> times;
    std::vector<size_t> part_sizes;
    std::vector<std::string> names;
    long size = 0;
  } cases[] = {
      {1, {1000, 1500, 2000, 2001, 2500, 3001, 3002}, {3, 3, 1}, {"rec_0.kelobag", "rec_1.kelobag", "rec_2.kelobag"}},
      {1, {50000, 1000, 40000, 51000, 51001}, {4, 1}, {"rec_0.kelobag", "rec_1.kelobag"}},
      {1, {0, 5000, 6000, 6001}, {3, 1}, {"rec_0.kelobag", "rec_1.kelobag"}},
      {2, every_two_s, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, {}},
      {0, hours, {50}, {"rec.kelobag"}},
      {-5, hours, {50}, {"rec.kelobag"}},
      {0, {1, 2, 3, 4, 5, 6, 7}, {3, 3, 1}, {"rec_0.kelobag", "rec_1.kelobag", "rec_2.kelobag"}, 3},
      {0, {1, 2, 3}, {1, 1, 1}, {}, 1},  // the smallest limit: a part per message
  };
  for (const auto& c : cases) {
    TempDir dir;
    BagRecordOpt opt;
    opt.split_time = c.split;
    opt.split_size = c.size;
    opt.output = dir.file("rec.kelobag.active");
    BagRecordActual writer(opt, fileio::FilePath(opt.output));
    std::vector<std::string> saved;
    writer.set_on_save([&](const std::string& name) { saved.push_back(name); });
    writer.append_topic("/t", "demo.Type");
    writer.debug_save_time();
    testing::internal::CaptureStdout();
    for (long t : c.times) writer.save_message({t, t, "/t", "demo.Type", "x"});
    writer.close();
    std::string timed;  // one line per completed part, none for close()
    for (size_t i = 1; i < c.part_sizes.size(); ++i) timed += "save time: Nms\n";
    EXPECT_EQ(std::regex_replace(testing::internal::GetCapturedStdout(), std::regex("[0-9]+ms"), "Nms"), timed);
    std::vector<size_t> sizes;
    for (const std::string& name : dir.List()) {
      EXPECT_TRUE(common::util::CheckFileExtension(name, ".kelobag")) << name << " was left unfinished";
      sizes.push_back(ReadAll(dir.file(name)).size());
    }
    EXPECT_EQ(c.part_sizes, sizes);
    if (!c.names.empty()) { EXPECT_EQ(c.names, dir.List()); }
    ASSERT_EQ(c.part_sizes.size() - 1, saved.size());
    for (size_t i = 0; i < saved.size(); ++i) EXPECT_EQ(dir.file("rec_" + std::to_string(i) + ".kelobag"), saved[i]);
  }
}

}  // namespace
}  // namespace kelo
