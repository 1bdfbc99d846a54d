#include "play/bag_play.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "output/tools_module_output.h"
#include "platform/bag/bag_reader.h"
#include "tests/play/play_test_bags.h"
#include "tests/play/playback_log.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::At;
using testing_support::PlaybackLog;
using testing_support::TempDir;
using testing_support::WallMs;
using testing_support::WriteBag;

// Steps until the player stops (at most `limit` steps); returns the codes.
std::vector<int> StepToStop(PlaybackLog* log, BagPlay* play, int limit = 1000) {
  std::vector<int> codes;
  while (static_cast<int>(codes.size()) < limit) {
    codes.push_back(log->Step(play));
    if (codes.back() == BagPlay::kStopped) break;
  }
  return codes;
}

TEST(BagPlayTest, DeliversEqualTimesInOneStepTheBagOpenedFirstFirst) {
  TempDir dir;
  const std::string a =
      WriteBag(dir, "a", {{1000, "/a", "a0", "A"}, {1002, "/a", "a2", "A"}, {1004, "/a", "a4", "A"}});
  const std::string b =
      WriteBag(dir, "b", {{1000, "/b", "b0", "B"}, {1003, "/b", "b3", "B"}, {1004, "/b", "b4", "B"}});
  BagPlay play(std::list<std::string>{a, b});
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_THAT(StepToStop(&log, &play), ElementsAre(0, 0, 0, 0, 1));

  std::vector<std::string> delivered;
  for (const PlaybackLog::Delivery& d : log.deliveries()) {
    delivered.push_back(std::to_string(d.step) + ":" + std::to_string(d.time) + " " + d.topic + " " + d.type +
                        " " + d.data);
  }
  EXPECT_THAT(delivered, ElementsAre("1:1000 /a A a0", "1:1000 /b B b0", "2:1002 /a A a2", "3:1003 /b B b3",
                                     "4:1004 /a A a4", "4:1004 /b B b4"));
}

TEST(BagPlayTest, PortsReceiveExactlyThePayloadBytes) {
  TempDir dir;
  const std::string binary("\0\x01\xff\r\n\0tail", 10);
  const std::string bag = WriteBag(dir, "bag",
                                   {{1000, "/raw", binary},
                                    {1000, "/other", "not for the port"},
                                    {1001, "/raw", std::string(70000, '\x7f')},
                                    {1002, "/raw", "after clear"}});
  BagPlay play(bag);
  OriginalPlayData raw;
  OriginalPlayData unused;
  play.AddPort("/raw", new PlayPort<OriginalPlayData>(&unused));
  play.AddPort("/raw", new PlayPort<OriginalPlayData>(&raw));  // replaces (and deletes) the first
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));

  ASSERT_EQ(log.Step(&play), 0);
  EXPECT_EQ(raw.data, binary);
  EXPECT_EQ(raw.data.size(), 10u);
  ASSERT_EQ(log.Step(&play), 0);
  EXPECT_EQ(raw.data, std::string(70000, '\x7f'));
  EXPECT_EQ(unused.data, "") << "a replaced port receives nothing";

  play.ClearPorts();
  ASSERT_EQ(log.Step(&play), 0);
  EXPECT_EQ(raw.data, std::string(70000, '\x7f')) << "no port after ClearPorts";
  EXPECT_EQ(log.data().back(), "after clear") << "the callback still gets the message";
}

// Counts its own destruction, so a test can see when the player deletes a port.
class CountingPort : public PlayPortIntf {
 public:
  CountingPort(int* destroyed, std::vector<std::string>* received)
      : destroyed_(destroyed), received_(received) {}
  ~CountingPort() override { ++*destroyed_; }
  void Deserialize(const std::string& data) override { received_->push_back(data); }

 private:
  int* destroyed_;
  std::vector<std::string>* received_;
};

TEST(BagPlayTest, OwnsItsPortsButNotTheirRecords) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001}));
  int destroyed = 0;
  std::vector<std::string> received;
  OriginalPlayData raw;  // on the stack: deleting it would be caught by the sanitizer
  {
    BagPlay play(bag);
    play.AddPort("/t", new CountingPort(&destroyed, &received));
    play.AddPort("/t", new CountingPort(&destroyed, &received));
    EXPECT_EQ(destroyed, 1) << "the replaced port";
    play.AddPort("/t", nullptr);
    EXPECT_EQ(destroyed, 2) << "a null port removes the topic's port";
    play.AddPort("/t", new CountingPort(&destroyed, &received));
    play.AddPort("/u", new PlayPort<OriginalPlayData>(&raw));
    PlaybackLog log;
    log.Attach(&play);
    play.ControlPlay(0, 0);
    StepToStop(&log, &play);
    EXPECT_THAT(received, ElementsAre("/t@1000", "/t@1001"));
  }
  EXPECT_EQ(destroyed, 3) << "the destructor deletes every port";
  raw.data = "still mine";
}

