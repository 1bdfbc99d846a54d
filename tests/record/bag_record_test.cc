#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/fileio/file_extension.h"
#include "record/bag_record.h"
#include "record/bag_record_options.h"
#include "tests/support/bag_files.h"
#include "tests/support/report_log.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing_support::ReadAll;
using testing_support::ReportLog;
using testing_support::TempDir;

const char kDropLine[] = "AppendMessage buffer exceeded and dropping oldest queued message. count = ";

// Every message of every completed bag in `dir`, bags in name order; fails on a bag that
// was left unfinished.
std::vector<BagMessage> ReadDirectory(const TempDir& dir) {
  std::vector<BagMessage> all;
  for (const std::string& name : dir.List()) {
    EXPECT_TRUE(common::util::CheckFileExtension(name, ".kelobag")) << name << " was left unfinished";
    for (BagMessage& message : ReadAll(dir.file(name))) all.push_back(std::move(message));
  }
  return all;
}

int ThreadsNamed(const std::string& name) {
  int count = 0;
  DIR* tasks = opendir("/proc/self/task");
  while (dirent* entry = readdir(tasks)) {
    std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
    std::string line;
    if (std::getline(comm, line) && line == name) ++count;
  }
  closedir(tasks);
  return count;
}

// Waits until the recorder no longer takes messages: an empty payload is reported only
// while it runs.
void WaitUntilStopped(BagRecord* record, ReportLog* log) {
  const std::string line = "error message data. topic name: /probe\n";
  for (;;) {
    size_t before = log->Count(line);
    record->AppendMessage(0, "/probe", "probe", "");
    if (log->Count(line) == before) return;
    usleep(1000);
  }
}

TEST(BagRecordTest, ReportsItsFileAndLifecycleInOrder) {
  TempDir dir;
  ReportLog log;
  testing::internal::CaptureStdout();
  {
    BagRecord record("node", dir.path() + "/", 0);
    record.output()->set_output_string_func(log.sink());
    record.Start();
    record.Stop();
  }
  std::string console = testing::internal::GetCapturedStdout();
  std::regex expected("save to file: " + dir.path() +
                      "/bag_[0-9]{14}\\.kelobag\\.active\nsave thread running\nsave thread exit\nrecord exit\n");
  EXPECT_TRUE(std::regex_match(console, expected)) << console;
  EXPECT_THAT(log.texts(), ElementsAre("save thread running", "save thread exit", "record exit"));
}

TEST(BagRecordTest, NeverStartedRecorderTakesNothingAndOnlySaysGoodbye) {
  TempDir dir;
  ReportLog log;
  {
    testing::internal::CaptureStdout();
    BagRecord record("node", dir.file("rec"), 0);
    record.output()->set_output_string_func(log.sink());
    record.Stop();
    record.AppendMessage(1, "/t", "T", "ignored");
    record.AppendMessage(1, "/t", "T", "");
    testing::internal::GetCapturedStdout();
  }
  EXPECT_THAT(log.texts(), ElementsAre("record exit"));
  EXPECT_TRUE(ReadDirectory(dir).empty());
}

TEST(BagRecordTest, SavesMessagesOfManyThreadsIntoSplitPartsWithoutLossOrDuplicates) {
  TempDir dir;
  ReportLog log;
  constexpr int kThreads = 4, kPerThread = 200;
  {
    BagRecord record("node", dir.file("rec"), 1);
    record.output()->set_output_string_func(log.sink());
    record.Start();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&record, t] {
        for (int i = 0; i < kPerThread; ++i) {
          // Message times walk through several split periods.
          record.AppendMessage(1000 + i * 20, "/thread" + std::to_string(t), "demo.Count",
                               std::to_string(t) + ":" + std::to_string(i));
          if (i % 50 == 0) usleep(2000);
        }
      });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(record.Drain(60000));
    record.Stop();
  }
  std::vector<BagMessage> all = ReadDirectory(dir);
  std::map<int, std::vector<int>> per_thread;
  for (const BagMessage& message : all) {
    int t = -1, i = -1;
    ASSERT_EQ(sscanf(message.data.c_str(), "%d:%d", &t, &i), 2);
    EXPECT_EQ(message.topic, "/thread" + std::to_string(t));
    EXPECT_EQ(message.type, "demo.Count");
    EXPECT_EQ(message.time, 1000 + i * 20);
    EXPECT_GT(message.record_time, 1600000000000L) << "record time is wall-clock milliseconds";
    per_thread[t].push_back(i);
  }
  ASSERT_EQ(per_thread.size(), static_cast<size_t>(kThreads));
  for (auto& [t, sequence] : per_thread) {
    ASSERT_EQ(sequence.size(), static_cast<size_t>(kPerThread)) << "thread " << t;
    for (int i = 0; i < kPerThread; ++i) EXPECT_EQ(sequence[i], i) << "thread " << t;
  }
  // Every part but the last was announced, by its completed name.
  std::vector<std::string> names = dir.List();
  ASSERT_GE(names.size(), 2u);
  EXPECT_EQ(log.CountPrefix("split bag: "), names.size() - 1);
  for (const std::string& text : log.texts()) {
    if (text.rfind("split bag: ", 0) != 0) continue;
    std::string file = text.substr(11, text.size() - 12);
    EXPECT_EQ(access(file.c_str(), F_OK), 0) << text;
    EXPECT_EQ(text.back(), '\n');
  }
  EXPECT_EQ(log.CountPrefix(kDropLine), 0u);
}

