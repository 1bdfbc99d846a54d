#include "platform/bag/bag_cache_writer.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bag/bag_reader.h"
#include "platform/trigger/trigger_notice.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing_support::ReadAll;
using testing_support::TempDir;

constexpr long kTrigger = 1709647629000;                             // 2024-03-05, ms since the epoch
constexpr long kCost = 100 + BagCacheWriter::kMessageOverheadBytes;  // of a 100-byte payload

std::string Notice(long time_ms, const std::string& label) { return TriggerNotice{time_ms, label}.ToText(); }

// The local time text of a trigger, read the way file naming reads it.
std::string LocalTime(long time_ms) {
  const time_t seconds = time_ms / 1000;
  struct tm local;
  tzset();
  localtime_r(&seconds, &local);
  char text[40];
  strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local);
  return text;
}

std::vector<long> Times(const std::string& file) {
  std::vector<long> times;
  for (const BagMessage& m : ReadAll(file)) times.push_back(m.time);
  return times;
}

TEST(BagCacheWriterTest, SavesTheMessagesOfTheWindowWithEveryField) {
  TempDir dir;
  BagCacheWriter writer(fileio::FilePath(dir.file("drive1.kelobag.active")), 2, 3, 1 << 20);
  writer.append_topic("/quiet", "kelo.Quiet");
  writer.append_message(kTrigger - 2001, kTrigger, "/gps", "early", "kelo.Gps");
  writer.append_message(kTrigger - 5, kTrigger + 2, "/imu", "in", "kelo.Imu");
  const std::string file = writer.save_file(Notice(kTrigger, "brake_event"));
  EXPECT_EQ(file, dir.file("drive1_" + LocalTime(kTrigger) + "_brake_event.kelobag"));
  const std::vector<BagMessage> saved = ReadAll(file);
  ASSERT_EQ(saved.size(), 1u);
  EXPECT_EQ(saved[0].topic + saved[0].type + saved[0].data, "/imukelo.Imuin");
  EXPECT_EQ(saved[0].record_time, kTrigger + 2);
  // Every topic declared so far is in the file, with or without messages.
  std::set<std::string> topics;
  for (const auto& t : BagReader(file).topics()) topics.insert(t->name + " " + t->type);
  EXPECT_EQ(topics, (std::set<std::string>{"/gps kelo.Gps", "/imu kelo.Imu", "/quiet kelo.Quiet"}));
  EXPECT_EQ(dir.List().size(), 1u);  // only the completed file
}

TEST(BagCacheWriterTest, TheWindowRuleHoldsForEveryReserveDurationAndTriggerTime) {
  TempDir dir;
  // Messages every 250 ms over 20 s, appended out of time order in places.
  std::vector<long> times;
  for (long t = 0; t <= 20000; t += 250) times.push_back(kTrigger - 10000 + t);
  std::swap(times[3], times[40]);
  for (const auto& [reserve, duration] :
       std::vector<std::pair<long, long>>{{2, 5}, {0, 1}, {-1, 2}, {3, 0}, {5, 65}, {60, 65}, {1, -1}}) {
    BagCacheWriter writer(fileio::FilePath(dir.file("w.kelobag.active")), reserve, duration, 1 << 20);
    for (long t : times) writer.append_message(t, t, "/a", std::to_string(t), "T");
    for (long trigger = kTrigger - 12000; trigger <= kTrigger + 12000; trigger += 1375) {
      const long begin = trigger - reserve * 1000, end = begin + duration * 1000;  // both included
      std::vector<long> expected;
      for (long t : times) {
        if (t >= begin && t <= end) expected.push_back(t);
      }
      std::sort(expected.begin(), expected.end());
      const std::string file = writer.save_file(Notice(trigger, "w"));
      EXPECT_EQ(expected.empty() ? std::vector<long>{} : Times(file), expected)
          << "reserve " << reserve << " duration " << duration << " trigger " << trigger;
      if (expected.empty()) {
        EXPECT_EQ(file, "");
      }
    }
  }
}

TEST(BagCacheWriterTest, KeepsTheNewestMessagesThatFitAndCountsWhatAWindowMisses) {
  for (long fit = 0; fit <= 9; ++fit) {
    TempDir dir;
    // Room for `fit` messages, and a little more that holds no whole message.
    BagCacheWriter writer(fileio::FilePath(dir.file("c.kelobag.active")), 10, 20, fit * kCost + kCost / 2);
    for (long i = 0; i < 8; ++i) {
      writer.append_message(kTrigger + i, kTrigger, i % 2 ? "/a" : "/b", std::string(100, 'a' + i), "T");
    }
    // Too large for the whole cache: not kept, displaces nothing, counted when a window wants it.
    writer.append_message(kTrigger + 8, kTrigger, "/a", std::string(fit * kCost + kCost, 'z'), "T");
    const std::string file = writer.save_file(Notice(kTrigger, ""));
    const long kept = std::min(fit, 8L);
    const BagLosses lost = writer.losses()->Total();
    EXPECT_EQ(static_cast<uint64_t>(9 - kept), lost.total(BagLossReason::kWindowCut)) << "room for " << fit;
    EXPECT_EQ(lost.total(), lost.total(BagLossReason::kWindowCut));
    std::vector<long> expected;
    for (long i = 8 - kept; i < 8; ++i) expected.push_back(kTrigger + i);
    EXPECT_EQ(kept ? Times(file) : std::vector<long>{}, expected) << "room for " << fit;
    EXPECT_EQ(dir.List().size(), kept ? 1u : 0u);
    // A window that lies after what was dropped misses nothing.
    writer.save_file(Notice(kTrigger + 10 + 10000, "later"));
    EXPECT_EQ(lost.total(), writer.losses()->Total().total());
  }
}

