#include "play/bag_play.h"

#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "record/wall_clock.h"
#include "tests/play/play_test_bags.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::At;
using testing_support::TempDir;
using testing_support::WriteBag;

// The codes of the steps up to the one that finds the player stopped.
std::vector<int> StepToStop(BagPlay* play) {
  std::vector<int> codes;
  while (codes.size() < 1000 && (codes.empty() || codes.back() != BagPlay::kStopped))
    codes.push_back(play->NotifyTimeline());
  return codes;
}

// The times of the messages a player delivers, and when it delivered each; the timeline is silenced.
struct PlaybackLog {
  std::vector<long> times;
  std::vector<int64_t> wall_ms;
  void Attach(BagPlay* play) {
    play->SetMessageCallback([this](long time, const std::string&, const std::string&, const std::string&) {
      times.push_back(time);
      wall_ms.push_back(WallClockMs());
    });
    play->SetTimelineInfoCallback([](bool, long, double, double) {});
  }
};

// A player of one bag with messages on "/t" at `times`, its log attached.
struct Player {
  explicit Player(const std::vector<long>& times) : play(WriteBag(dir, "bag", At("/t", times))) { log.Attach(&play); }
  int Step() { return play.NotifyTimeline(); }
  TempDir dir;
  BagPlay play;
  PlaybackLog log;
};

// Catches a payload's bytes or type changed and a port not replaced or removed (ASan: a port leaked);
// ports cleared: the callbacks' test.
TEST(BagPlayTest, PortsGetTheirTopicsPayloadsAndBelongToThePlayer) {
  TempDir dir;
  const std::string binary("\0\x01\xff\r\n\0tail", 10), big(70000, '\x7f');
  BagPlay play(WriteBag(dir, "bag", {{1000, "/raw", binary, "T"}, {1000, "/c", "c0"}, {1001, "/raw", big}}));
  OriginalPlayData raw, unused;
  play.AddPort("/raw", new PlayPort<OriginalPlayData>(&unused));
  play.AddPort("/raw", new PlayPort<OriginalPlayData>(&raw));  // replaces the first
  play.AddPort("/c", new PlayPort<OriginalPlayData>(&unused));
  play.AddPort("/c", nullptr);
  std::string types;
  play.SetMessageCallback(
      [&](long, const std::string&, const std::string& type, const std::string&) { types += type + ";"; });
  play.SetTimelineInfoCallback([](bool, long, double, double) {});
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_EQ(play.NotifyTimeline(), 0);
  EXPECT_EQ(raw.data, binary);
  ASSERT_EQ(play.NotifyTimeline(), 0);
  EXPECT_EQ(raw.data + unused.data, big);
  EXPECT_EQ(types, "T;demo.Raw;demo.Raw;") << "the callback still gets every message, with its type";
  play.AddPort("/c", new PlayPort<OriginalPlayData>(&unused));
}

// No batch comes before its due time, counted from the millisecond after the start, and a
// pause shifts every later batch by its length.
TEST(BagPlayTest, EveryBatchWaitsUntilItIsDueAndAPauseDelaysTheRest) {
  Player p({5000, 5001, 5010, 5010, 5030, 5031, 5070});
  const int64_t before_play = WallClockMs();
  ASSERT_TRUE(p.play.ControlPlay(0, 0));
  for (int i = 0; i < 4; ++i) ASSERT_EQ(p.Step(), 0);  // up to 5030
  ASSERT_TRUE(p.play.ControlPause(true));
  const int64_t paused_at_most = WallClockMs();
  EXPECT_EQ(p.Step(), 3);
  usleep(100 * 1000);
  EXPECT_EQ(p.Step(), 3);
  const int64_t pause = WallClockMs() - paused_at_most;
  ASSERT_TRUE(p.play.ControlPause(false));
  StepToStop(&p.play);
  ASSERT_EQ(p.log.times.size(), 7u);
  for (size_t i = 0; i < 7; ++i) {
    const long t = p.log.times[i];
    EXPECT_GE(p.log.wall_ms[i], before_play + 1 + (t - 5000) + (t > 5030 ? pause : 0)) << "message at " << t;
  }
}

