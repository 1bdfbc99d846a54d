#include "platform/bag/bag_writer.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <set>
#include <thread>

#include "platform/bag/bag_reader.h"
#include "platform/bag/mcap_crc32.h"
#include "platform/bag/mcap_records.h"
#include "tests/support/bag_files.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using namespace testing_support;  // NOLINT
using testing::ContainsRegex;
using testing::HasSubstr;

// A tmpfs of `bytes` at `dir` (which must exist) for the object's life: a disk that fills up.
// Needs the private mount namespace that tests/run_in_netns.sh gives the test.
struct SmallDisk {
  SmallDisk(const std::string& dir, size_t bytes)
      : dir(dir), mounted(::mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + std::to_string(bytes)).c_str()) == 0) {
    EXPECT_TRUE(mounted) << "cannot mount at " << dir << ": " << std::strerror(errno);
  }
  ~SmallDisk() { if (mounted) ::umount2(dir.c_str(), MNT_DETACH); }
  const std::string dir;
  const bool mounted;
};

std::string Datas(const std::string& file) {
  std::string out;
  for (const BagMessage& m : ReadAll(file)) out += m.data + " ";
  return out;
}

TEST(BagWriterTest, NamesEachPartAfterItsIndexAndNeverReplacesAFileThatExistsOrAppearsMeanwhile) {
  TempDir dir;
  const std::string base = dir.file("bag_20240305140709");
  BagWriter(fileio::FilePath(base + ".kelobag.active")).append_topic("/imu", "kelo.Imu");
  EXPECT_TRUE(dir.List().empty()) << "nothing before a message";
  WriteFile(base + "_1.kelobag", "precious");
  BagWriter writer(fileio::FilePath(base + ".kelobag.active"));
  writer.open("0");
  writer.append_message(1000, 1001, "/imu", "a", "kelo.Imu");
  WaitFor([&] { return Exists(base + "_0.kelobag.active"); }, 10000);
  EXPECT_EQ(base + "_0.kelobag.active", writer.active_file());
  EXPECT_EQ(base + "_0.kelobag", writer.save_file("1"));
  writer.append_message(2000, 2001, "/gps", "b", "kelo.Gps");
  WaitFor([&] { return Exists(base + "_1-1.kelobag.active"); }, 10000);
  WriteFile(base + "_1-1.kelobag", "appeared");
  writer.append_topic("/late", "kelo.Late");  // after the last message: in the file's tail only
  EXPECT_EQ(base + "_1-2.kelobag", writer.close());
  EXPECT_EQ("", writer.active_file());
  EXPECT_EQ(3u, BagReader(base + "_1-2.kelobag").topics().size());  // every topic known, with messages or not
  writer.append_message(3000, 3001, "/imu", "c", "kelo.Imu");  // a restarted recording: a new file
  EXPECT_EQ(base + "_1-3.kelobag", writer.close());
  EXPECT_EQ("a b c ", Datas(base + "_0.kelobag") + Datas(base + "_1-2.kelobag") + Datas(base + "_1-3.kelobag"));
  EXPECT_EQ("precious", ReadFile(base + "_1.kelobag"));
  // A name of the caller's own keeps its extension, or has none.
  for (const std::string& name : {dir.file("other.mcap"), dir.file("plain")}) {
    BagWriter own(fileio::FilePath(name + ".active"));
    own.append_message(1, 1, "/imu", "d", "kelo.Imu");
    EXPECT_EQ(name, own.close());
  }
  EXPECT_EQ("appeared", ReadFile(base + "_1-1.kelobag"));
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
  for (int part = 1; running > 0; ++part) writer.save_file(std::to_string(part));
  for (std::thread& p : producers) p.join();
  writer.close();
  std::set<int> seen;
  for (const std::string& part : dir.List()) {
    ASSERT_THAT(part, testing::EndsWith(".kelobag"));
    for (const BagMessage& m : ReadAll(dir.file(part))) EXPECT_TRUE(seen.insert(std::stoi(m.data)).second);
  }
  EXPECT_EQ(static_cast<size_t>(kThreads * kEach), seen.size());
}

