#include "play/bag_play.h"

#include <unistd.h>

#include <fstream>
#include <list>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "output/tools_module_output.h"
#include "platform/bag/bag_reader.h"
#include "tests/play/play_test_bags.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::At;
using testing_support::PlaybackLog;
using testing_support::TempDir;
using testing_support::WallMs;
using testing_support::WriteBag;

// Merge of several bags: one step per bag time, ties in the order the bags were opened.
TEST(BagPlayTest, DeliversEqualTimesInOneStepTheBagOpenedFirstFirst) {
  TempDir dir;
  const std::string a = WriteBag(dir, "a", {{1000, "/a", "a0", "A"}, {1002, "/a", "a2", "A"}, {1004, "/a", "a4", "A"}});
  const std::string b = WriteBag(dir, "b", {{1000, "/b", "b0", "B"}, {1003, "/b", "b3", "B"}, {1004, "/b", "b4", "B"}});
  BagPlay play(std::list<std::string>{a, b});
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_THAT(log.StepToStop(&play), ElementsAre(0, 0, 0, 0, 1));
  std::vector<std::string> delivered;
  for (const PlaybackLog::Delivery& d : log.deliveries()) {
    delivered.push_back(std::to_string(d.step) + ":" + std::to_string(d.time) + " " + d.topic + " " + d.type + " " + d.data);
  }
  EXPECT_THAT(delivered, ElementsAre("1:1000 /a A a0", "1:1000 /b B b0", "2:1002 /a A a2", "3:1003 /b B b3",
                                     "4:1004 /a A a4", "4:1004 /b B b4"));
}

// Counts its destruction, so a test sees when the player deletes a port.
class CountingPort : public PlayPortIntf {
 public:
  CountingPort(int* destroyed, std::vector<std::string>* received) : destroyed_(destroyed), received_(received) {}
  ~CountingPort() override { ++*destroyed_; }
  void Deserialize(const std::string& data) override { received_->push_back(data); }

 private:
  int* destroyed_;
  std::vector<std::string>* received_;
};

// Ports get the exact payload bytes of their topic, are replaced, removed and deleted by the player.
TEST(BagPlayTest, PortsGetTheirTopicsPayloadsAndBelongToThePlayer) {
  TempDir dir;
  const std::string binary("\0\x01\xff\r\n\0tail", 10);
  const std::string bag = WriteBag(dir, "bag", {{1000, "/raw", binary}, {1000, "/c", "c0"}, {1000, "/other", "o"},
                                                {1001, "/raw", std::string(70000, '\x7f')}, {1001, "/c", "c1"},
                                                {1002, "/raw", "after clear"}});
  int destroyed = 0;
  std::vector<std::string> received;
  OriginalPlayData raw, unused;  // on the stack: deleting one would be caught by the sanitizer
  {
    BagPlay play(bag);
    play.AddPort("/raw", new PlayPort<OriginalPlayData>(&unused));
    play.AddPort("/raw", new PlayPort<OriginalPlayData>(&raw));  // replaces the first
    play.AddPort("/c", new CountingPort(&destroyed, &received));
    play.AddPort("/c", new CountingPort(&destroyed, &received));
    EXPECT_EQ(destroyed, 1) << "the replaced port is deleted";
    play.AddPort("/c", nullptr);
    EXPECT_EQ(destroyed, 2) << "a null port removes the topic's port";
    play.AddPort("/c", new CountingPort(&destroyed, &received));
    PlaybackLog log;
    log.Attach(&play);
    ASSERT_TRUE(play.ControlPlay(0, 0));
    ASSERT_EQ(log.Step(&play), 0);
    EXPECT_EQ(raw.data, binary);
    ASSERT_EQ(log.Step(&play), 0);
    EXPECT_EQ(raw.data, std::string(70000, '\x7f'));
    EXPECT_EQ(unused.data, "");
    EXPECT_THAT(received, ElementsAre("c0", "c1"));
    play.ClearPorts();
    EXPECT_EQ(destroyed, 3);
    ASSERT_EQ(log.Step(&play), 0);
    EXPECT_EQ(raw.data, std::string(70000, '\x7f')) << "no port after ClearPorts";
    EXPECT_EQ(log.data().back(), "after clear") << "the callback still gets the message";
    play.AddPort("/c", new CountingPort(&destroyed, &received));
  }
  EXPECT_EQ(destroyed, 4) << "the destructor deletes every port";
}