// A single step delivers the next batch at once (one more if one is due) and stays paused; a rewind
// while paused restarts the clock inside the pause (not at the epoch), so 1000 is due at once again.
TEST(BagPlayTest, SingleStepPublishesOneBatchWhilePausedAcrossARewind) {
  Player p({1000, 2000, 2000, 3000, 3030});
  ASSERT_TRUE(p.play.ControlLoop(true));
  ASSERT_TRUE(p.play.ControlPlay(0, 0));
  ASSERT_TRUE(p.play.ControlPause(true));
  // The codes of the steps after each single step: 1000 is due, so it does not use the single step up.
  for (const std::vector<int>& codes : std::vector<std::vector<int>>{{0, 0, 3}, {0, 3}, {0, 3}, {0, 0, 3}, {0, 3}}) {
    ASSERT_TRUE(p.play.ControlSingle());
    for (int code : codes) EXPECT_EQ(p.Step(), code);
  }
  EXPECT_THAT(p.log.times, ElementsAre(1000, 2000, 2000, 3000, 3030, 1000, 2000, 2000, 3000));
  ASSERT_TRUE(p.play.ControlLoop(false));
  const int64_t resumed_at_least = WallClockMs();
  ASSERT_TRUE(p.play.ControlPause(false));
  EXPECT_THAT(StepToStop(&p.play), ElementsAre(0, 1));
  ASSERT_EQ(p.log.times.size(), 10u);
  EXPECT_GE(p.log.wall_ms[9], resumed_at_least + 30) << "the next batch keeps its distance";
}

// Callbacks may replace themselves (ASan: no use after free), clear the ports and the message callback.
TEST(BagPlayTest, CallbacksMayReplaceThemselvesAndClearThePorts) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 1000, 1001, 1002})));
  OriginalPlayData raw;
  play.AddPort("/t", new PlayPort<OriginalPlayData>(&raw));
  std::vector<std::string> calls;
  const std::string first(100, 'm'), timeline(100, 't');
  play.SetMessageCallback([&play, &calls, first](long time, const std::string&, const std::string&,
                                                 const std::string&) {
    play.ClearPorts();
    play.SetMessageCallback([&](long time, const std::string&, const std::string&, const std::string&) {
      calls.push_back("second " + std::to_string(time));
      play.SetMessageCallback(nullptr);
    });
    calls.push_back(first.substr(0, 5) + " " + std::to_string(time));
  });
  play.SetTimelineInfoCallback([&play, &calls, timeline](bool, long time, double, double) {
    play.SetTimelineInfoCallback([&calls](bool, long time, double, double) { calls.push_back(std::to_string(time)); });
    calls.push_back(timeline.substr(0, 5) + " " + std::to_string(time));
  });
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_THAT(StepToStop(&play), ElementsAre(0, 0, 0, 1));
  EXPECT_THAT(calls, ElementsAre("ttttt 1000", "mmmmm 1000", "second 1000", "1001", "1002"));
  EXPECT_EQ(raw.data, "") << "the port was cleared before its turn";
}