// Catches a full disk losing more than it must, losses uncounted (writer and bags), or no resume.
TEST(BagWriterTest, AFullDiskLosesOnlyWhatItMustCountsItAndWritingResumes) {
  TempDir dir;
  SmallDisk disk(dir.path(), 4 << 20);
  WriteFile(dir.file("filler"), std::string(1 << 20, 'f'));
  BagWriterOptions options;
  options.chunk_size = 64 * 1024;
  options.max_queued_bytes = 256 * 1024;
  BagWriter writer(fileio::FilePath(dir.file("bag.kelobag.active")), options);
  testing::internal::CaptureStderr();
  for (int i = 0; i < 600; ++i) writer.append_message(i, i, i % 2 ? "/odd" : "/even", Noise(10000, i), "T");
  WaitFor([&] { return !writer.problems().empty(); }, 10000);  // 6 MB into what is left of 4 MB
  EXPECT_THAT(writer.problems(), HasSubstr("disk full: cannot write"));
  const std::string first = writer.save_file("1");
  writer.append_message(600, 600, "/odd", "tiny", "T");  // waits in memory for space
  ASSERT_EQ(0, ::unlink(dir.file("filler").c_str()));
  EXPECT_TRUE(WaitFor([&] { return writer.problems().empty(); }, 10000)) << writer.problems();
  for (int i = 0; i < 20; ++i) writer.append_message(i, i, "/even", "after", "T");
  const std::string last = writer.close();
  EXPECT_THAT(testing::internal::GetCapturedStderr(), ContainsRegex("No space left on device(.|\n)*writing works again"));
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
  WaitFor([&] { return ::stat((folder + "/bag.kelobag.active").c_str(), &st) == 0 && st.st_size >= 100; },
          10000);
  const long open_files = OpenFiles();
  testing::internal::CaptureStderr();
  ASSERT_EQ(0, std::system(("rm -rf '" + folder + "'").c_str()));
  writer.append_message(2, 2, "/a", "second", "T");
  WaitFor([&] { return !writer.problems().empty(); }, 10000);
  EXPECT_THAT(writer.problems(), HasSubstr("write error"));
  ASSERT_EQ(0, ::mkdir(folder.c_str(), 0755));
  writer.append_message(3, 3, "/a", "third", "T");
  const std::string done = writer.close();
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("was deleted while being written"));
  // One failure or more, as the retries fell before the folder came back; the count agrees.
  EXPECT_THAT(log, ContainsRegex(" \\(after (1 failure|([2-9]|[1-9][0-9]+) failures)\\)\n")) << log;
  EXPECT_EQ("second third ", Datas(done));  // the deleted file's message is counted lost
  EXPECT_EQ(1u, writer.losses()->Total().total(BagLossReason::kWriteError));
  EXPECT_EQ(open_files - 1, OpenFiles()) << "the lost file's descriptor is closed too";
}

// Catches times a bag cannot hold, or a topic past the last channel id, stored anyway, uncounted, or
// reported at every message instead of once per episode.
TEST(BagWriterTest, WhatABagCannotHoldIsCountedAndReportedOncePerEpisode) {
  TempDir dir;
  BagWriter writer(fileio::FilePath(dir.file("t.kelobag.active")));
  testing::internal::CaptureStderr();
  for (int i = 0; i < 65536; ++i) writer.append_topic("/t" + std::to_string(i), "T");
  writer.append_message(1, 1, "/t65535", "x", "T");  // the 65536th topic: no id left
  const long too_late = std::numeric_limits<long>::max() / 1000000 + 1;  // past what nanoseconds hold
  for (auto [time, record_time, topic] : std::vector<std::tuple<long, long, std::string>>{
           {-1, 5, "/t1"}, {5, -7, "/t1"}, {too_late, 5, "/t1"}, {5, too_late, "/t1"}, {5, 5, "/t0"}, {-9, 5, "/t2"}}) {
    writer.append_message(time, record_time, topic, topic, "T");
  }
  EXPECT_EQ("/t0 ", Datas(writer.close()));
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("no channel id left for /t65535"));
  const BagLosses lost = writer.losses()->Total();
  EXPECT_EQ(1u, lost.total(BagLossReason::kWriteError));
  EXPECT_EQ(5u, lost.total(BagLossReason::kBadTime));
  EXPECT_EQ(1u, lost.topic_total("/t2"));
  // Reported again only after "/t0" was stored.
  EXPECT_THAT(log, testing::ContainsRegex("outside the times(.|\n)*outside the times"));
  EXPECT_THAT(log, testing::Not(testing::ContainsRegex("(outside the times(.|\n)*){3}")));
  // A problem that comes back after it ended is a problem again.
  BagWriter again(fileio::FilePath(dir.file("u.kelobag.active")));
  for (long time : {-1L, 5L, -1L}) again.append_message(time, 5, "/t", "x", "T");
  EXPECT_THAT(again.problems(), HasSubstr("outside the times"));
}

