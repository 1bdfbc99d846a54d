#include "platform/bag/bag_writer.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "platform/bag/bag_reader.h"
#include "platform/bag/mcap_crc32.h"
#include "platform/bag/mcap_records.h"
#include "tests/support/bag_files.h"
#include "tests/support/mounts.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using namespace testing_support;  // NOLINT
using testing::ElementsAre;
using testing::HasSubstr;

// Polls (1 ms steps, at most 10 s) until `done` holds.
template <typename Done>
void WaitUntil(Done done) {
  for (int i = 0; i < 10000 && !done(); ++i) usleep(1000);
}

TEST(BagWriterTest, CreatesNothingBeforeAMessageAndNamesEachPartAfterItsIndex) {
  TempDir dir;
  const std::string base = dir.file("bag_20240305140709");
  BagWriter(fileio::FilePath(base + ".kelobag.active")).append_topic("/imu", "kelo.Imu");
  EXPECT_THAT(dir.List(), ElementsAre());
  BagWriter writer(fileio::FilePath(base + ".kelobag.active"));
  writer.open("0");
  writer.append_message(1000, 1001, "/imu", "a", "kelo.Imu");
  WaitUntil([&] { return Exists(base + "_0.kelobag.active"); });
  EXPECT_EQ(base + "_0.kelobag.active", writer.active_file());
  EXPECT_EQ(base + "_0.kelobag", writer.save_file("1"));
  writer.append_message(2000, 2001, "/gps", "b", "kelo.Gps");
  EXPECT_EQ(base + "_1.kelobag", writer.close());
  EXPECT_EQ("", writer.active_file());
  EXPECT_EQ(2u, BagReader(base + "_1.kelobag").topics().size());  // every topic known when it began
  // A restarted recording begins a new file rather than losing its messages.
  writer.append_message(3000, 3001, "/imu", "c", "kelo.Imu");
  EXPECT_EQ(base + "_1-1.kelobag", writer.close());
  EXPECT_EQ("c", ReadAll(base + "_1-1.kelobag").at(0).data);
  EXPECT_EQ(3u, dir.List().size());
}

TEST(BagWriterTest, NeverReplacesAFileThatExistsOrAppearsMeanwhile) {
  TempDir dir;
  WriteFile(dir.file("x.kelobag"), "precious");
  BagWriter writer(fileio::FilePath(dir.file("x.kelobag.active")));
  writer.append_message(1, 1, "/t", "m", "T");
  EXPECT_EQ(dir.file("x-1.kelobag"), writer.close());
  writer.append_message(2, 2, "/t", "n", "T");
  WaitUntil([&] { return Exists(dir.file("x-2.kelobag.active")); });
  WriteFile(dir.file("x-2.kelobag"), "appeared");
  EXPECT_EQ(dir.file("x-3.kelobag"), writer.close());
  EXPECT_EQ("precious", ReadFile(dir.file("x.kelobag")));
  EXPECT_EQ("appeared", ReadFile(dir.file("x-2.kelobag")));
}

TEST(BagWriterTest, MessagesOfManyThreadsLandOnceAcrossPartsSplitWhileTheyArrive) {
  TempDir dir;
  BagWriterOptions options;
  options.chunk_size = 2048;
  BagWriter writer(fileio::FilePath(dir.file("bag.kelobag.active")), options);
  constexpr int kThreads = 4, kEach = 3000;
  std::atomic<int> running{kThreads};
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string topic = "/t" + std::to_string(t) + "/" + std::to_string(i % 7);
        if (i % 500 == 0) writer.append_topic(topic + "/declared", "D");
        writer.append_message(i, i, topic, std::to_string(t * kEach + i), "T");
      }
      --running;
    });
  }
  std::vector<std::string> parts;
  for (int part = 1; running > 0; ++part) parts.push_back(writer.save_file(std::to_string(part)));
  for (std::thread& p : producers) p.join();
  parts.push_back(writer.close());
  std::set<int> seen;
  for (const std::string& part : parts) {
    if (part.empty()) continue;
    for (const BagMessage& m : ReadAll(part)) EXPECT_TRUE(seen.insert(std::stoi(m.data)).second) << m.data;
  }
  EXPECT_EQ(static_cast<size_t>(kThreads * kEach), seen.size());
  for (const std::string& name : dir.List()) EXPECT_THAT(name, testing::Not(HasSubstr(".active")));
}

// The file in progress stays readable, what does not fit is counted per topic (in the writer
// and in the bags), and writing resumes once space returns.
TEST(BagWriterTest, AFullDiskLosesOnlyWhatItMustCountsItAndWritingResumes) {
  TempDir dir;
  auto disk = ScopedMount::SmallDisk(dir.path(), 4 << 20);
  WriteFile(dir.file("filler"), std::string(1 << 20, 'f'));
  BagWriterOptions options;
  options.chunk_size = 64 * 1024;
  options.max_queued_bytes = 256 * 1024;
  BagWriter writer(fileio::FilePath(dir.file("bag.kelobag.active")), options);
  testing::internal::CaptureStderr();
  int appended = 0;
  for (; appended < 600; ++appended) {  // 6 MB into what is left of 4 MB
    writer.append_message(appended, appended, appended % 2 ? "/odd" : "/even",
                          Noise(10000, appended), "T");
  }
  WaitUntil([&] { return !writer.problems().empty(); });
  EXPECT_THAT(writer.problems(), HasSubstr("disk full: cannot write"));
  const std::string first = writer.save_file("1");
  writer.append_message(appended, appended, "/odd", "tiny", "T");  // waits in memory for space
  ASSERT_EQ(0, ::unlink(dir.file("filler").c_str()));
  WaitUntil([&] { return writer.problems().empty(); });
  EXPECT_EQ("", writer.problems());
  for (int i = 0; i < 20; ++i) writer.append_message(i, i, "/even", "after", "T");
  const std::string last = writer.close();
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("No space left on device"));
  EXPECT_THAT(log, HasSubstr("writing works again"));
  const BagLosses lost = writer.losses()->Total();
  EXPECT_TRUE(lost.total() > 0 && lost.total() == lost.total(BagLossReason::kDiskFull));
  EXPECT_EQ(621u, BagReader(first).count() + BagReader(last).count() + lost.total());
  BagLosses in_files = LossesIn(first);
  in_files.Add(LossesIn(last));
  EXPECT_EQ(lost, in_files);
  EXPECT_EQ(21u, BagReader(last).count()) << "what came after space returned";
  EXPECT_TRUE(BagReader(first).get_error().empty() && writer.incomplete_files().empty());
}