// A bag that cannot be read prints its error once; the others still play.
TEST(BagPlayTest, UnreadableBagPrintsItsErrorOnceAndTheOthersPlay) {
  TempDir dir;
  const std::string missing = dir.file("missing.kelobag"), garbage = dir.file("garbage.kelobag");
  std::ofstream(garbage) << "this is not a bag at all";
  const std::string good = WriteBag(dir, "good", At("/t", {1000, 1001}));
  const std::string missing_error = BagReader(missing).get_error(), garbage_error = BagReader(garbage).get_error();
  ASSERT_NE(missing_error, "");
  ASSERT_NE(garbage_error, "");
  BagPlay play;
  std::vector<std::string> sink;
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });
  testing::internal::CaptureStdout();
  play.ReadBags({missing, good, garbage});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), missing_error + "\n" + garbage_error + "\n");
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  log.StepToStop(&play);
  EXPECT_THAT(log.data(), ElementsAre("/t@1000", "/t@1001"));
  EXPECT_THAT(sink, ElementsAre(missing_error, garbage_error, testing::_, "topic:", "  /t\n", "stop"));
}

// No batch comes before its due time, and a pause shifts every later batch by its length.
TEST(BagPlayTest, EveryBatchWaitsUntilItIsDueAndAPauseDelaysTheRest) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {5000, 5001, 5010, 5010, 5030, 5031, 5070})));
  PlaybackLog log;
  log.Attach(&play);
  const int64_t before_play = WallMs();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  for (int i = 0; i < 4; ++i) ASSERT_EQ(log.Step(&play), 0);  // up to 5030
  ASSERT_TRUE(play.ControlPause(true));
  const int64_t paused_at_most = WallMs();
  EXPECT_EQ(log.Step(&play), 3);
  usleep(100 * 1000);
  EXPECT_EQ(log.Step(&play), 3);
  const int64_t pause = WallMs() - paused_at_most;
  ASSERT_TRUE(play.ControlPause(false));
  log.StepToStop(&play);
  const std::vector<PlaybackLog::Delivery> deliveries = log.deliveries();
  ASSERT_EQ(deliveries.size(), 7u);
  for (const PlaybackLog::Delivery& d : deliveries) {
    EXPECT_GE(d.wall_ms, before_play + (d.time - 5000) + (d.time > 5030 ? pause : 0)) << "message at " << d.time;
  }
}

// A single step while paused delivers the next batch at once (one more when one is already
// due), stays paused, and the clock goes on from that batch.
TEST(BagPlayTest, SingleStepPublishesOneBatchWhilePaused) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 2000, 2000, 3000, 3030})));
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlSingle());
  EXPECT_EQ(log.Step(&play), 0);  // 1000 is due: the single step is not used up
  EXPECT_EQ(log.Step(&play), 0);  // 2000 is not: published at once, using it up
  EXPECT_EQ(log.Step(&play), 3);
  EXPECT_EQ(log.Step(&play), 3);
  ASSERT_TRUE(play.ControlSingle());
  EXPECT_EQ(log.Step(&play), 0);
  EXPECT_EQ(log.Step(&play), 3);
  EXPECT_THAT(log.data(), ElementsAre("/t@1000", "/t@2000", "/t@2000", "/t@3000"));
  EXPECT_TRUE(log.timelines().back().paused);
  EXPECT_EQ(log.timelines().back().bag_time, 3000);
  const int64_t resumed_at_least = WallMs();
  ASSERT_TRUE(play.ControlPause(false));
  log.StepToStop(&play);
  ASSERT_EQ(log.deliveries().size(), 5u);
  EXPECT_GE(log.deliveries()[4].wall_ms, resumed_at_least + 30) << "the next batch keeps its distance";
}

// A rewind while paused restarts the clock inside the pause: the pause is not counted from
// the epoch, so 1000 is due at once again and the single step carries on to 5000.
TEST(BagPlayTest, ARewindWhilePausedKeepsTheClockOfThePause) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 5000})));
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlLoop(true));
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_TRUE(play.ControlPause(true));
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(play.ControlSingle());
    EXPECT_EQ(log.Step(&play), 0);
    EXPECT_EQ(log.Step(&play), 0);
    EXPECT_EQ(log.Step(&play), 3);  // rewinds to 1000 while paused
  }
  EXPECT_THAT(log.times(), ElementsAre(1000, 5000, 1000, 5000));
}