TEST(BagPlayTest, UnreadableBagPrintsItsErrorOnceAndTheOthersPlay) {
  TempDir dir;
  const std::string missing = dir.file("missing.kelobag");
  const std::string garbage = dir.file("garbage.kelobag");
  std::ofstream(garbage) << "this is not a bag at all";
  const std::string good = WriteBag(dir, "good", At("/t", {1000, 1001}));
  const std::string missing_error = BagReader(missing).get_error();
  const std::string garbage_error = BagReader(garbage).get_error();
  ASSERT_NE(missing_error, "");
  ASSERT_NE(garbage_error, "");

  BagPlay play;
  std::vector<std::string> sink;
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });
  testing::internal::CaptureStdout();
  play.ReadBags({missing, good, garbage});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), missing_error + "\n" + garbage_error + "\n");
  EXPECT_THAT(sink, ElementsAre(missing_error, garbage_error));

  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  StepToStop(&log, &play);
  EXPECT_THAT(log.data(), ElementsAre("/t@1000", "/t@1001"));
  EXPECT_EQ(std::count(sink.begin(), sink.end(), missing_error), 1) << "printed once, not per step";
}

TEST(BagPlayTest, EveryBatchWaitsUntilItIsDue) {
  TempDir dir;
  // Gaps of 0 to 40 ms, with a tie.
  const std::vector<long> times = {5000, 5001, 5010, 5010, 5030, 5031, 5070, 5071};
  const std::string bag = WriteBag(dir, "bag", At("/t", times));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  const int64_t before_play = WallMs();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  StepToStop(&log, &play);
  const std::vector<PlaybackLog::Delivery> deliveries = log.deliveries();
  ASSERT_EQ(deliveries.size(), times.size());
  for (const PlaybackLog::Delivery& d : deliveries) {
    EXPECT_GE(d.wall_ms, before_play + (d.time - 5000)) << "message at " << d.time << " came early";
  }
}

TEST(BagPlayTest, APauseDelaysEveryLaterMessageByItsLength) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1020, 1040, 1060}));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  const int64_t before_play = WallMs();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_EQ(log.Step(&play), 0);
  ASSERT_EQ(log.Step(&play), 0);

  ASSERT_TRUE(play.ControlPause(true));
  const int64_t paused_at_most = WallMs();
  EXPECT_EQ(log.Step(&play), 3);
  usleep(120 * 1000);
  EXPECT_EQ(log.Step(&play), 3);
  const int64_t resumed_at_least = WallMs();
  ASSERT_TRUE(play.ControlPause(false));
  const int64_t pause = resumed_at_least - paused_at_most;
  ASSERT_GE(pause, 120);

  StepToStop(&log, &play);
  const std::vector<PlaybackLog::Delivery> deliveries = log.deliveries();
  ASSERT_EQ(deliveries.size(), 4u);
  for (size_t i = 2; i < deliveries.size(); ++i) {
    EXPECT_GE(deliveries[i].wall_ms, before_play + (deliveries[i].time - 1000) + pause)
        << "message at " << deliveries[i].time;
  }
}

TEST(BagPlayTest, SingleStepPublishesOneBatchWhilePaused) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 2000, 2000, 3000, 4000}));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_EQ(log.Step(&play), 0);
  ASSERT_TRUE(play.ControlPause(true));

  // The batches lie a second apart; a single step delivers the next one without waiting
  // for it, then playback is paused again.
  for (long batch : {2000, 3000}) {
    ASSERT_TRUE(play.ControlSingle());
    EXPECT_EQ(log.Step(&play), 0);
    EXPECT_EQ(log.deliveries().back().time, batch);
    EXPECT_EQ(log.Step(&play), 3);
    EXPECT_EQ(log.Step(&play), 3);
  }
  EXPECT_THAT(log.data(), ElementsAre("/t@1000", "/t@2000", "/t@2000", "/t@3000"));
  EXPECT_TRUE(log.timelines().back().paused);
  EXPECT_EQ(log.timelines().back().bag_time, 3000);
}

TEST(BagPlayTest, SingleStepOnABatchAlreadyDuePlaysOneMore) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 2000, 3000}));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlSingle());
  EXPECT_EQ(log.Step(&play), 0);  // 1000 is due: the single step is not used up
  EXPECT_EQ(log.Step(&play), 0);  // 2000 is not: it is published at once, using it up
  EXPECT_EQ(log.Step(&play), 3);
  EXPECT_THAT(log.data(), ElementsAre("/t@1000", "/t@2000"));
}

TEST(BagPlayTest, AfterASingleStepTheClockResumesFromThatBatch) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1500, 1530}));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_EQ(log.Step(&play), 0);
  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlSingle());
  ASSERT_EQ(log.Step(&play), 0);  // 1500, half a second early
  const int64_t resumed_at_least = WallMs();
  ASSERT_TRUE(play.ControlPause(false));
  StepToStop(&log, &play);
  ASSERT_EQ(log.deliveries().size(), 3u);
  EXPECT_GE(log.deliveries()[2].wall_ms, resumed_at_least + 30) << "the next batch keeps its distance";
}