TEST(BagCacheWriterTest, WritesNoFileWithoutAMessageInTheWindowOrAValidNotice) {
  TempDir dir;
  BagCacheWriter writer(fileio::FilePath(dir.file("n.kelobag.active")), 1, 1, 1 << 20);
  EXPECT_TRUE(writer.open("0"));
  EXPECT_EQ(writer.save_file(Notice(kTrigger, "empty")), "") << "nothing cached at all";
  writer.append_message(kTrigger + 5000, kTrigger, "/a", "late", "T");
  writer.append_message(-1, kTrigger, "/a", "cannot be stored", "T");
  EXPECT_EQ(writer.save_file(Notice(kTrigger, "outside")), "") << "nothing in the window";
  for (const char* bad : {"", "1", "1709647633", "trigger", "trigger x", "trigger 1709647633000  a",
                          "trigger 1709647633000 a/b", "1 2"}) {
    EXPECT_EQ(writer.save_file(bad), "") << bad;
  }
  EXPECT_EQ(writer.close(), "");
  EXPECT_TRUE(dir.List().empty());
  // The cache outlives close(): a notice still due afterwards saves its window.
  EXPECT_NE(writer.save_file(Notice(kTrigger + 5000, "after_close")), "");
}

TEST(BagCacheWriterTest, SavesOfOneTriggerGiveDistinctCompleteFilesEvenFromTwoThreads) {
  TempDir dir;
  BagCacheWriter writer(fileio::FilePath(dir.file("d.kelobag.active")), 1, 2, 1 << 20);
  for (long i = 0; i < 50; ++i) writer.append_message(kTrigger - 1000 + i * 40, kTrigger, "/a", "m", "T");
  const std::string stem = dir.file("d_" + LocalTime(kTrigger) + "_same");
  EXPECT_EQ(writer.save_file(Notice(kTrigger, "same")), stem + ".kelobag");
  EXPECT_EQ(writer.save_file(Notice(kTrigger, "same")), stem + "-1.kelobag");
  std::string a;
  std::thread other([&] { a = writer.save_file(Notice(kTrigger, "racing")); });
  const std::string b = writer.save_file(Notice(kTrigger, "racing"));
  other.join();
  EXPECT_NE(a, b);
  for (const std::string& name : dir.List()) EXPECT_EQ(ReadAll(dir.file(name)).size(), 50u) << name;
  EXPECT_EQ(dir.List().size(), 4u);
}

TEST(BagCacheWriterTest, SavesWhileMessagesKeepArrivingOnAnotherThread) {
  TempDir dir;
  BagCacheWriter writer(fileio::FilePath(dir.file("live.kelobag.active")), 0, 1, 64 << 20);
  std::atomic<long> appended{0};
  std::atomic<bool> stop{false};
  std::thread appender([&] {
    for (long i = 0; !stop; ++i) {
      writer.append_message(kTrigger + i, kTrigger + i, i % 3 ? "/a" : "/b", std::to_string(i), "A");
      appended = i + 1;
    }
  });
  std::vector<std::string> files;
  for (long i = 0; i < 400; i += 50) {
    while (appended < i + 1) std::this_thread::yield();  // the trigger time has arrived
    files.push_back(writer.save_file(Notice(kTrigger + i, "live")));
  }
  stop = true;
  appender.join();
  // Each file holds an unbroken run from its trigger on, inside its window: appended
  // messages are never half seen, lost or doubled.
  for (size_t f = 0; f < files.size(); ++f) {
    const std::vector<BagMessage> saved = ReadAll(files[f]);
    ASSERT_FALSE(saved.empty()) << files[f];
    EXPECT_LE(saved.back().time, kTrigger + static_cast<long>(f) * 50 + 1000);
    for (size_t k = 0; k < saved.size(); ++k) {
      const long i = static_cast<long>(f * 50 + k);
      ASSERT_EQ(saved[k].time, kTrigger + i) << files[f];
      EXPECT_EQ(saved[k].data + saved[k].topic, std::to_string(i) + (i % 3 ? "/a" : "/b"));
    }
  }
}

TEST(BagCacheWriterTest, TakesForItsOwnOnlyTheNamesItGivesItsFiles) {
  BagCacheWriter writer(fileio::FilePath("/rec/drive1.kelobag.active"), 1, 1, 1 << 20);
  const std::pair<const char*, bool> names[] = {
      {"drive1_20240305140709.kelobag", true},      {"drive1_20240305140709_brake-1.x.kelobag", true},
      {"drive1_20240305140709-3.kelobag", true},    {"drive1_20240305140709_lbl-12.kelobag", true},
      {"drive1_2024030514070.kelobag", false},      {"drive1_20240305140709.kelobag.active", false},
      {"drive1_2024030514070x.kelobag", false},     {"drive2_20240305140709.kelobag", false},
      {"drive1_20240305140709_a b.kelobag", false}, {"drive1_20240305140709-x.kelobag", false},
      {"drive1_20240305140709_.kelobag", false},    {"xdrive1_20240305140709.kelobag", false},
      {"bag_20240305140709_0.kelobag", false},      {"drive1_20240305140709.mcap", false},
  };
  for (const auto& [name, ours] : names) EXPECT_EQ(ours, writer.IsSavedName(name)) << name;
}

}  // namespace
}  // namespace kelo
