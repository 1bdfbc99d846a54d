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

// One-second parts: a part ends strictly past the period after its first message (a time
// of 0 starts none), by message time, which going backwards never splits.
TEST(BagRecordActualTest, SplitsOnlyWhenMessageTimeIsStrictlyPastThePeriod) {
  const struct {
    std::vector<long> times;
    std::vector<std::vector<long>> parts;
  } cases[] = {
      {{1000, 1500, 2000, 2001, 2500, 3001, 3002}, {{1000, 1500, 2000}, {2001, 2500, 3001}, {3002}}},
      {{50000, 1000, 40000, 51000, 51001}, {{1000, 40000, 50000, 51000}, {51001}}},
      {{0, 5000, 6000, 6001}, {{0, 5000, 6000}, {6001}}},
  };
  for (const auto& c : cases) {
    SplitRecording rec(1);
    for (long t : c.times) rec.writer->save_message(At(t));
    rec.writer->close();
    EXPECT_EQ(c.parts, rec.PartTimes());
    ASSERT_EQ(c.parts.size() - 1, rec.saved.size());
    EXPECT_EQ(rec.dir.file("rec_0.kelobag"), rec.saved[0]);
  }
}

TEST(BagRecordActualTest, PartIndexesCountUpFromZero) {
  SplitRecording rec(2);
  for (long t = 1; t <= 11; ++t) rec.writer->save_message(At(t * 2001));
  rec.writer->close();
  ASSERT_EQ(rec.saved.size(), 10u);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(rec.saved[i], rec.dir.file("rec_" + std::to_string(i) + ".kelobag"));
  std::vector<std::string> names = rec.dir.List();
  EXPECT_EQ(names.size(), 11u);
  EXPECT_TRUE(std::find(names.begin(), names.end(), "rec_10.kelobag") != names.end())
      << "close() completes the last part";
}

TEST(BagRecordActualTest, WithoutAPeriodOneUnindexedFileTakesEverything) {
  for (long split_time : {0L, -5L}) {
    SplitRecording rec(split_time);
    for (long t = 1; t <= 50; ++t) rec.writer->save_message(At(t * 3600 * 1000));
    rec.writer->close();
    EXPECT_TRUE(rec.saved.empty());
    EXPECT_THAT(rec.dir.List(), ElementsAre("rec.kelobag"));
    EXPECT_EQ(rec.PartTimes()[0].size(), 50u);
  }
}

TEST(BagRecordActualTest, MessagesKeepEveryFieldThroughTheWriter) {
  SplitRecording rec(0);
  BagRecordWriter::Message message = At(1234, "/other");
  message.type = "other.Type";
  message.data = std::string("\0\x01\xff binary", 10);
  rec.writer->append_topic("/other", "other.Type");
  rec.writer->save_message(message);
  rec.writer->close();
  std::vector<BagMessage> read = ReadAll(rec.dir.file("rec.kelobag"));
  ASSERT_EQ(read.size(), 1u);
  EXPECT_EQ(read[0].topic, "/other");
  EXPECT_EQ(read[0].type, "other.Type");
  EXPECT_EQ(read[0].data, message.data);
  EXPECT_EQ(read[0].time, 1234);
  EXPECT_EQ(read[0].record_time, 1241);
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