TEST(BagWriterTest, AFolderRemovedWhileWritingLosesItsFileAndANewOneBeginsWhenItReturns) {
  TempDir dir;
  const std::string folder = dir.file("rec");
  ASSERT_EQ(0, ::mkdir(folder.c_str(), 0755));
  BagWriterOptions options;
  options.chunk_duration_ms = 10;
  BagWriter writer(fileio::FilePath(folder + "/bag.kelobag.active"), options);
  writer.append_message(1, 1, "/a", "first", "T");
  struct stat st;
  WaitUntil([&] { return ::stat((folder + "/bag.kelobag.active").c_str(), &st) == 0 && st.st_size >= 100; });
  testing::internal::CaptureStderr();
  ASSERT_EQ(0, std::system(("rm -rf '" + folder + "'").c_str()));
  writer.append_message(2, 2, "/a", "second", "T");
  WaitUntil([&] { return !writer.problems().empty(); });
  EXPECT_THAT(writer.problems(), HasSubstr("write error"));
  ASSERT_EQ(0, ::mkdir(folder.c_str(), 0755));
  writer.append_message(3, 3, "/a", "third", "T");
  const std::string done = writer.close();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("was deleted while being written"));
  std::vector<std::string> kept;
  for (const BagMessage& m : ReadAll(done)) kept.push_back(m.data);
  EXPECT_THAT(kept, ElementsAre("second", "third"));  // the deleted file's message is counted lost
  EXPECT_EQ(1u, writer.losses()->Total().total(BagLossReason::kWriteError));
}

TEST(BagWriterTest, TimesABagCannotHoldAreCountedAndReportedOncePerEpisode) {
  TempDir dir;
  BagWriter writer(fileio::FilePath(dir.file("t.kelobag.active")));
  testing::internal::CaptureStderr();
  writer.append_message(-1, 5, "/t", "a", "T");
  writer.append_message(5, -7, "/t", "b", "T");
  writer.append_message(5, 5, "/t", "c", "T");
  writer.append_message(-9, 5, "/u", "d", "T");
  const std::vector<BagMessage> stored = ReadAll(writer.close());
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(3u, writer.losses()->Total().total(BagLossReason::kBadTime));
  EXPECT_EQ(1u, writer.losses()->Total().topic_total("/u"));
  EXPECT_EQ("c", stored.at(0).data + std::string(stored.size() - 1, '+'));
  EXPECT_THAT(log, testing::ContainsRegex("outside the times.*\n.*outside the times"));  // after "c": again
  EXPECT_THAT(log, testing::Not(testing::ContainsRegex("(outside the times.*\n.*){3}")));
}

TEST(BagWriterTest, WritesEveryCrcAndStoresWhatDoesNotShrinkAsItIs) {
  TempDir dir;
  BagWriterOptions options;
  options.chunk_size = 16 * 1024;
  BagWriter writer(fileio::FilePath(dir.file("c.kelobag.active")), options);
  for (int i = 0; i < 40; ++i) writer.append_message(i, i, "/noise", Noise(4000, i), "T");
  const std::string bytes = ReadFile(writer.close());
  // The footer's CRC covers the summary; the data end's covers everything before it.
  const size_t footer = bytes.size() - 8 - mcap::kFooterRecordSize;
  mcap::Footer f;
  ASSERT_TRUE(mcap::ParseFooter(bytes.data() + footer + mcap::kPrefixSize, 20, &f));
  EXPECT_EQ(mcap::Crc32(bytes.data() + f.summary_start, footer + mcap::kPrefixSize + 16 - f.summary_start),
            f.summary_crc);
  uint32_t data_crc = 0;
  const size_t data_end = f.summary_start - mcap::kDataEndRecordSize;
  ASSERT_TRUE(mcap::ParseDataEnd(bytes.data() + data_end + mcap::kPrefixSize, 4, &data_crc));
  EXPECT_EQ(mcap::Crc32(bytes.data(), data_end), data_crc);
  EXPECT_EQ("none", BagReader(dir.file("c.kelobag")).file_info().compression);
  // A writer made without options takes the defaults of its time.
  BagWriterOptions lz4 = DefaultBagWriterOptions(), before = lz4;
  lz4.compression = BagCompression::kLz4;
  SetDefaultBagWriterOptions(lz4);
  BagWriter later(fileio::FilePath(dir.file("d.kelobag.active")));
  SetDefaultBagWriterOptions(before);
  later.append_message(1, 1, "/t", std::string(5000, 'q'), "T");
  EXPECT_EQ("lz4", BagReader(later.close()).file_info().compression);
}

}  // namespace
}  // namespace kelo
