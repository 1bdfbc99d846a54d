#include "tools/kelo_bag/status_line.h"

#include <algorithm>

#include "tools/kelo_bag/format_units.h"

namespace kelo {
namespace cli {

RecordStatus StatusOf(const tools::interactive::BagRecordMonitor& snapshot) {
  RecordStatus status;
  status.seconds = snapshot.record_time();
  for (const auto& topic : snapshot.topic_info()) {
    status.messages += static_cast<uint32_t>(topic.message_count());
  }
  const auto& info = snapshot.message_info();
  status.bytes = info.total_bytes();
  status.drops = snapshot.drop_count();
  // A recorder that counts no losses of its own knows only its drops.
  status.lost = snapshot.has_lost_count() ? snapshot.lost_count() : static_cast<uint64_t>(status.drops);
  status.queue = snapshot.queue_size();
  status.messages_per_second = info.has_current_freq() ? info.current_freq() : info.freq();
  status.bytes_per_second = info.has_current_bytes() ? info.current_bytes() : info.pre_bytes();
  status.problem = ProblemKind(snapshot.problems());
  return status;
}

BagLosses LossesOf(const tools::interactive::BagRecordMonitor& snapshot) {
  BagLosses losses;
  for (const auto& loss : snapshot.losses()) {
    BagLossReason reason;
    if (BagLossReasonFromName(loss.reason(), &reason)) losses.Add(loss.topic_name(), reason, loss.count());
  }
  return losses;
}

std::string ProblemKind(const std::string& problems) { return problems.substr(0, problems.find(':')); }

std::string FormatRecordStatus(const RecordStatus& status, const std::string& activity) {
  char rate[64];
  std::snprintf(rate, sizeof(rate), "%.1f msg/s", status.messages_per_second);
  return activity + " " + FormatClock(status.seconds) + "  " + std::to_string(status.messages) + " msgs  " +
         FormatBytes(static_cast<double>(status.bytes)) + "  " + std::to_string(status.lost) + " lost  (" +
         rate + ", " + FormatByteRate(status.bytes_per_second) + ", queue " + std::to_string(status.queue) +
         ")" + (status.problem.empty() ? "" : "  ! " + status.problem);
}

StatusLine::StatusLine(FILE* out, bool terminal) : out_(out), terminal_(terminal) {}

void StatusLine::Show(const std::string& line) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (!terminal_) {
    std::fprintf(out_, "%s\n", line.c_str());
  } else {
    std::fprintf(out_, "\r\033[K%s\r", line.c_str());
    shown_width_ = line.size();
  }
  std::fflush(out_);
}

void StatusLine::AfterText(const std::string& text) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (!terminal_ || shown_width_ == 0 || text.empty()) return;
  // A sink gets a text printed with a line end without it, so the console's line count is
  // the text's line ends, plus one when the text does not end with one.
  const size_t first_width = std::min(text.find('\n'), text.size());
  const size_t lines =
      static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + (text.back() == '\n' ? 0 : 1);
  // The text began on the status line; what was left of the line lies behind the text's
  // first line, `lines` lines up. Erase it there and come back.
  if (first_width < shown_width_) {
    std::fprintf(out_, "\0337\033[%zuA\033[%zuG\033[K\0338", lines, first_width + 1);
    std::fflush(out_);
  }
  shown_width_ = 0;
}

void StatusLine::Clear() {
  std::lock_guard<std::mutex> hold(mutex_);
  if (!terminal_ || shown_width_ == 0) return;
  std::fprintf(out_, "\r\033[K");
  std::fflush(out_);
  shown_width_ = 0;
}

}  // namespace cli
}  // namespace kelo
