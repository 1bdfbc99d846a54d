#include "tools/kelo_bag/play_control.h"

#include <chrono>
#include <cmath>
#include <thread>

#include "play/bag_play.h"

namespace kelo {
namespace cli {

constexpr int PlayControl::kSeekSeconds;

PlayControl::PlayControl(BagPlay* play, long begin_ms, int start_s, int duration_s)
    : play_(play), begin_ms_(begin_ms), start_s_(start_s), duration_s_(duration_s), origin_s_(start_s) {}

long PlayControl::OnTimeline(bool paused, long bag_time_ms, double elapsed_s, double duration_s) {
  std::lock_guard<std::mutex> hold(mutex_);
  bag_time_ms_ = bag_time_ms;
  range_s_ = duration_s;
  return bag_time_ms > 0 ? bag_time_ms : begin_ms_ + origin_s_ * 1000L;
}

bool PlayControl::loop() const {
  std::lock_guard<std::mutex> hold(mutex_);
  return loop_;
}

bool PlayControl::Apply(Key key) {
  if (key == Key::kQuit) return false;
  std::lock_guard<std::mutex> one_at_a_time(apply_mutex_);
  // A key acts between two steps, after the step under way. The stepping thread gives way
  // while a key waits: a loop that takes the player's lock again at once would otherwise,
  // on a busy machine, keep the key waiting for as long as playback runs.
  key_waiting_.store(true);
  std::lock_guard<std::mutex> between_steps(step_mutex_);
  key_waiting_.store(false);
  switch (key) {
    case Key::kPause:
      // Pausing fails only when already paused: then this key resumes.
      return play_->ControlPause(true) || play_->ControlPause(false);
    case Key::kStep:
      play_->ControlPause(true);
      return play_->ControlSingle();
    case Key::kLoop: {
      bool loop;
      {
        std::lock_guard<std::mutex> hold(mutex_);
        loop = loop_ = !loop_;
      }
      play_->ControlLoop(loop);
      return true;
    }
    case Key::kLeft:
      return Seek(-kSeekSeconds);
    case Key::kRight:
      return Seek(kSeekSeconds);
    case Key::kQuit:
      break;
  }
  return false;
}

int PlayControl::Step() {
  while (key_waiting_.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::lock_guard<std::mutex> hold(step_mutex_);
  return play_->NotifyTimeline();
}

bool PlayControl::Seek(int delta_s) {
  int position_s, end_s;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    // Before the first batch of a range, playback stands at the range's start.
    position_s =
        bag_time_ms_ > 0 ? static_cast<int>(std::floor((bag_time_ms_ - begin_ms_) * 0.001)) : origin_s_;
    end_s = duration_s_ > 0 ? start_s_ + duration_s_ : origin_s_ + static_cast<int>(std::ceil(range_s_));
  }
  int target = position_s + delta_s;
  if (target < start_s_) target = start_s_;
  if (target >= end_s) return false;  // nothing would be left to play
  // The player seeks only while paused, and runs after a seek: keep the user's choice (no
  // step comes in between, Apply holds the step lock).
  const bool was_paused = !play_->ControlPause(true);
  if (!play_->ControlSeek(target, duration_s_ > 0 ? start_s_ + duration_s_ - target : 0)) return false;
  if (was_paused) play_->ControlPause(true);
  std::lock_guard<std::mutex> hold(mutex_);
  origin_s_ = target;
  bag_time_ms_ = 0;
  return true;
}

}  // namespace cli
}  // namespace kelo
