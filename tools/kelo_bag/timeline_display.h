#ifndef KELO_TOOLS_KELO_BAG_TIMELINE_DISPLAY_H_
#define KELO_TOOLS_KELO_BAG_TIMELINE_DISPLAY_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "tools/kelo_bag/status_line.h"

namespace kelo {
namespace cli {

class PlayControl;

// The timeline of `kelo_bag play` as the user sees it:
//   " [RUNNING]  Bag Time: 1700000001000   Duration: 1.000000 / 10.000000"
// counted from the start of the range the user chose, so that a seek moves it rather than
// starting it again. Between two reports of the player (a gap in the bags, when the player
// waits for the next message) it moves on with the wall clock. A thread of its own draws
// it, so that no console output delays the player: on a terminal every tenth of a second,
// elsewhere a line a second, and the last one when Finish() is called.
//
//   TimelineDisplay timeline(&status, &control, range_start_ms);
//   play.SetTimelineInfoCallback([&](bool p, long t, double e, double d) { timeline.Report(p, t, e, d); });
//   ... play ...
//   timeline.Finish();
//
// Report() is called by the player's stepping thread; the display ticks on a thread of its
// own until Finish() or destruction.
class TimelineDisplay {
 public:
  // `speed`: bag seconds played per wall-clock second.
  TimelineDisplay(StatusLine* status, PlayControl* control, long range_start_ms, double speed = 1.0);
  ~TimelineDisplay();

  TimelineDisplay(const TimelineDisplay&) = delete;
  TimelineDisplay& operator=(const TimelineDisplay&) = delete;

  void Report(bool paused, long bag_time_ms, double elapsed_s, double duration_s);
  void Finish();

 private:
  using Clock = std::chrono::steady_clock;
  void Run();
  // Shows where playback stands `now`; the caller holds mutex_.
  void ShowLocked(Clock::time_point now);

  StatusLine* const status_;
  PlayControl* const control_;
  const long range_start_ms_;
  const double speed_;

  std::mutex mutex_;
  std::condition_variable stop_cv_;
  bool stopped_ = false;
  bool reported_ = false;  // a report came
  bool paused_ = false;
  long bag_time_ms_ = 0;    // as shown at the last report
  double duration_s_ = -1;  // of the range the user chose: the first report's
  Clock::time_point reported_at_;
  Clock::time_point shown_at_;
  bool shown_since_report_ = false;
  std::thread ticker_;
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_TIMELINE_DISPLAY_H_
