#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/fileio/file_extension.h"
#include "platform/fileio/file_path.h"
#include "record/bag_record_options.h"
#include "record/bag_record_writer.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::ReadAll;
using testing_support::TempDir;

BagRecordWriter::Message At(long time, const std::string& topic = "/t") {
  BagRecordWriter::Message message;
  message.time = time;
  message.record_time = time + 7;
  message.topic = topic;
  message.type = "demo.Type";
  message.data = "payload@" + std::to_string(time);
  return message;
}

// A continuous writer in a scratch directory, remembering every completed file it reports.
struct SplitRecording {
  explicit SplitRecording(long split_time) {
    opt.split_time = split_time;
    opt.output = dir.file("rec.kelobag.active");
    writer.reset(new BagRecordActual(opt, fileio::FilePath(opt.output)));
    writer->set_on_save([this](const std::string& name) { saved.push_back(name); });
    writer->append_topic("/t", "demo.Type");
  }

  // Message times of each completed bag in the directory, in name order.
  std::vector<std::vector<long>> PartTimes() {
    std::vector<std::vector<long>> parts;
    for (const std::string& name : dir.List()) {
      EXPECT_TRUE(common::util::CheckFileExtension(name, ".kelobag")) << name << " was left unfinished";
      std::vector<long> times;
      for (const BagMessage& message : ReadAll(dir.file(name))) times.push_back(message.time);
      parts.push_back(times);
    }
    return parts;
  }

  TempDir dir;
  BagRecordOpt opt;
  std::unique_ptr<BagRecordWriter> writer;
  std::vector<std::string> saved;
};

// Parts end strictly past the period after their first message (a time of 0 starts none),
// by message time, which going backwards never splits; no period, one unindexed file.
TEST(BagRecordActualTest, SplitsOnlyWhenMessageTimeIsStrictlyPastThePeriod) {
  std::vector<long> hours, every_two_s;
  for (long t = 1; t <= 50; ++t) hours.push_back(t * 3600 * 1000);
  for (long t = 1; t <= 11; ++t) every_two_s.push_back(t * 2001);
  const struct {
    long split;
    std::vector<long> times;
    std::vector<size_t> part_sizes;
    std::vector<std::string> names;
  } cases[] = {
      {1, {1000, 1500, 2000, 2001, 2500, 3001, 3002}, {3, 3, 1}, {"rec_0.kelobag", "rec_1.kelobag", "rec_2.kelobag"}},
      {1, {50000, 1000, 40000, 51000, 51001}, {4, 1}, {"rec_0.kelobag", "rec_1.kelobag"}},
      {1, {0, 5000, 6000, 6001}, {3, 1}, {"rec_0.kelobag", "rec_1.kelobag"}},
      {2, every_two_s, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, {}},
      {0, hours, {50}, {"rec.kelobag"}},
      {-5, hours, {50}, {"rec.kelobag"}},
  };
  for (const auto& c : cases) {
    SplitRecording rec(c.split);
    for (long t : c.times) rec.writer->save_message(At(t));
    rec.writer->close();
    std::vector<size_t> sizes;
    for (const auto& part : rec.PartTimes()) sizes.push_back(part.size());
    EXPECT_EQ(c.part_sizes, sizes);
    if (!c.names.empty()) { EXPECT_EQ(c.names, rec.dir.List()); }
    // Every part but the last is reported as it completes, by its index.
    ASSERT_EQ(c.part_sizes.size() - 1, rec.saved.size());
    for (size_t i = 0; i < rec.saved.size(); ++i)
      EXPECT_EQ(rec.dir.file("rec_" + std::to_string(i) + ".kelobag"), rec.saved[i]);
  }
}

TEST(BagRecordActualTest, DebugSaveTimePrintsOneLinePerCompletedPart) {
  SplitRecording rec(1);
  rec.writer->debug_save_time();
  testing::internal::CaptureStdout();
  for (long t : {1000, 2001, 3002}) rec.writer->save_message(At(t));
  rec.writer->close();
  std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_THAT(printed, testing::MatchesRegex("save time: [0-9]+ms\nsave time: [0-9]+ms\n"));
}

}  // namespace
}  // namespace kelo
