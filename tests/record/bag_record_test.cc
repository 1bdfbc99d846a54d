#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/bag/bag_writer_options.h"
#include "platform/fileio/file_extension.h"
#include "record/bag_record.h"
#include "tests/support/bag_files.h"
#include "tests/support/report_log.h"
#include "tests/support/subprocess.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::Noise;
using testing_support::ReadAll;
using testing_support::ReportLog;
using testing_support::TempDir;
using testing_support::WaitFor;

const char kDropLine[] = "AppendMessage buffer exceeded and dropping oldest queued message. count = ";

// Every message of the bags in `dir`, in name order; fails on a bag left unfinished or damaged.
std::vector<BagMessage> ReadDirectory(const TempDir& dir) {
  std::vector<BagMessage> all;
  for (const std::string& name : dir.List()) {
    EXPECT_TRUE(common::util::CheckFileExtension(name, ".kelobag")) << name << " was left unfinished";
    for (BagMessage& message : ReadAll(dir.file(name))) all.push_back(std::move(message));
  }
  return all;
}

int SaveThreads() {
  int count = 0;
  for (const std::string& task : testing_support::ListDir("/proc/self/task"))
    count += testing_support::ReadFile("/proc/self/task/" + task + "/comm") == "bag_rec_save\n";
  return count;
}

TEST(BagRecordTest, ReportsItsFileAndLifecycleInOrderWithOneNamedSaveThread) {
  TempDir dir;
  testing::internal::CaptureStdout();
  {
    BagRecord never("node", dir.path() + "/", 0);  // never started: takes nothing, says goodbye
    never.Stop();
    never.AppendMessage(1, "/t", "T", "ignored");
  }
  {
    BagRecord record("node", dir.path() + "/", 0);
    EXPECT_EQ(SaveThreads(), 0);
    record.Start();
    record.Start();
    EXPECT_EQ(SaveThreads(), 1);
    record.Stop();
    EXPECT_TRUE(WaitFor([] { return SaveThreads() == 0; }, 5000));  // a joined thread leaves /proc soon after
  }
  const std::string console = testing::internal::GetCapturedStdout();
  const std::string saved = "save to file: " + dir.path() + "/bag_[0-9]{14}\\.kelobag\\.active\n";
  EXPECT_TRUE(std::regex_match(console, std::regex(saved + "record exit\n" + saved +
                                                   "save thread running\nsave thread exit\nrecord exit\n")))
      << console;
  // Nothing recorded, no file.
  EXPECT_THAT(dir.List(), ElementsAre());
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
  std::shared_ptr<tools::interactive::BagRecordMonitor> stalled = record.GetRecordMonitor();
  EXPECT_EQ(std::to_string(stalled->queue_size()) + " " + std::to_string(stalled->drop_count()) + " " +
                std::to_string(stalled->lost_count()) + " " + std::to_string(stalled->topic_info(0).message_count()),
            "1000 2 2 1002") << "queue, drops, losses, and every message counted";
  log.Release();
  ASSERT_TRUE(record.Drain(60000));
  record.Stop();

  std::vector<BagMessage> all = ReadDirectory(dir);
  ASSERT_EQ(all.size(), 1000u);
  for (int i = 3; i <= 1002; ++i) EXPECT_EQ(all[i - 3].data, std::to_string(i));
  EXPECT_GT(all[0].record_time, 1600000000000L) << "record time is wall-clock milliseconds";
  EXPECT_EQ(2u, record.GetLosses().total(BagLossReason::kQueueFull));

  usleep(200000);
  log.HoldOn("save thread running");
  const auto restart = std::chrono::steady_clock::now();
  record.Start();
  log.WaitUntilHeld();
  std::shared_ptr<tools::interactive::BagRecordMonitor> restarted = record.GetRecordMonitor();
  const double since_restart = std::chrono::duration<double>(std::chrono::steady_clock::now() - restart).count();
  EXPECT_EQ(restarted->lost_count(), 2u) << "losses are for the whole recording";
  EXPECT_LE(restarted->record_time(), since_restart + 0.01) << "counted from the last Start()";
  for (int i = 1; i <= 1001; ++i) record.AppendMessage(200000 + i, "/t", "demo.T", "again");
  EXPECT_EQ(log.Count(std::string(kDropLine) + "  1\n"), 2u) << "the count starts again after Start";
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
  EXPECT_FALSE(record.Drain(200)) << "messages are still being written";
  std::thread stopper([&] { record.Stop(); });
  // Until the recorder no longer takes messages: an empty payload is reported only while it runs.
  const std::string probe = "error message data. topic name: /probe\n";
  ASSERT_TRUE(WaitFor([&] {
    const size_t before = log.Count(probe);
    record.AppendMessage(0, "/probe", "probe", "");
    return log.Count(probe) == before;
  }, 20000));
  log.Release();
  stopper.join();

  // The part completed is announced by its completed name.
  ASSERT_EQ(log.Count("split bag: "), 1u);
  EXPECT_EQ(log.texts()[1], "split bag: " + dir.file(dir.List()[0]) + "\n");
  std::vector<long> times;
  for (const BagMessage& message : ReadDirectory(dir)) times.push_back(message.time);
  EXPECT_THAT(times, ElementsAre(1000, 3000)) << "the message in progress is finished, the rest dropped";
  EXPECT_EQ(3u, record.GetLosses().total(BagLossReason::kShutdown)) << "and counted";
}

