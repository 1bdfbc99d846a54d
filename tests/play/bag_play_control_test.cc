#include <array>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "output/tools_module_output.h"
#include "play/bag_play.h"
#include "tests/play/play_test_bags.h"
#include "tests/play/playback_log.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::At;
using testing_support::PlaybackLog;
using testing_support::TempDir;
using testing_support::WriteBag;

// The console timeline line for one report.
std::string Line(const std::string& state, const std::string& numbers) {
  return "\r [" + state + "]  Bag Time: " + numbers + std::string(15, ' ') + "\r";
}

TEST(BagPlayControlTest, FirstStepAfterConstructionSaysStop) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000})));
  std::vector<std::string> sink;
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });
  for (int i = 0; i < 3; ++i) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(play.NotifyTimeline(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "stop\n");
  }
  EXPECT_THAT(sink, ElementsAre("stop", "stop", "stop"));
}

TEST(BagPlayControlTest, ControlPlayPrintsTheRangeAndEveryTopic) {
  TempDir dir;
  const std::string a = WriteBag(dir, "a", {{1000, "/b", "", "T1"}, {13500, "/b", "", "T1"}});
  const std::string b = WriteBag(dir, "b", {{2000, "/a", "", "T2"}, {3000, "/c", "", "T3"}});
  BagPlay play(std::list<std::string>{a, b});
  play.SetFilterTopics({"/a"});  // the summary lists every topic regardless
  std::vector<std::string> sink;
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });

  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "duration:\n  12.50\ntopic:\n  /a\n  /b\n  /c\n");
  EXPECT_THAT(sink, ElementsAre("duration:\n  12.50\n", "topic:", "  /a\n", "  /b\n", "  /c\n"));

  // A second ControlPlay without a pause does nothing, prints nothing.
  testing::internal::CaptureStdout();
  EXPECT_FALSE(play.ControlPlay(1, 1));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  ASSERT_TRUE(play.ControlPause(true));
  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(2, 3));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "duration:\n  3.00\ntopic:\n  /a\n  /b\n  /c\n");
}

TEST(BagPlayControlTest, TimelineLineShowsStateBagTimeElapsedAndLength) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 1002, 1004})));
  std::vector<std::string> sink;
  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  testing::internal::GetCapturedStdout();
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });

  struct Expect {
    std::function<void()> control;
    int code;
    std::string line;
  };
  const std::vector<Expect> steps = {
      // Right after ControlPlay nothing was waited for yet: bag time 0, elapsed 0.
      {[&] { play.ControlPause(true); }, 3, Line("PAUSED ", "0   Duration: 0.000000 / 0.004000")},
      {[&] { play.ControlPause(false); }, 0, Line("RUNNING", "1000   Duration: 0.000000 / 0.004000")},
      {[] {}, 0, Line("RUNNING", "1002   Duration: 0.002000 / 0.004000")},
      {[&] { play.ControlPause(true); }, 3, Line("PAUSED ", "1002   Duration: 0.002000 / 0.004000")},
      {[&] { play.ControlSingle(); }, 0, Line("PAUSED ", "1004   Duration: 0.004000 / 0.004000")},
  };
  std::vector<std::string> lines;
  for (const Expect& step : steps) {
    step.control();
    testing::internal::CaptureStdout();
    EXPECT_EQ(play.NotifyTimeline(), step.code);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), step.line);
    lines.push_back(step.line);
  }
  EXPECT_EQ(sink, lines) << "the sink receives each line as printed";
}

TEST(BagPlayControlTest, EmptyRangeSaysNoMessageUntilQuit) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", {{1000, "/a"}, {1001, "/a"}}));
  play.SetFilterTopics({"/nothing"});
  std::vector<std::string> sink;
  play.output()->set_output_string_func([&sink](const std::string& text) { sink.push_back(text); });
  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  testing::internal::GetCapturedStdout();
  sink.clear();
  ASSERT_TRUE(play.ControlLoop(true));  // a rewind finds nothing either
  for (int i = 0; i < 3; ++i) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(play.NotifyTimeline(), 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "no message\n");
  }
  EXPECT_THAT(sink, ElementsAre("no message", "no message", "no message"));
  EXPECT_TRUE(play.ControlQuit());
  testing::internal::CaptureStdout();
  EXPECT_EQ(play.NotifyTimeline(), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "stop\n");
}

TEST(BagPlayControlTest, SwitchingLoopOffAfterTheLastBatchLeavesNothingToPlay) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 1001})));
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlLoop(true));
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_EQ(log.Step(&play), 0);
  EXPECT_EQ(log.Step(&play), 0);
  ASSERT_TRUE(play.ControlLoop(false));
  testing::internal::CaptureStdout();
  EXPECT_EQ(log.Step(&play), 2);
  EXPECT_EQ(log.Step(&play), 2);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "no message\nno message\n");
  // A new ControlPlay needs a pause first, and then plays the range again.
  EXPECT_FALSE(play.ControlPlay(0, 0));
  ASSERT_TRUE(play.ControlPause(true));
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_EQ(log.Step(&play), 0);
  EXPECT_EQ(log.data().back(), "/t@1000");
}

