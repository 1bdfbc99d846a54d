#include "platform/bag/bag_cache_writer.h"

#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>

#include "platform/bag/bag_reader.h"
#include "platform/trigger/trigger_notice.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using namespace testing_support;  // NOLINT

constexpr long kTrigger = 1709647629000;                             // 2024-03-05, ms since the epoch
constexpr long kCost = 100 + BagCacheWriter::kMessageOverheadBytes;  // of a 100-byte payload

std::string Notice(long time_ms, const std::string& label) { return TriggerNotice{time_ms, label}.ToText(); }

// The file a trigger is saved in, its time as local time the way file naming reads it.
std::string Saved(const TempDir& dir, const std::string& base, long time_ms, const std::string& rest) {
  const time_t seconds = time_ms / 1000;
  struct tm local;
  tzset();
  localtime_r(&seconds, &local);
  char text[40];
  strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local);
  return dir.file(base + "_" + text + rest + ".kelobag");
}

std::vector<long> Times(const std::string& file) {
  std::vector<long> times;
  for (const BagMessage& m : ReadAll(file)) times.push_back(m.time);
  return times;
}

TEST(BagCacheWriterTest, SavesTheWindowWithEveryFieldAndEveryTopicUnderANameOfItsOwn) {
  TempDir dir;
  BagCacheWriter writer(fileio::FilePath(dir.file("d.kelobag.active")), 2, 3, 1 << 20);
  writer.append_topic("/quiet", "kelo.Quiet");
  writer.append_message(kTrigger - 2001, kTrigger, "/gps", "early", "kelo.Gps");
  for (long i = 0; i < 50; ++i) {  // two a millisecond: they keep the order they came in
    writer.append_message(kTrigger + i / 2 * 20, kTrigger + 2, "/imu", std::to_string(i), "kelo.Imu");
  }
  EXPECT_EQ(writer.save_file(Notice(kTrigger, "same")), Saved(dir, "d", kTrigger, "_same"));
  EXPECT_EQ(writer.save_file(Notice(kTrigger, "same")), Saved(dir, "d", kTrigger, "_same-1"));
  std::string a;  // two saves at once: two distinct files, each whole
  std::thread other([&] { a = writer.save_file(Notice(kTrigger, "racing")); });
  const std::string b = writer.save_file(Notice(kTrigger, "racing"));
  other.join();
  EXPECT_NE(a, b);
  ASSERT_EQ(dir.List().size(), 4u);
  for (const std::string& name : dir.List()) {
    const std::vector<BagMessage> saved = ReadAll(dir.file(name));
    ASSERT_EQ(saved.size(), 50u) << name;
    EXPECT_EQ(saved[1].topic + saved[1].type + std::to_string(saved[1].record_time - kTrigger), "/imukelo.Imu2");
    for (size_t i = 0; i < saved.size(); ++i) EXPECT_EQ(std::to_string(i), saved[i].data) << name;
    std::set<std::string> topics;  // every topic declared so far, with or without messages
    for (const auto& t : BagReader(dir.file(name)).topics()) topics.insert(t->name + " " + t->type);
    EXPECT_EQ(topics, (std::set<std::string>{"/gps kelo.Gps", "/imu kelo.Imu", "/quiet kelo.Quiet"}));
  }
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
      std::copy_if(times.begin(), times.end(), std::back_inserter(expected),
                   [&](long t) { return t >= begin && t <= end; });
      std::sort(expected.begin(), expected.end());
      const std::string file = writer.save_file(Notice(trigger, "w"));
      EXPECT_EQ(file.empty() ? std::vector<long>{} : Times(file), expected) << reserve << " " << duration
                                                                             << " trigger " << trigger;
      EXPECT_EQ(file.empty(), expected.empty());
    }
  }
}

TEST(BagCacheWriterTest, KeepsTheNewestMessagesThatFitAndCountsWhatAWindowMisses) {
  for (long fit = 0; fit <= 9; ++fit) {
    TempDir dir;
    // Room for `fit` messages, and a little more that holds no whole message.
    BagCacheWriter writer(fileio::FilePath(dir.file("c.kelobag.active")), 10, 20, fit * kCost + kCost / 2);
    for (long i = 0; i < 8; ++i) writer.append_message(kTrigger + i, kTrigger, "/a", std::string(100, 'a'), "T");
    // Too large for the whole cache: not kept, displaces nothing, counted when a window wants it.
    writer.append_message(kTrigger + 8, kTrigger, "/a", std::string(fit * kCost + kCost, 'z'), "T");
    const std::string file = writer.save_file(Notice(kTrigger, ""));
    const long kept = std::min(fit, 8L);
    const BagLosses lost = writer.losses()->Total();
    EXPECT_EQ(static_cast<uint64_t>(9 - kept), lost.total(BagLossReason::kWindowCut)) << "room for " << fit;
    EXPECT_EQ(lost.total(), lost.total(BagLossReason::kWindowCut));
    std::vector<long> expected;
    for (long i = 8 - kept; i < 8; ++i) expected.push_back(kTrigger + i);
    EXPECT_EQ(file.empty() ? std::vector<long>{} : Times(file), expected) << "room for " << fit;
    writer.save_file(Notice(kTrigger + 10 + 10000, "later"));  // after what was dropped: misses nothing
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
  for (const std::string& bad : {std::string("trigger x"), Notice(kTrigger, "outside")})
    EXPECT_EQ(writer.save_file(bad), "") << bad;
  EXPECT_EQ(writer.close(), "");
  EXPECT_TRUE(dir.List().empty());
  // The cache outlives close(): a notice still due afterwards saves its window.
  EXPECT_NE(writer.save_file(Notice(kTrigger + 5000, "after_close")), "");
}

TEST(BagCacheWriterTest, SavesWhileMessagesKeepArrivingOnAnotherThread) {
  TempDir dir;
  BagCacheWriter writer(fileio::FilePath(dir.file("live.kelobag.active")), 0, 1, 64 << 20);
  std::atomic<long> appended{0};
  std::thread appender([&] {
    for (long i = 0; i < 1400; appended = ++i) writer.append_message(kTrigger + i, kTrigger, "/a", std::to_string(i), "A");
  });
  std::vector<std::string> files;
  for (long i = 0; i < 400; i += 50) {
    while (appended <= i) std::this_thread::yield();  // the trigger time has arrived
    files.push_back(writer.save_file(Notice(kTrigger + i, "live")));
  }
  appender.join();
  // Each file holds an unbroken run from its trigger on: never half seen, lost or doubled.
  for (size_t f = 0; f < files.size(); ++f) {
    const std::vector<BagMessage> saved = ReadAll(files[f]);
    ASSERT_FALSE(saved.empty()) << files[f];
    EXPECT_LE(saved.size(), 1001u);
    for (size_t k = 0; k < saved.size(); ++k) {
      ASSERT_EQ(saved[k].time, kTrigger + static_cast<long>(f * 50 + k)) << files[f];
      EXPECT_EQ(saved[k].data, std::to_string(f * 50 + k));
    }
  }
}

}  // namespace
}  // namespace kelo