TEST(BagPlayTest, EveryControlCallReportsWhetherItActedInEveryState) {
  enum State { kIdle, kRunning, kPaused, kStepping, kExhausted, kEnded, kQuitPaused };
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001, 1002}));
  const std::vector<std::function<bool(BagPlay*)>> ops = {
      [](BagPlay* p) { return p->ControlPlay(0, 0); },   [](BagPlay* p) { return p->ControlPause(true); },
      [](BagPlay* p) { return p->ControlPause(false); }, [](BagPlay* p) { return p->ControlLoop(true); },
      [](BagPlay* p) { return p->ControlLoop(false); },  [](BagPlay* p) { return p->ControlSingle(); },
      [](BagPlay* p) { return p->ControlQuit(); },
  };
  const struct {
    State state;
    std::vector<bool> acted;     // per op above
    std::vector<int> next_code;  // of the step after it
  } table[] = {
      {kIdle, {1, 0, 1, 1, 0, 1, 1}, {0, 1, 1, 1, 1, 1, 1}},
      {kRunning, {0, 1, 0, 1, 0, 0, 1}, {0, 3, 0, 0, 0, 0, 1}},
      {kPaused, {1, 0, 1, 1, 0, 1, 1}, {0, 3, 0, 3, 3, 0, 1}},
      {kStepping, {1, 0, 1, 1, 0, 1, 1}, {0, 0, 0, 0, 0, 0, 1}},
      {kExhausted, {0, 1, 0, 1, 0, 0, 1}, {2, 2, 2, 2, 2, 2, 1}},
      {kEnded, {0, 1, 0, 1, 0, 0, 1}, {1, 1, 1, 1, 1, 1, 1}},
      {kQuitPaused, {1, 0, 1, 1, 0, 1, 1}, {0, 1, 1, 1, 1, 1, 1}},
  };
  testing::internal::CaptureStdout();
  for (const auto& row : table) {
    for (size_t i = 0; i < ops.size(); ++i) {
      BagPlay play(bag);
      PlaybackLog log;
      log.Attach(&play);
      if (row.state == kExhausted) play.SetFilterTopics({"/nothing"});
      EXPECT_TRUE(row.state == kIdle || play.ControlPlay(0, 0));
      const bool paused = row.state == kPaused || row.state == kStepping || row.state == kQuitPaused;
      EXPECT_TRUE(!paused || play.ControlPause(true));
      EXPECT_TRUE(row.state != kStepping || play.ControlSingle());
      EXPECT_TRUE(row.state != kQuitPaused || play.ControlQuit());
      if (row.state == kEnded) StepToStop(&play);
      EXPECT_EQ(ops[i](&play), row.acted[i]) << "state " << row.state << ", op " << i;
      EXPECT_EQ(play.NotifyTimeline(), row.next_code[i]) << "state " << row.state << ", op " << i << ", then a step";
    }
  }
  // Steps that find the player stopped or out of messages say so on the console.
  const std::string console = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(console.find("\nstop\n") != console.npos && console.find("\nno message\n") != console.npos);
}

// Each locking call from another thread waits while a step (here its message callback) holds the lock.
TEST(BagPlayTest, CallsFromAnotherThreadWaitForTheStepUnderWay) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001}));
  const std::vector<std::function<void(BagPlay*)>> ops = {
      [](BagPlay* p) { p->ControlPlay(0, 0); }, [](BagPlay* p) { p->ControlPause(true); },
      [](BagPlay* p) { p->ControlLoop(true); }, [](BagPlay* p) { p->ControlSingle(); },
      [](BagPlay* p) { p->ControlQuit(); },     [](BagPlay* p) { p->NotifyTimeline(); },
      [](BagPlay* p) { p->ReadBags({}); },
  };
  testing::internal::CaptureStdout();
  for (size_t i = 0; i < ops.size(); ++i) {
    BagPlay play(bag);
    std::atomic<bool> entered{false}, left{false};
    play.SetMessageCallback([&](long, const std::string&, const std::string&, const std::string&) {
      if (entered.exchange(true)) return;
      usleep(50 * 1000);
      left = true;
    });
    ASSERT_TRUE(play.ControlPlay(0, 0));
    std::thread stepper([&] { play.NotifyTimeline(); });
    while (!entered) std::this_thread::yield();
    ops[i](&play);
    EXPECT_TRUE(left) << "operation " << i << " returned while the step held the lock";
    stepper.join();
  }
  testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace kelo