TEST(BagRecordTest, EmptyPayloadIsReportedAndNotWritten) {
  TempDir dir;
  ReportLog log;
  {
    BagRecord record("node", dir.file("rec"), 0);
    record.output()->set_output_string_func(log.sink());
    record.Start();
    record.AppendMessage(5, "/empty", "demo.Empty", "");
    record.AppendMessage(6, "/full", "demo.Full", "x");
    ASSERT_TRUE(record.Drain(60000));
    record.Stop();
  }
  EXPECT_EQ(log.Count("error message data. topic name: /empty\n"), 1u);
  std::vector<BagMessage> all = ReadDirectory(dir);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].topic, "/full");
}

TEST(BagRecordTest, FullQueueDropsTheOldestAndCountsFromOneAfterEachStart) {
  TempDir dir;
  ReportLog log;
  BagRecord record("node", dir.file("rec"), 0);
  record.output()->set_output_string_func(log.sink());

  log.HoldOn("save thread running");  // the save thread stalls before its first pass
  record.Start();
  log.WaitUntilHeld();
  for (int i = 1; i <= 1002; ++i) record.AppendMessage(i, "/t", "demo.T", std::to_string(i));
  EXPECT_THAT(log.texts(), ElementsAre("save thread running", std::string(kDropLine) + "  1\n",
                                       std::string(kDropLine) + "  2\n"));
  log.Release();
  ASSERT_TRUE(record.Drain(60000));
  record.Stop();

  std::vector<BagMessage> all = ReadDirectory(dir);
  ASSERT_EQ(all.size(), 1000u);
  for (int i = 3; i <= 1002; ++i) EXPECT_EQ(all[i - 3].data, std::to_string(i));

  log.HoldOn("save thread running");
  record.Start();
  log.WaitUntilHeld();
  for (int i = 1; i <= 1001; ++i) record.AppendMessage(200000 + i, "/t", "demo.T", "again");
  EXPECT_EQ(log.Count(std::string(kDropLine) + "  1\n"), 2u) << "the count starts again after Start";
  EXPECT_EQ(log.CountPrefix(kDropLine), 3u);
  log.Release();
  record.Stop();
}

TEST(BagRecordTest, StopDuringABatchFinishesTheMessageInProgressOnly) {
  TempDir dir;
  ReportLog log;
  BagRecord record("node", dir.file("rec"), 1);
  record.output()->set_output_string_func(log.sink());
  log.HoldOn("save thread running");
  record.Start();
  log.WaitUntilHeld();
  // Each message splits from the one before, so the save thread reports while writing.
  for (long t : {1000, 3000, 5000, 7000, 9000}) record.AppendMessage(t, "/t", "demo.T", std::to_string(t));
  log.HoldOn("split bag: ");
  log.Release();
  log.WaitUntilHeld();  // the save thread is completing part 0 on behalf of the message at 3000

  std::thread stopper([&] { record.Stop(); });
  WaitUntilStopped(&record, &log);
  log.Release();
  stopper.join();

  EXPECT_EQ(log.CountPrefix("split bag: "), 1u);
  EXPECT_EQ(log.texts().back(), "save thread exit");
  std::vector<BagMessage> all = ReadDirectory(dir);
  std::vector<long> times;
  for (const BagMessage& message : all) times.push_back(message.time);
  EXPECT_THAT(times, ElementsAre(1000, 3000)) << "the message in progress is finished, the rest dropped";
}