// Catches, under the sanitizers, races of intake with the save thread, start/stop, a new sink and destruction.
TEST(BagRecordTest, ConcurrentIntakeAcrossStartStopCyclesAndDestruction) {
  TempDir dir;
  std::atomic<long> sink_calls{0};
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  {
    BagRecord record("node", dir.file("rec"), 1);
    auto sink = [&](const std::string&) { ++sink_calls; };
    record.output()->set_output_string_func(sink);
    record.Start();
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (long i = 0; !done; ++i) {  // old topics, now and then a new one, some empty
          std::string topic = i % 64 ? "/old/" + std::to_string(i % 5) : "/new/" + std::to_string(t * 1000000 + i);
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
    record.output()->set_output_string_func(sink);
    usleep(20000);
    done = true;
    for (auto& thread : threads) thread.join();
  }
  EXPECT_GT(sink_calls.load(), 0);
  for (const std::string& name : dir.List()) EXPECT_EQ(BagReader(dir.file(name)).get_error(), "") << name;
}

// Catches intake of a new topic waiting for a disk that is behind (a writer made slow on purpose).
TEST(BagRecordTest, ANewTopicIsTakenWhileTheDiskIsBehind) {
  TempDir dir;
  const BagWriterOptions defaults = DefaultBagWriterOptions();
  BagWriterOptions slow = defaults;
  slow.compression = BagCompression::kNone;
  slow.chunk_size = 16 * 1024;
  slow.max_queued_bytes = 32 * 1024;
  slow.max_write_bytes_per_second = 100 * 1024;
  SetDefaultBagWriterOptions(slow);
  BagRecord record("node", dir.path() + "/", 0);
  SetDefaultBagWriterOptions(defaults);
  record.Start();
  constexpr int kMessages = 800;  // 800 KB: eight seconds of this disk
  for (int i = 0; i < kMessages; ++i) record.AppendMessage(i, "/a", "demo.A", Noise(1000, i));
  std::string file;
  ASSERT_TRUE(WaitFor([&] { return testing_support::Exists(file = record.GetRecordMonitor()->current_file()); }, 10000));
  record.AppendMessage(kMessages, "/brand/new", "demo.New", "b");
  // Taken while the disk is still far behind, not once it caught up.
  struct stat st;
  ASSERT_EQ(0, ::stat(file.c_str(), &st));
  EXPECT_LT(st.st_size, kMessages * 1000 / 2);
  EXPECT_EQ(1, record.GetRecordMonitor()->topic_info(1).message_count());
  record.Stop();
  record.DiscardQueued();
  EXPECT_EQ(size_t{kMessages} + 1, ReadDirectory(dir).size() + record.GetLosses().total());
}

// Catches a callback's Start() taking back a stop asked from outside, which then never ends.
TEST(BagRecordTest, AStartFromACallbackDoesNotUndoAStopFromOutside) {
  TempDir dir;
  ReportLog log;
  BagRecord record("node", dir.path() + "/", 1);
  std::atomic<bool> once{true};
  record.output()->set_output_string_func([&](const std::string& text) {
    log.sink()(text);
    if (text.rfind("split bag: ", 0) == 0 && once.exchange(false)) record.Start();
  });
  log.HoldOn("split bag: ");
  record.Start();
  for (long t = 0; t < 2; ++t) record.AppendMessage(1000 + t * 1500, "/t", "demo.T", "x");
  log.WaitUntilHeld();
  std::atomic<bool> stopped{false};
  std::thread stopper([&] { record.Stop(), stopped = true; });
  usleep(200000);  // the stop is under way, waiting for the save thread
  log.Release();
  ASSERT_TRUE(WaitFor([&] { return stopped.load(); }, 10000)) << "the stop never ends";  // (the joinable thread then ends the test)
  stopper.join();
}

TEST(BagRecordTest, LifecycleCallsFromCallbacksNeitherAbortNorDeadlock) {
  TempDir dir;
  ReportLog log;
  std::atomic<BagRecord*> target{nullptr};
  std::atomic<int> splits{0};
  std::atomic<bool> restarted{false};
  BagRecord record("node", dir.path() + "/", 1);
  // On the save thread: the first split stops and takes it back, the second stops, its goodbye starts again.
  record.output()->set_output_string_func([&](const std::string& text) {
    log.sink()(text);
    BagRecord* r = target.load();
    if (r == nullptr) return;
    if (text.rfind("split bag: ", 0) == 0) {
      r->Stop();
      if (++splits == 1) r->Start();
    } else if (text == "save thread exit" && splits == 2 && !restarted.exchange(true)) {
      r->Start();
    }
  });
  target = &record;
  record.Start();
  for (long t = 0; t < 3; ++t) record.AppendMessage(1000 + t * 1500, "/t", "demo.T", std::to_string(t));
  // The round the goodbye began takes messages once it says that it runs.
  ASSERT_TRUE(WaitFor([&] { return log.Count("save thread running") == 2; }, 60000));
  record.AppendMessage(9000, "/t", "demo.T", "after the second round began");
  ASSERT_TRUE(record.Drain(60000));
  target = nullptr;
  record.Stop();
  EXPECT_EQ(4u, ReadDirectory(dir).size());

  // On a thread that appends: the line about a drop stops the recorder before the save thread took the queue.
  log.HoldOn("save thread running");
  record.output()->set_output_string_func([&](const std::string& text) {
    log.sink()(text);
    if (text.rfind(kDropLine, 0) == 0) record.Stop();
  });
  record.Start();
  log.WaitUntilHeld();
  std::thread appender([&] {
    for (int i = 0; i < 1010; ++i) record.AppendMessage(30000 + i, "/t", "demo.T", "x");
  });
  while (log.Count(kDropLine) == 0) usleep(1000);
  log.Release();
  appender.join();
  EXPECT_EQ(1u, log.Count(kDropLine)) << "stopped at the first drop";
  // Every round of the save thread, the one a callback began again included, says that it runs and that it ends.
  EXPECT_EQ(std::make_pair(log.Count("save thread running"), log.Count("save thread exit")), std::make_pair(size_t{3}, size_t{3}));
}

}  // namespace
}  // namespace kelo
