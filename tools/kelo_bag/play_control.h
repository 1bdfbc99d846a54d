#ifndef KELO_TOOLS_KELO_BAG_PLAY_CONTROL_H_
#define KELO_TOOLS_KELO_BAG_PLAY_CONTROL_H_

#include <atomic>
#include <mutex>

#include "tools/kelo_bag/terminal_keys.h"

namespace kelo {

class BagPlay;

namespace cli {

// What the keys of `kelo_bag play` do to a player: space pauses and resumes, s pauses and
// steps one batch, l toggles the loop, the arrows seek kSeekSeconds back or forward within
// the play range the user chose. Quitting is not the player's business (see play_command).
//
//   PlayControl control(&play, begin_ms, start_s, duration_s);
//   play.SetTimelineInfoCallback(... control.OnTimeline(paused, time, elapsed, length) ...);
//   while (control.Step() != BagPlay::kStopped) {}   // the stepping thread
//   control.Apply(Key::kRight);   // any thread; waits while the player waits for a batch
//
// Apply() may be called from any thread, Step() and OnTimeline() from the stepping thread.
class PlayControl {
 public:
  static constexpr int kSeekSeconds = 5;

  // `begin_ms` is the earliest start time of the bags played, `start_s` and `duration_s`
  // the play range given to the player (duration 0: to the end).
  PlayControl(BagPlay* play, long begin_ms, int start_s, int duration_s);

  PlayControl(const PlayControl&) = delete;
  PlayControl& operator=(const PlayControl&) = delete;

  // Takes the player's timeline report, which tells where playback is, and returns the bag
  // time to show: the player reports 0 until the first batch after a (re)start is due, when
  // playback in fact stands at the start of the range.
  long OnTimeline(bool paused, long bag_time_ms, double elapsed_s, double duration_s);

  // Acts on `key`; returns whether the player took it. kQuit is not taken.
  bool Apply(Key key);

  // One step of the player (BagPlay::NotifyTimeline). The stepping thread steps through
  // here, so that a key acts between two steps, after the step under way at the latest.
  int Step();

  bool loop() const;

 private:
  bool Seek(int delta_s);

  BagPlay* const play_;
  const long begin_ms_;
  const int start_s_;
  const int duration_s_;

  mutable std::mutex mutex_;
  int origin_s_;          // start of the range in force, seconds after begin_ms_
  long bag_time_ms_ = 0;  // time of the last batch waited for; 0 right after a (re)start
  double range_s_ = 0;    // length of the range in force
  bool loop_ = false;
  std::mutex apply_mutex_;            // one key at a time
  std::mutex step_mutex_;                 // held by a step, and by a key from start to end
  std::atomic<bool> key_waiting_{false};  // a key waits for step_mutex_: let it in first
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_PLAY_CONTROL_H_
