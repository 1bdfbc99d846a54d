#ifndef KELO_TOOLS_KELO_BAG_STATUS_LINE_H_
#define KELO_TOOLS_KELO_BAG_STATUS_LINE_H_

#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

#include "platform/bag/bag_loss_ledger.h"
#include "proto/bag_record_monitor.pb.h"

namespace kelo {
namespace cli {

// What the record tool tells about a recording once a second.
struct RecordStatus {
  double seconds = 0;              // recording for
  uint64_t messages = 0;           // taken
  uint64_t bytes = 0;              // taken
  int64_t drops = 0;               // dropped from the recorder's queue because the disk fell behind
  uint64_t lost = 0;               // lost for any reason, the drops included
  int64_t queue = 0;               // waiting to be written
  double messages_per_second = 0;  // now: 0 once the traffic stopped
  double bytes_per_second = 0;
  std::string problem;  // what fails, in a few words ("disk full"); "" while all is well
};

// The figures of a recorder's monitor snapshot: the messages are the sum over its topics.
RecordStatus StatusOf(const tools::interactive::BagRecordMonitor& snapshot);

// The losses a snapshot reports, per topic and reason.
BagLosses LossesOf(const tools::interactive::BagRecordMonitor& snapshot);

// The first words of a problem line, up to its first ':' ("disk full").
std::string ProblemKind(const std::string& problems);

// One line, e.g. "recording 00:12  3456 msgs  123 MB  0 lost  (412.0 msg/s, 15.2 MB/s, queue 3)",
// beginning with `activity`, and ending with "  ! disk full" while something fails.
std::string FormatRecordStatus(const RecordStatus& status, const std::string& activity = "recording");

// Keeps one status line at the bottom of a terminal while other texts scroll above it.
// On a terminal the line is redrawn in place and the cursor left at its start, so that a
// text printed meanwhile overwrites it from the first column; AfterText() then clears what
// is left of the status line behind a shorter text. Elsewhere (a pipe, a file) every line
// is printed on a line of its own.
//
//   StatusLine status(stdout, isatty(STDOUT_FILENO));
//   status.Show(FormatRecordStatus(...));            // once a second
//   output->set_output_string_func([&](const std::string& t) { status.AfterText(t); });
//
// All members may be called from any thread.
class StatusLine {
 public:
  StatusLine(FILE* out, bool terminal);

  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  void Show(const std::string& line);
  // Call after `text` was printed whole on the same stream, ending a line: with its own
  // line end, or with one added as print_messagel() adds it (a sink gets the text without
  // that one, which is why a text without a line end counts as a line).
  void AfterText(const std::string& text);
  // Removes the line from a terminal, so that what follows starts on a clean line.
  void Clear();

  bool terminal() const { return terminal_; }

 private:
  FILE* const out_;
  const bool terminal_;
  std::mutex mutex_;
  size_t shown_width_ = 0;  // width of the line on screen; 0 when none
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_STATUS_LINE_H_
