#include <unistd.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "play/bag_play.h"
#include "tests/play/play_test_bags.h"
#include "tests/play/playback_log.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing_support::At;
using testing_support::PlaybackLog;
using testing_support::TempDir;
using testing_support::WallMs;
using testing_support::WriteBag;

TEST(BagPlayThreadTest, ControlCallDuringAWaitTakesEffectAfterThatBatch) {
  TempDir dir;
  const std::string bag = WriteBag(dir, "bag", At("/t", {1000, 1150, 1300}));
  for (int round = 0; round < 3; ++round) {
    BagPlay play(bag);
    PlaybackLog log;
    log.Attach(&play);
    const int64_t before_play = WallMs();
    ASSERT_TRUE(play.ControlPlay(0, 0));
    ASSERT_EQ(log.Step(&play), 0);

    std::atomic<bool> stepping{false};
    std::atomic<int> second_code{-1};
    std::thread stepper([&] {
      stepping = true;
      second_code = log.Step(&play);  // waits about 150 ms for 1150
    });
    while (!stepping) std::this_thread::yield();
    usleep(30 * 1000);
    const bool paused = play.ControlPause(true);
    // Either the pause came before the step took the lock (then the step only reported
    // the time), or it waited for the whole step, batch included. Nothing in between.
    const size_t delivered_when_paused = log.deliveries().size();
    stepper.join();
    EXPECT_TRUE(paused);
    if (second_code == 0) {
      EXPECT_EQ(delivered_when_paused, 2u) << "the pause returned before the batch it waited for";
      EXPECT_GE(log.deliveries()[1].wall_ms, before_play + 150);
    } else {
      EXPECT_EQ(second_code, 3);
      EXPECT_EQ(delivered_when_paused, 1u);
    }
    EXPECT_EQ(log.Step(&play), 3) << "paused now";
  }
}

TEST(BagPlayThreadTest, ControlCallsFromManyThreadsKeepPlaybackConsistent) {
  TempDir dir;
  std::vector<long> times;
  for (long t = 0; t < 40; ++t) times.push_back(1000 + t);
  const std::string bag = WriteBag(dir, "bag", At("/t", times));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));

  std::atomic<bool> done{false};
  std::atomic<bool> stepper_done{false};
  std::map<int, int> codes;
  std::thread stepper([&] {
    for (;;) {
      const int code = log.Step(&play);
      ++codes[code];
      if (code == 1) break;
      if (code != 0) usleep(200);  // paused or nothing to play: the embedding tool would idle
    }
    stepper_done = true;
  });
  // Each flag has one thread that sets it, so each of its calls changes the state.
  int pause_refusals = 0;
  std::thread pauser([&] {
    for (int i = 0; !done; ++i) {
      if (!play.ControlPause(i % 2 == 0)) ++pause_refusals;
      usleep(700);
    }
  });
  int loop_refusals = 0;
  std::thread looper([&] {
    for (int i = 0; !done; ++i) {
      if (!play.ControlLoop(i % 2 == 0)) ++loop_refusals;
      usleep(300);
    }
  });
  std::thread single([&] {
    while (!done) {
      play.ControlSingle();
      usleep(500);
    }
  });
  while (log.deliveries().size() < 150 && !stepper_done) usleep(1000);
  done = true;
  pauser.join();
  looper.join();
  single.join();
  EXPECT_TRUE(play.ControlQuit());
  stepper.join();

  EXPECT_EQ(pause_refusals, 0);
  EXPECT_EQ(loop_refusals, 0);
  EXPECT_EQ(codes[1], 1);
  // Playback runs through the bag in order, round after round, whatever the interleaving.
  const std::vector<PlaybackLog::Delivery> deliveries = log.deliveries();
  ASSERT_FALSE(deliveries.empty());
  EXPECT_EQ(deliveries[0].time, 1000);
  for (size_t i = 1; i < deliveries.size(); ++i) {
    const long previous = deliveries[i - 1].time;
    const long expected = previous == 1039 ? 1000 : previous + 1;
    ASSERT_EQ(deliveries[i].time, expected) << "delivery " << i;
  }
}

TEST(BagPlayThreadTest, QuitFromAnotherThreadEndsTheSteppingLoop) {
  TempDir dir;
  std::vector<long> times;
  for (long t = 0; t < 200; ++t) times.push_back(1000 + 5 * t);
  const std::string bag = WriteBag(dir, "bag", At("/t", times));
  BagPlay play(bag);
  PlaybackLog log;
  log.Attach(&play);
  ASSERT_TRUE(play.ControlPlay(0, 0));
  std::atomic<int> last_code{-1};
  std::thread stepper([&] {
    int code;
    while ((code = log.Step(&play)) == 0) {
    }
    last_code = code;
  });
  while (log.deliveries().size() < 5) usleep(1000);
  EXPECT_TRUE(play.ControlQuit());
  const size_t at_quit = log.deliveries().size();
  stepper.join();
  EXPECT_EQ(last_code, 1);
  EXPECT_EQ(log.deliveries().size(), at_quit) << "a step under way finished before ControlQuit returned";
  EXPECT_LT(log.deliveries().size(), times.size());
}

}  // namespace
}  // namespace kelo
