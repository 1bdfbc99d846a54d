#include "tools/kelo_bag/play_control.h"

#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "output/tools_module_output.h"
#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "play/bag_play.h"
#include "tests/support/temp_dir.h"
#include "tests/support/subprocess.h"

namespace kelo {
namespace cli {
namespace {

using testing_support::TempDir;
using testing_support::WaitFor;

constexpr long kBegin = 1700000000000;

// A player over /tick every 100 ms for 20 s, stepped on a thread of its own as the tool
// steps it, with the keys' control in between, remembering the timeline it shows.
class Playback {
 public:
  // With `loop`, the loop key is pressed before playback starts.
  Playback(int start_s, int duration_s, bool loop = false) {
    BagWriter writer(fileio::FilePath(dir_.file("ticks.kelobag.active")));
    writer.open("");
    for (long t = 0; t <= 20000; t += 100) writer.append_message(kBegin + t, 0, "/tick", "t", "t");
    play_.reset(new BagPlay(writer.close()));
    play_->output()->set_output_string_func([](const std::string&) {});
    control_.reset(new PlayControl(play_.get(), kBegin, start_s, duration_s));
    play_->SetTimelineInfoCallback([this](bool paused, long bag_time, double elapsed_s, double duration_s) {
      shown_ = control_->OnTimeline(paused, bag_time, elapsed_s, duration_s);
      paused_ = paused;
      if (bag_time > 0) ++batches_;
    });
    EXPECT_TRUE(!loop || control_->Apply(Key::kLoop));
    EXPECT_TRUE(play_->ControlPlay(start_s, duration_s));
    stepper_ = std::thread([this] {
      while (!stop_)
        if (control_->Step() != BagPlay::kPlayed) usleep(10000);
    });
  }
  ~Playback() {
    stop_ = true;
    stepper_.join();
  }

  PlayControl& control() { return *control_; }
  bool paused() { return paused_; }
  long shown() { return shown_ - kBegin; }  // the bag time shown, in ms after the bag's beginning
  long batches() { return batches_; }
  // Whether after `key` the timeline comes to show `ms` within 5 s, paused.
  testing::AssertionResult PausesAt(Key key, long ms) {
    control_->Apply(key);
    if (!WaitFor([&] { return shown() == ms; }, 5000)) return testing::AssertionFailure() << "at " << shown();
    return paused() ? testing::AssertionSuccess() : testing::AssertionFailure() << "running";
  }

 private:
  TempDir dir_;
  std::unique_ptr<BagPlay> play_;
  std::unique_ptr<PlayControl> control_;
  std::atomic<bool> paused_{true}, stop_{false};
  std::atomic<long> shown_{0}, batches_{0};
  std::thread stepper_;
};

// Space pauses and resumes, step plays one batch and pauses first when running, the arrows
// seek five seconds within the chosen range and keep the pause.
TEST(PlayControlTest, KeysPauseStepAndSeekWithinTheChosenRange) {
  Playback playback(2, 10);  // seconds 2 to 12 of the bag
  ASSERT_TRUE(WaitFor([&] { return !playback.paused() && playback.shown() >= 2200; }, 5000));
  EXPECT_TRUE(playback.control().Apply(Key::kPause));
  ASSERT_TRUE(WaitFor([&] { return playback.paused(); }, 5000));
  const long at = playback.shown();
  ASSERT_LT(at, 7000);
  // The player's own tests check that a pause holds and a step plays one batch.
  ASSERT_TRUE(playback.PausesAt(Key::kStep, at + 100));

  // Back past the range's start stops at the start.
  ASSERT_TRUE(playback.PausesAt(Key::kLeft, 2000));
  ASSERT_TRUE(playback.PausesAt(Key::kRight, 7000));
  // 12 s is the range's end: nothing would be left, so the key is refused.
  EXPECT_FALSE(playback.control().Apply(Key::kRight));
  usleep(200000);
  EXPECT_EQ(7000, playback.shown());
  // From a played batch, a seek counts from that batch's second.
  EXPECT_TRUE(playback.control().Apply(Key::kPause));
  ASSERT_TRUE(WaitFor([&] { return playback.shown() >= 8200; }, 5000)) << playback.shown();
  EXPECT_TRUE(playback.control().Apply(Key::kPause));
  ASSERT_TRUE(WaitFor([&] { return playback.paused(); }, 5000));
  const long from = playback.shown();
  ASSERT_TRUE(playback.PausesAt(Key::kLeft, from / 1000 * 1000 - 5000)) << "from " << from;

  // Running, a seek goes on running from the new place; a step then pauses first.
  EXPECT_TRUE(playback.control().Apply(Key::kPause));
  EXPECT_TRUE(playback.control().Apply(Key::kRight));
  ASSERT_TRUE(WaitFor([&] { return !playback.paused() && playback.shown() >= 7000; }, 5000))
      << playback.shown();
  EXPECT_TRUE(playback.control().Apply(Key::kStep));
  ASSERT_TRUE(WaitFor([&] { return playback.paused(); }, 5000));
}

TEST(PlayControlTest, LoopKeyMakesTheRangePlayAgain) {
  Playback playback(0, 1, true);
  EXPECT_TRUE(playback.control().loop());
  // The range holds 11 batches; looping, the player goes on past them.
  ASSERT_TRUE(WaitFor([&] { return playback.batches() > 25; }, 10000)) << playback.batches();
  EXPECT_LE(playback.shown(), 1000);
  EXPECT_TRUE(playback.control().Apply(Key::kLoop));
  EXPECT_FALSE(playback.control().loop());
}

}  // namespace
}  // namespace cli
}  // namespace kelo
