#include <unistd.h>

#include <atomic>
#include <functional>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "output/tools_module_output.h"
#include "play/bag_play.h"
#include "tests/play/play_test_bags.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::At;
using testing_support::PlaybackLog;
using testing_support::TempDir;
using testing_support::WriteBag;

std::string Line(const std::string& state, const std::string& numbers) {
  return "\r [" + state + "]  Bag Time: " + numbers + std::string(15, ' ') + "\r";
}

// ControlPlay prints the range and every topic (filter or not) once, and only while paused.
TEST(BagPlayControlTest, ControlPlayPrintsTheRangeAndEveryTopic) {
  TempDir dir;
  const std::string a = WriteBag(dir, "a", {{1000, "/b", "", "T1"}, {13500, "/b", "", "T1"}});
  const std::string b = WriteBag(dir, "b", {{2000, "/a", "", "T2"}, {3000, "/c", "", "T3"}});
  BagPlay play(std::list<std::string>{a, b});
  play.SetFilterTopics({"/a"});
  std::vector<std::string> sink;
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });
  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_FALSE(play.ControlPlay(1, 1));
  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlPlay(2, 3));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "duration:\n  12.50\ntopic:\n  /a\n  /b\n  /c\n"
                                                    "duration:\n  3.00\ntopic:\n  /a\n  /b\n  /c\n");
  EXPECT_THAT(sink, ElementsAre("duration:\n  12.50\n", "topic:", "  /a\n", "  /b\n", "  /c\n",
                                "duration:\n  3.00\n", "topic:", "  /a\n", "  /b\n", "  /c\n"));
}

// The console line: state, bag time of the batch last waited for (0 before the first),
// elapsed and range seconds; each line goes to the sink too.
TEST(BagPlayControlTest, TimelineLineShowsStateBagTimeElapsedAndLength) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 1002, 1004})));
  std::vector<std::string> sink;
  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  testing::internal::GetCapturedStdout();
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });
  const struct {
    std::function<void()> control;
    int code;
    std::string line;
  } steps[] = {
      {[&] { play.ControlPause(true); }, 3, Line("PAUSED ", "0   Duration: 0.000000 / 0.004000")},
      {[&] { play.ControlPause(false); }, 0, Line("RUNNING", "1000   Duration: 0.000000 / 0.004000")},
      {[] {}, 0, Line("RUNNING", "1002   Duration: 0.002000 / 0.004000")},
      {[&] { play.ControlPause(true); }, 3, Line("PAUSED ", "1002   Duration: 0.002000 / 0.004000")},
      {[&] { play.ControlSingle(); }, 0, Line("PAUSED ", "1004   Duration: 0.004000 / 0.004000")},
  };
  std::vector<std::string> lines;
  for (const auto& step : steps) {
    step.control();
    testing::internal::CaptureStdout();
    EXPECT_EQ(play.NotifyTimeline(), step.code);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), step.line);
    lines.push_back(step.line);
  }
  EXPECT_EQ(sink, lines);
}

// An empty range says "no message" (also when looping) until ControlQuit, then "stop".
TEST(BagPlayControlTest, EmptyRangeSaysNoMessageUntilQuit) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", {{1000, "/a"}, {1001, "/a"}}));
  play.SetFilterTopics({"/nothing"});
  std::vector<std::string> sink;
  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });
  ASSERT_TRUE(play.ControlLoop(true));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(play.NotifyTimeline(), 2);
  EXPECT_TRUE(play.ControlQuit());
  EXPECT_EQ(play.NotifyTimeline(), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_THAT(sink, ElementsAre("no message", "no message", "stop"));
}

enum State { kIdle, kRunning, kPaused, kStepping, kExhausted, kEnded, kQuitPaused };

// What each control call returns in each state, and the code of the step after it.
TEST(BagPlayControlTest, EveryControlCallReportsWhetherItActedInEveryState) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001, 1002}));
  const std::vector<std::function<bool(BagPlay*)>> ops = {
      [](BagPlay* p) { return p->ControlPlay(0, 0); },  [](BagPlay* p) { return p->ControlPause(true); },
      [](BagPlay* p) { return p->ControlPause(false); }, [](BagPlay* p) { return p->ControlLoop(true); },
      [](BagPlay* p) { return p->ControlLoop(false); }, [](BagPlay* p) { return p->ControlSingle(); },
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
      if (row.state != kIdle) {
        ASSERT_TRUE(play.ControlPlay(0, 0));
      }
      if (row.state == kPaused || row.state == kStepping || row.state == kQuitPaused) {
        ASSERT_TRUE(play.ControlPause(true));
      }
      if (row.state == kStepping) {
        ASSERT_TRUE(play.ControlSingle());
      }
      if (row.state == kQuitPaused) {
        ASSERT_TRUE(play.ControlQuit());
      }
      if (row.state == kEnded) log.StepToStop(&play);
      EXPECT_EQ(ops[i](&play), row.acted[i]) << "state " << row.state << ", op " << i;
      EXPECT_EQ(log.Step(&play), row.next_code[i]) << "state " << row.state << ", op " << i << ", then a step";
    }
  }
  testing::internal::GetCapturedStdout();
}

// A seek while paused plays from the new position (of every bag) with a fresh clock.
TEST(BagPlayControlTest, SeekWhilePausedStartsFromTheNewPosition) {
  TempDir dir;
  const std::string a = WriteBag(dir, "a", At("/a", {1000, 3000, 5000}));
  const std::string b = WriteBag(dir, "b", At("/b", {2000, 3000, 4000}));
  BagPlay play(std::list<std::string>{a, b});
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  ASSERT_EQ(log.Step(&play), 0);
  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlPlay(2, 0));
  ASSERT_EQ(log.Step(&play), 0);
  EXPECT_THAT(log.data(), ElementsAre("/a@1000", "/a@3000", "/b@3000"));
  EXPECT_EQ(log.timelines().back().elapsed_s, 0.0);
}

// An empty timeline callback throws from each step that reports, and the lock is released.
TEST(BagPlayControlTest, EmptyTimelineCallbackThrowsAndReleasesTheLock) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 1001})));
  play.SetTimelineInfoCallback(nullptr);
  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_THROW(play.NotifyTimeline(), std::bad_function_call);
  EXPECT_TRUE(play.ControlPause(true));
  EXPECT_THROW(play.NotifyTimeline(), std::bad_function_call);
  EXPECT_TRUE(play.ControlQuit());
  EXPECT_EQ(play.NotifyTimeline(), 1);
  testing::internal::GetCapturedStdout();
}

// A call from another thread while a step is delivering returns only after that step: every
// operation that takes the lock is tried while a message callback holds it.
TEST(BagPlayControlTest, CallsFromAnotherThreadWaitForTheStepUnderWay) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001}));
  const std::vector<std::function<void(BagPlay*)>> ops = {
      [](BagPlay* p) { p->ControlPlay(0, 0); },  [](BagPlay* p) { p->ControlPause(true); },
      [](BagPlay* p) { p->ControlLoop(true); },  [](BagPlay* p) { p->ControlSingle(); },
      [](BagPlay* p) { p->ControlQuit(); },      [](BagPlay* p) { p->NotifyTimeline(); },
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