// The states a player can be in, and how to reach each from a new player.
enum class State { kIdle, kRunning, kPaused, kStepping, kExhausted, kEnded };

const char* Name(State state) {
  return std::array<const char*, 6>{"idle", "running", "paused", "stepping", "exhausted", "ended"}[static_cast<int>(state)];
}

void Reach(State state, BagPlay* play, PlaybackLog* log) {
  if (state == State::kIdle) return;
  if (state == State::kExhausted) play->SetFilterTopics({"/nothing"});
  ASSERT_TRUE(play->ControlPlay(0, 0));
  if (state == State::kPaused || state == State::kStepping) {
    ASSERT_TRUE(play->ControlPause(true));
  }
  if (state == State::kStepping) {
    ASSERT_TRUE(play->ControlSingle());
  }
  if (state == State::kEnded) {
    while (log->Step(play) == 0) {
    }
  }
}

TEST(BagPlayControlTest, EveryControlCallReportsWhetherItActedInEveryState) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001, 1002}));
  struct Op {
    const char* name;
    std::function<bool(BagPlay*)> call;
  };
  const std::vector<Op> ops = {
      {"play", [](BagPlay* p) { return p->ControlPlay(0, 0); }},
      {"pause", [](BagPlay* p) { return p->ControlPause(true); }},
      {"resume", [](BagPlay* p) { return p->ControlPause(false); }},
      {"loop on", [](BagPlay* p) { return p->ControlLoop(true); }},
      {"loop off", [](BagPlay* p) { return p->ControlLoop(false); }},
      {"single", [](BagPlay* p) { return p->ControlSingle(); }},
      {"quit", [](BagPlay* p) { return p->ControlQuit(); }},
  };
  // For each state, per operation above: what it returns, then the code of the next step.
  struct Row {
    State state;
    std::vector<bool> acted;
    std::vector<int> next_code;
  };
  const std::vector<Row> table = {
      {State::kIdle, {1, 0, 1, 1, 0, 1, 1}, {0, 1, 1, 1, 1, 1, 1}},
      {State::kRunning, {0, 1, 0, 1, 0, 0, 1}, {0, 3, 0, 0, 0, 0, 1}},
      {State::kPaused, {1, 0, 1, 1, 0, 1, 1}, {0, 3, 0, 3, 3, 0, 1}},
      {State::kStepping, {1, 0, 1, 1, 0, 1, 1}, {0, 0, 0, 0, 0, 0, 1}},
      {State::kExhausted, {0, 1, 0, 1, 0, 0, 1}, {2, 2, 2, 2, 2, 2, 1}},
      {State::kEnded, {0, 1, 0, 1, 0, 0, 1}, {1, 1, 1, 1, 1, 1, 1}},
  };
  for (const Row& row : table) {
    for (size_t i = 0; i < ops.size(); ++i) {
      testing::internal::CaptureStdout();
      BagPlay play(bag);
      PlaybackLog log;
      log.Attach(&play);
      Reach(row.state, &play, &log);
      EXPECT_EQ(ops[i].call(&play), row.acted[i]) << Name(row.state) << ": " << ops[i].name;
      EXPECT_EQ(log.Step(&play), row.next_code[i])
          << Name(row.state) << ": " << ops[i].name << ", then a step";
      testing::internal::GetCapturedStdout();
    }
  }
}

TEST(BagPlayControlTest, QuitKeepsThePauseStateForTheNextControlPlay) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1001}));
  testing::internal::CaptureStdout();
  {
    // Quit while paused: ControlPlay works at once.
    BagPlay play(bag);
    ASSERT_TRUE(play.ControlPlay(0, 0));
    ASSERT_TRUE(play.ControlPause(true));
    EXPECT_TRUE(play.ControlQuit());
    EXPECT_TRUE(play.ControlPlay(0, 0));
  }
  {
    // Quit while running: it needs a pause first.
    BagPlay play(bag);
    ASSERT_TRUE(play.ControlPlay(0, 0));
    EXPECT_TRUE(play.ControlQuit());
    EXPECT_EQ(play.NotifyTimeline(), 1);
    EXPECT_FALSE(play.ControlPlay(0, 0));
    EXPECT_TRUE(play.ControlPause(true));
    EXPECT_TRUE(play.ControlPlay(0, 0));
  }
  testing::internal::GetCapturedStdout();
}

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
  EXPECT_EQ(log.timelines().back().elapsed_s, 0.0) << "the clock restarts at the new position";
}

TEST(BagPlayControlTest, EmptyTimelineCallbackThrowsAndReleasesTheLock) {
  TempDir dir;
  BagPlay play(WriteBag(dir, "bag", At("/t", {1000, 1001})));
  play.SetTimelineInfoCallback(nullptr);
  testing::internal::CaptureStdout();
  ASSERT_TRUE(play.ControlPlay(0, 0));
  EXPECT_THROW(play.NotifyTimeline(), std::bad_function_call);
  EXPECT_TRUE(play.ControlPause(true)) << "the lock was released";
  EXPECT_THROW(play.NotifyTimeline(), std::bad_function_call);
  EXPECT_TRUE(play.ControlQuit());
  EXPECT_EQ(play.NotifyTimeline(), 1) << "\"stop\" reports no time";
  testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace kelo
