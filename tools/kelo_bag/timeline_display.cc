#include "tools/kelo_bag/timeline_display.h"

#include <algorithm>
#include <cstdio>

#include "tools/kelo_bag/play_control.h"

namespace kelo {
namespace cli {

namespace {

constexpr auto kTick = std::chrono::milliseconds(100);
constexpr auto kLineEvery = std::chrono::seconds(1);  // off a terminal

}  // namespace

TimelineDisplay::TimelineDisplay(StatusLine* status, PlayControl* control, long range_start_ms, double speed)
    : status_(status),
      control_(control),
      range_start_ms_(range_start_ms),
      speed_(speed),
      ticker_([this] { Run(); }) {}

TimelineDisplay::~TimelineDisplay() {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stopped_ = true;
  }
  stop_cv_.notify_all();
  ticker_.join();
}

void TimelineDisplay::Report(bool paused, long bag_time_ms, double elapsed_s, double duration_s) {
  // The player counts from its last (re)start; the display counts from the user's range.
  const long shown = control_->OnTimeline(paused, bag_time_ms, elapsed_s, duration_s);
  std::lock_guard<std::mutex> hold(mutex_);
  if (stopped_) return;
  if (duration_s_ < 0) duration_s_ = duration_s;
  reported_ = true;
  paused_ = paused;
  bag_time_ms_ = shown;
  reported_at_ = Clock::now();
  shown_since_report_ = false;
  // Nothing is printed here: this runs between the wait for a batch and its publishing.
}

void TimelineDisplay::Finish() {
  std::lock_guard<std::mutex> hold(mutex_);
  if (stopped_) return;
  if (reported_ && !shown_since_report_ && !status_->terminal()) ShowLocked(reported_at_);
  stopped_ = true;
  stop_cv_.notify_all();
}

void TimelineDisplay::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopped_) {
    stop_cv_.wait_for(lock, kTick);
    if (stopped_ || !reported_) continue;
    const Clock::time_point now = Clock::now();
    // A terminal shows every change and a gap moving; elsewhere a line a second.
    const bool due = status_->terminal() ? !shown_since_report_ || !paused_ : now - shown_at_ >= kLineEvery;
    if (due) ShowLocked(now);
  }
}

void TimelineDisplay::ShowLocked(Clock::time_point now) {
  long bag_time = bag_time_ms_;
  if (!paused_) {
    // The player waits for the next message: playback stands that much further.
    const long end = range_start_ms_ + static_cast<long>(duration_s_ * 1000);
    const long passed = static_cast<long>(
        speed_ * static_cast<double>(std::chrono::duration_cast<std::chrono::milliseconds>(now - reported_at_).count()));
    bag_time = std::max(bag_time, std::min(bag_time + passed, end));
  }
  const double elapsed_s = std::max(0.0, (bag_time - range_start_ms_) * 0.001);
  char line[256];
  std::snprintf(line, sizeof(line), " [%s]%s  Bag Time: %ld   Duration: %.6f / %.6f",
                paused_ ? "PAUSED " : "RUNNING", control_->loop() ? " [LOOP]" : "", bag_time, elapsed_s,
                duration_s_);
  status_->Show(line);
  shown_at_ = now;
  shown_since_report_ = true;
}

}  // namespace cli
}  // namespace kelo