TEST(BagRecordTest, StartAfterStopKeepsRecordingWithoutOverwriting) {
  TempDir dir;
  ReportLog log;
  std::multiset<std::string> sent;
  {
    BagRecord record("node", dir.file("rec"), 0);
    record.output()->set_output_string_func(log.sink());
    for (long session = 1; session <= 3; ++session) {
      record.Start();
      for (long i = 0; i < 10; ++i) {
        std::string payload = std::to_string(session) + "/" + std::to_string(i);
        record.AppendMessage(session * 1000000 + i, "/t", "demo.T", payload);
        sent.insert(payload);
      }
      ASSERT_TRUE(record.Drain(60000));
      record.Stop();
    }
  }
  EXPECT_EQ(dir.List().size(), 3u) << "each session completes a file of its own";
  std::multiset<std::string> payloads;
  for (const BagMessage& message : ReadDirectory(dir)) payloads.insert(message.data);
  EXPECT_EQ(payloads, sent) << "nothing lost, nothing written twice";
}

TEST(BagRecordTest, DrainWaitsUntilTheBatchInProgressIsWritten) {
  TempDir dir;
  ReportLog log;
  BagRecord record("node", dir.file("rec"), 1);
  record.output()->set_output_string_func(log.sink());
  log.HoldOn("split bag: ");
  record.Start();
  for (long t : {1000, 3000, 5000}) record.AppendMessage(t, "/t", "demo.T", "x");
  log.WaitUntilHeld();  // the save thread is completing part 0 in the middle of its work
  EXPECT_FALSE(record.Drain(200)) << "messages are still being written";
  log.Release();
  EXPECT_TRUE(record.Drain(60000));
  record.Stop();
  EXPECT_EQ(ReadDirectory(dir).size(), 3u);
}

TEST(BagRecordTest, StartingTwiceRunsOneNamedSaveThread) {
  TempDir dir;
  ReportLog log;
  testing::internal::CaptureStdout();
  BagRecord record("node", dir.file("rec"), 0);
  record.output()->set_output_string_func(log.sink());
  EXPECT_EQ(ThreadsNamed("bag_rec_save"), 0);
  record.Start();
  record.Start();
  while (log.Count("save thread running") == 0) usleep(1000);  // named before it says so
  EXPECT_EQ(ThreadsNamed("bag_rec_save"), 1);
  record.Stop();
  EXPECT_EQ(ThreadsNamed("bag_rec_save"), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(log.Count("save thread running"), 1u);
}

// The sanitizer builds run this to catch races between intake, the save thread, start/stop
// cycles, a sink installed by the tool, and destruction.
TEST(BagRecordTest, ConcurrentIntakeAcrossStartStopCyclesAndDestruction) {
  TempDir dir;
  std::atomic<long> sink_calls{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  {
    testing::internal::CaptureStdout();
    BagRecord record("node", dir.file("rec"), 1);
    record.output()->set_output_string_func([&](const std::string&) { ++sink_calls; });
    record.Start();
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (long i = 0; !done; ++i) {
          // Old topics, and every so often a new one.
          std::string topic = (i % 64 == 0) ? "/new/" + std::to_string(t) + "/" + std::to_string(i)
                                            : "/old/" + std::to_string(i % 5);
          record.AppendMessage(i * 3, topic, "demo.T" + std::to_string(i % 2), i % 97 == 0 ? "" : "payload");
          if (i % 200 == 0) usleep(100);
        }
      });
    }
    for (int cycle = 0; cycle < 10; ++cycle) {
      usleep(20000);
      record.Stop();
      usleep(5000);
      record.Start();
    }
    record.output()->set_output_string_func([&](const std::string&) { ++sink_calls; });
    usleep(20000);
    done = true;
    for (auto& thread : threads) thread.join();
    testing::internal::GetCapturedStdout();
  }
  EXPECT_GT(sink_calls.load(), 0);
  for (const std::string& name : dir.List()) {
    BagReader reader(dir.file(name));
    EXPECT_EQ(reader.get_error(), "") << name;
  }
}

}  // namespace
}  // namespace kelo
