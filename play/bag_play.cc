#include "play/bag_play.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <utility>

#include "output/tools_module_output.h"
#include "platform/bag/bag_reader.h"
#include "platform/thread/kelo_thread_locker.h"
#include "platform/thread/kelo_thread_spin.h"
#include "play/bag_view.h"
#include "play/play_clock.h"
#include "play/wrapping.h"

namespace kelo {

using play_internal::SleepUntilWallUs;
using play_internal::WallClockMs;
using play_internal::WrapAdd;
using play_internal::WrapMul;
using play_internal::WrapSub;

namespace {

// Truncates toward zero like the processor's conversion, which yields the lowest value
// for anything out of range, without the undefined behaviour of the language's cast.
int64_t TruncateToInt64(double value) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (!(value > -kLimit && value < kLimit)) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

}  // namespace

BagPlay::BagPlay()
    : view_(new BagView()),
      output_(new Output()),
      first_time_(0),
      start_wall_ms_(0),
      pause_wall_ms_(0),
      play_time_(0),
      now_wall_ms_(0),
      lock_(new KeloThreadSpin()),
      rate_(1.0),
      paused_(true),
      loop_(false),
      single_(false),
      playing_(false),
      timeline_callback_([this](bool paused, long bag_time, double elapsed_s, double duration_s) {
        PrintConsoleTimeline(paused, bag_time, elapsed_s, duration_s);
      }) {}

BagPlay::BagPlay(const std::string& path) : BagPlay() { ReadBags(std::list<std::string>{path}); }

BagPlay::BagPlay(const std::list<std::string>& paths) : BagPlay() { ReadBags(paths); }

BagPlay::~BagPlay() {
  ClearPorts();
  delete view_;
  for (BagReader* reader : readers_) delete reader;
  delete output_;
  delete lock_;
  // The callbacks, the current message and the containers go with the members, in
  // reverse order of declaration: timeline callback, message callback, ..., readers_.
}

void BagPlay::ReadBags(const std::list<std::string>& paths) {
  KeloThreadLocker hold(lock_);
  for (const std::string& path : paths) {
    BagReader* reader = new BagReader(path);
    const std::string error = reader->get_error();
    if (!error.empty()) output_->print_messagel(error, true);
    readers_.push_back(reader);
    view_->append_bag(reader);
  }
}

const std::map<std::string, std::string>& BagPlay::GetAllTopics() const { return view_->topics(); }

std::vector<std::pair<std::string, bool>> BagPlay::GetBagErrors() const {
  std::vector<std::pair<std::string, bool>> errors;
  for (const BagReader* reader : readers_) {
    const std::string line = reader->get_error();
    if (line.empty()) continue;
    const BagFileInfo info = reader->file_info();
    errors.emplace_back(line, info.damaged || info.unread_bytes > 0);
  }
  return errors;
}

void BagPlay::SetFilterTopics(const std::set<std::string>& topics) { view_->set_filter_topics(topics); }

void BagPlay::SetMessageCallback(MessageCallback callback) {
  // Swapped out first: a callback replacing itself is still running in a copy (Publish),
  // and the old one is destroyed only here, after the member holds the new one.
  message_callback_.swap(callback);
}

void BagPlay::SetTimelineInfoCallback(TimelineCallback callback) { timeline_callback_.swap(callback); }

void BagPlay::AddPort(const std::string& topic, PlayPortIntf* port) {
  PlayPortIntf* previous = nullptr;
  auto found = ports_.find(topic);
  if (found != ports_.end()) {
    previous = found->second;
    if (port != nullptr) {
      found->second = port;
    } else {
      ports_.erase(found);
    }
  } else if (port != nullptr) {
    ports_.emplace(topic, port);
  }
  if (previous != port) delete previous;
}

void BagPlay::ClearPorts() {
  // Emptied before deleting, so a port destructor that looks at the table sees no
  // dangling entry.
  std::map<std::string, PlayPortIntf*> ports;
  ports.swap(ports_);
  for (auto& entry : ports) delete entry.second;
}

ToolsModuleOutput* BagPlay::output() { return output_; }

int BagPlay::NotifyTimeline() {
  KeloThreadLocker hold(lock_);
  if (!playing_) {
    output_->print_messagel("stop", true);
    return kStopped;
  }
  if (!current_message_) {
    if (loop_) {
      Reset();
      // Rewound while paused: the clock restarts in the middle of the pause, so the pause
      // counts from here. Left at 0, the resume would add the whole epoch to the clock
      // and the next wait would be hours long.
      if (paused_) pause_wall_ms_ = start_wall_ms_;
    }
    if (!loop_ || !current_message_) {
      output_->print_messagel("no message", true);
      return kNoMessage;
    }
  }
  if (paused_ && !single_) {
    PrintTime();
    return kPaused;
  }
  Sleep();
  PrintTime();
  Publish();
  if (!current_message_ && !loop_) playing_ = false;
  return kPlayed;
}

bool BagPlay::ControlPlay(int start, int duration) { return Start(start, duration, true); }

bool BagPlay::ControlSeek(int start, int duration) { return Start(start, duration, false); }

bool BagPlay::Start(int start, int duration, bool print_view) {
  KeloThreadLocker hold(lock_);
  if (!paused_) return false;
  view_->set_time(start, duration);
  if (print_view) PrintView();  // before the clock starts, so that the first message is not kept waiting
  Reset();
  paused_ = false;
  playing_ = true;
  return true;
}

bool BagPlay::ControlPause(bool pause) {
  KeloThreadLocker hold(lock_);
  if (pause == paused_) return false;
  if (pause) {
    paused_ = true;
    pause_wall_ms_ = WallClockMs();
  } else {
    paused_ = false;
    start_wall_ms_ = WrapAdd(start_wall_ms_, WrapSub(WallClockMs(), pause_wall_ms_));
    pause_wall_ms_ = 0;
  }
  return true;
}

bool BagPlay::ControlLoop(bool loop) {
  KeloThreadLocker hold(lock_);
  if (loop == loop_) return false;
  loop_ = loop;
  return true;
}

bool BagPlay::ControlSingle() {
  KeloThreadLocker hold(lock_);
  if (!paused_) return false;
  // The pause so far is cut out of the clock and a new one begins: the single batch is
  // then measured against a clock that is up to date, and the rest of the pause is cut
  // out on resume.
  start_wall_ms_ = WrapAdd(start_wall_ms_, WrapSub(WallClockMs(), pause_wall_ms_));
  single_ = true;
  pause_wall_ms_ = WallClockMs();
  return true;
}

bool BagPlay::ControlQuit() {
  KeloThreadLocker hold(lock_);
  playing_ = false;
  return true;
}

void BagPlay::Reset() {
  view_->reset_message();
  current_message_ = view_->pop_message();
  first_time_ = current_message_ ? current_message_->time : 0;
  pause_wall_ms_ = 0;
  play_time_ = 0;
  now_wall_ms_ = 0;
  // The clock starts as the next millisecond begins: every later message goes out as its
  // own millisecond begins, and the first one, due at once, would otherwise go out anywhere
  // inside the current one, up to a millisecond later than the rest. Sleep() waits for it,
  // as for every other message, so that nothing between here and the first send delays it.
  start_wall_ms_ = WallClockMs() + 1;
}

void BagPlay::Sleep() {
  play_time_ = current_message_->time;
  now_wall_ms_ = WallClockMs();
  const double due = static_cast<double>(WrapSub(play_time_, first_time_)) * rate_;
  const double passed = static_cast<double>(WrapSub(now_wall_ms_, start_wall_ms_));
  const int64_t wait = TruncateToInt64(due - passed);
  if (wait <= 0) return;  // due or late: published at once, no catching up
  // The first batch waits for the clock to start, under a millisecond, even when stepping:
  // a single step jumps the clock only to a later batch.
  if (single_ && due > 0) {
    // Jump the clock to this batch instead of waiting for it.
    single_ = false;
    start_wall_ms_ = WrapSub(start_wall_ms_, wait);
    return;
  }
  // The wait is counted in 32-bit microseconds, so one longer than about 71 minutes wraps
  // to a shorter one. It is measured from the millisecond the clock was read in, which
  // is the batch's due time exactly (rather than up to a millisecond after it).
  const uint32_t wait_us = static_cast<uint32_t>(static_cast<uint64_t>(wait) * 1000u);
  SleepUntilWallUs(WrapAdd(WrapMul(now_wall_ms_, 1000), wait_us));
}

void BagPlay::Publish() {
  while (current_message_) {
    const std::shared_ptr<BagMessage> msg = current_message_;
    if (message_callback_) {
      // A copy, so that a callback may replace itself while it runs.
      const MessageCallback callback = message_callback_;
      callback(msg->time, msg->topic, msg->type, msg->data);
    }
    auto port = ports_.find(msg->topic);
    if (port != ports_.end()) port->second->Deserialize(msg->data);
    current_message_ = view_->pop_message();
    if (!playing_ || !current_message_) return;
    if (current_message_->time > play_time_) return;
  }
}

void BagPlay::PrintTime() {
  double elapsed_s = static_cast<double>(WrapSub(play_time_, first_time_)) * 0.001;
  if (elapsed_s < 0.0) elapsed_s = 0.0;
  const double duration_s = static_cast<double>(view_->duration()) * 0.001;
  // A copy, so that the callback may replace itself while it runs.
  const TimelineCallback callback = timeline_callback_;
  callback(paused_, play_time_, elapsed_s, duration_s);
}

void BagPlay::PrintView() {
  output_->print_format("duration:\n  %.2f\n", static_cast<double>(view_->duration()) * 0.001);
  output_->print_messagel("topic:", true);
  for (const auto& topic : view_->topics()) output_->print_format("  %s\n", topic.first.c_str());
}

void BagPlay::PrintConsoleTimeline(bool paused, long bag_time, double elapsed_s, double duration_s) {
  if (paused) {
    output_->print_format("\r [PAUSED ]  Bag Time: %ld   Duration: %.6f / %.6f               \r", bag_time,
                          elapsed_s, duration_s);
  } else {
    output_->print_format("\r [RUNNING]  Bag Time: %ld   Duration: %.6f / %.6f               \r", bag_time,
                          elapsed_s, duration_s);
  }
  std::fflush(stdout);
}

}  // namespace kelo