// Loop replays the chosen range; switched off it ends with "stop", or with "no message" when
// the last batch was already delivered.
TEST(BagPlayTest, LoopReplaysTheRangeUntilSwitchedOff) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 2000, 3000, 3001, 3002, 4001}));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlLoop(true));
  ASSERT_TRUE(play.ControlPlay(2, 1));  // 3000 to 4000
  for (int i = 0; i < 7; ++i) ASSERT_EQ(log.Step(&play), 0);
  EXPECT_THAT(log.times(), ElementsAre(3000, 3001, 3002, 3000, 3001, 3002, 3000));
  ASSERT_TRUE(play.ControlLoop(false));
  testing::internal::CaptureStdout();
  EXPECT_THAT(log.StepToStop(&play), ElementsAre(0, 0, 1));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "stop\n");

  BagPlay again(bag);
  log.Attach(&again);
  ASSERT_TRUE(again.ControlLoop(true));
  ASSERT_TRUE(again.ControlPlay(3, 0));  // 4001 only
  EXPECT_EQ(log.Step(&again), 0);
  ASSERT_TRUE(again.ControlLoop(false));
  testing::internal::CaptureStdout();
  EXPECT_EQ(log.Step(&again), 2);
  EXPECT_EQ(log.Step(&again), 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "no message\nno message\n");
  EXPECT_FALSE(again.ControlPlay(0, 0)) << "still playing: a new range needs a pause first";
}

// Callbacks may replace themselves (heap captures: a destroyed running callback would be a
// use after free), clear the ports and the message callback.
TEST(BagPlayTest, CallbacksMayReplaceThemselvesAndClearThePorts) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 1000, 1001, 1002})));
  OriginalPlayData raw;
  play.AddPort("/t", new PlayPort<OriginalPlayData>(&raw));
  std::vector<std::string> calls;
  const std::string first(100, 'm');
  play.SetMessageCallback([&play, &calls, first](long time, const std::string&, const std::string&, const std::string&) {
    play.ClearPorts();
    play.SetMessageCallback([&](long time, const std::string&, const std::string&, const std::string&) {
      calls.push_back("second " + std::to_string(time));
      play.SetMessageCallback(nullptr);
    });
    calls.push_back(first.substr(0, 5) + " " + std::to_string(time));
  });
  const std::string timeline(100, 't');
  play.SetTimelineInfoCallback([&play, &calls, timeline](bool, long time, double, double) {
    play.SetTimelineInfoCallback([&calls](bool, long time, double, double) { calls.push_back("tl " + std::to_string(time)); });
    calls.push_back(timeline.substr(0, 5) + " " + std::to_string(time));
  });
  ASSERT_TRUE(play.ControlPlay(0, 0));
  PlaybackLog unused;
  EXPECT_THAT(unused.StepToStop(&play), ElementsAre(0, 0, 0, 1));
  EXPECT_THAT(calls, ElementsAre("ttttt 1000", "mmmmm 1000", "second 1000", "tl 1001", "tl 1002"));
  EXPECT_EQ(raw.data, "") << "the port was cleared before its turn";
}

// The filter applies from the next ControlPlay (the message under the cursor still plays)
// and does not hide topics.
TEST(BagPlayTest, FilterTakesEffectFromTheNextControlPlay) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", {{1000, "/a"}, {1001, "/b"}, {1002, "/a"}, {1003, "/b"}}));
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  play.SetFilterTopics({"/b"});
  log.StepToStop(&play);
  EXPECT_THAT(log.data(), ElementsAre("/a@1000", "/b@1001", "/b@1003"));
  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlPlay(0, 0));
  PlaybackLog again;
  again.Attach(&play);
  again.StepToStop(&play);
  EXPECT_THAT(again.data(), ElementsAre("/b@1001", "/b@1003"));
  EXPECT_EQ(play.GetAllTopics().size(), 2u);
}

}  // namespace
}  // namespace kelo