TEST(BagPlayTest, ARewindWhilePausedKeepsTheClockOfThePause) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 5000}));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlLoop(true));
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlSingle());
  ASSERT_EQ(log.Step(&play), 0);  // 1000, due: the single step stays armed
  ASSERT_EQ(log.Step(&play), 0);  // 5000, early: uses it up
  EXPECT_EQ(log.Step(&play), 3);  // rewinds to 1000 while paused

  // The rewind restarted the clock, so 1000 is due at once again and the single step
  // carries on to 5000. Had the pause been forgotten, the clock would be off by the
  // whole epoch and 1000 would look hours away.
  ASSERT_TRUE(play.ControlSingle());
  EXPECT_EQ(log.Step(&play), 0);
  EXPECT_EQ(log.Step(&play), 0);
  EXPECT_EQ(log.Step(&play), 3);
  std::vector<long> times;
  for (const PlaybackLog::Delivery& d : log.deliveries()) times.push_back(d.time);
  EXPECT_THAT(times, ElementsAre(1000, 5000, 1000, 5000));
}

TEST(BagPlayTest, LoopRewindsToTheFirstBatch) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001, 1002}));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlLoop(true));
  ASSERT_TRUE(play.ControlPlay(0, 0));
  for (int i = 0; i < 7; ++i) EXPECT_EQ(log.Step(&play), 0);
  EXPECT_THAT(log.data(),
              ElementsAre("/t@1000", "/t@1001", "/t@1002", "/t@1000", "/t@1001", "/t@1002", "/t@1000"));

  // Without loop the range ends: the last batch returns 0, then "stop".
  ASSERT_TRUE(play.ControlLoop(false));
  EXPECT_EQ(log.Step(&play), 0);
  EXPECT_EQ(log.Step(&play), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(log.Step(&play), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "stop\n");
}

TEST(BagPlayTest, LoopReplaysTheChosenRangeOnly) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 2000, 3000, 3001, 3002, 4001}));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  play.ControlLoop(true);
  ASSERT_TRUE(play.ControlPlay(2, 1));  // 3000 to 4000
  for (int i = 0; i < 7; ++i) ASSERT_EQ(log.Step(&play), 0);
  EXPECT_THAT(log.data(),
              ElementsAre("/t@3000", "/t@3001", "/t@3002", "/t@3000", "/t@3001", "/t@3002", "/t@3000"));
}

TEST(BagPlayTest, CallbacksMayReplaceThemselves) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001, 1002}));
  BagPlay play(bag);
  std::vector<std::string> calls;
  // Captures that live on the heap: if the running callback were destroyed when it
  // replaces itself, reading them afterwards would be a use after free.
  const std::string first_name(100, 'm');
  play.SetMessageCallback([&play, &calls, first_name](long time, const std::string&, const std::string&,
                                                      const std::string&) {
    play.SetMessageCallback([&calls](long time, const std::string&, const std::string&, const std::string&) {
      calls.push_back("second " + std::to_string(time));
    });
    calls.push_back(first_name.substr(0, 5) + " " + std::to_string(time));
  });
  const std::string timeline_name(100, 't');
  play.SetTimelineInfoCallback([&play, &calls, timeline_name](bool, long time, double, double) {
    play.SetTimelineInfoCallback(
        [&calls](bool, long time, double, double) { calls.push_back("timeline " + std::to_string(time)); });
    calls.push_back(timeline_name.substr(0, 5) + " " + std::to_string(time));
  });
  ASSERT_TRUE(play.ControlPlay(0, 0));
  PlaybackLog unused;
  StepToStop(&unused, &play);
  EXPECT_THAT(calls, ElementsAre("ttttt 1000", "mmmmm 1000", "timeline 1001", "second 1001", "timeline 1002",
                                 "second 1002"));
}

TEST(BagPlayTest, CallbacksMayClearThePortsAndTheCallbacks) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1000, 1001}));
  BagPlay play(bag);
  OriginalPlayData raw;
  play.AddPort("/t", new PlayPort<OriginalPlayData>(&raw));
  int calls = 0;
  play.SetMessageCallback([&](long, const std::string&, const std::string&, const std::string&) {
    ++calls;
    play.ClearPorts();
    play.SetMessageCallback(nullptr);
  });
  play.SetTimelineInfoCallback([](bool, long, double, double) {});
  ASSERT_TRUE(play.ControlPlay(0, 0));
  PlaybackLog unused;
  EXPECT_THAT(StepToStop(&unused, &play), ElementsAre(0, 0, 1));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(raw.data, "") << "the port was cleared before its turn";
}

TEST(BagPlayTest, FilterTakesEffectFromTheNextControlPlay) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", {{1000, "/a"}, {1001, "/b"}, {1002, "/a"}, {1003, "/b"}});
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  play.SetFilterTopics({"/b"});
  StepToStop(&log, &play);
  // /a@1000 was already taken as the first message; /a@1002 is filtered.
  EXPECT_THAT(log.data(), ElementsAre("/a@1000", "/b@1001", "/b@1003"));

  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlPlay(0, 0));
  PlaybackLog again;
  again.Attach(&play);
  StepToStop(&again, &play);
  EXPECT_THAT(again.data(), ElementsAre("/b@1001", "/b@1003"));
  EXPECT_EQ(play.GetAllTopics().size(), 2u) << "the filter does not hide topics";
}

}  // namespace
}  // namespace kelo