TEST(BagWriterTest, WritesEveryCrcStoresWhatDoesNotShrinkAsItIsAndTakesTheDefaultsOfItsTime) {
  TempDir dir;
  BagWriterOptions options;
  options.chunk_size = 16 * 1024;
  // Whole blocks written past the page cache, and on a file system that refuses that (ramfs;
  // needs the private mount namespace of tests/run_in_netns.sh).
  ASSERT_EQ(0, ::mkdir(dir.file("ram").c_str(), 0755));
  ASSERT_EQ(0, ::mount("ramfs", dir.file("ram").c_str(), "ramfs", 0, nullptr));
  for (const std::string& folder : {dir.path(), dir.file("ram")}) {
    BagWriter writer(fileio::FilePath(folder + "/c.kelobag.active"), options);
    for (int i = 0; i < 40; ++i) writer.append_message(i, i, "/noise", Noise(4000, i), "T");
    const std::string bytes = ReadFile(writer.close());
    // The footer's CRC covers the summary; the data end's covers everything before it.
    const size_t footer = bytes.size() - 8 - mcap::kFooterRecordSize;
    mcap::Footer f;
    uint32_t data_crc = 0;
    ASSERT_TRUE(mcap::ParseFooter(bytes.data() + footer + mcap::kPrefixSize, 20, &f));
    EXPECT_EQ(mcap::Crc32(bytes.data() + f.summary_start, footer + mcap::kPrefixSize + 16 - f.summary_start),
              f.summary_crc);
    const size_t data_end = f.summary_start - mcap::kDataEndRecordSize;
    ASSERT_TRUE(mcap::ParseDataEnd(bytes.data() + data_end + mcap::kPrefixSize, 4, &data_crc));
    EXPECT_EQ(mcap::Crc32(bytes.data(), data_end), data_crc) << folder;
    const BagFileInfo info = BagReader(folder + "/c.kelobag").file_info();
    EXPECT_EQ("none", info.compression);
    EXPECT_TRUE(info.chunks > 3 && info.chunks < 20) << info.chunks;  // several messages a chunk
  }
  ::umount2(dir.file("ram").c_str(), MNT_DETACH);
  BagWriterOptions lz4 = DefaultBagWriterOptions(), before = lz4;
  lz4.compression = BagCompression::kLz4;
  SetDefaultBagWriterOptions(lz4);
  BagWriter later(fileio::FilePath(dir.file("d.kelobag.active")));
  SetDefaultBagWriterOptions(before);
  later.append_message(1, 1, "/t", std::string(5000, 'q'), "T");
  EXPECT_EQ("lz4", BagReader(later.close()).file_info().compression);
}

// Catches recording info missing from a part, from an unfinished file, or written twice.
TEST(BagWriterTest, EveryPartCarriesTheRecordingInfoFromItsStartOnce) {
  TempDir dir;
  BagWriterOptions options;
  options.chunk_duration_ms = 1;
  options.recording_info = {{"command", "kelo_bag record -a"}, {"mode", "plain"}};
  BagWriter writer(fileio::FilePath(dir.file("r.kelobag.active")), options);
  writer.open("0");
  writer.append_message(1, 1, "/t", "first", "T");
  const std::string active = dir.file("r_0.kelobag.active");
  const auto info = testing::Field(&BagMetadata::values, options.recording_info);
  const auto named = [](const std::string& name) { return testing::Field(&BagMetadata::name, name); };
  WaitFor([&] { return BagReader(active).count() == 1; }, 10000);
  EXPECT_THAT(BagReader(active).metadata(),
              testing::ElementsAre(testing::AllOf(named(BagWriterOptions::kRecordingMetadataName), info)));
  const std::string first = writer.save_file("1");
  writer.append_message(2, 2, "/t", "second", "T");
  for (const std::string& part : {first, writer.close()}) {  // and each channel's times, at the end
    EXPECT_THAT(BagReader(part).metadata(), testing::ElementsAre(info, named("kelo_channel_times"))) << part;
  }
}

}  // namespace
}  // namespace kelo
