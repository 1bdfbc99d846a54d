#ifndef KELO_PLATFORM_TRIGGER_TRIGGER_NOTICE_H_
#define KELO_PLATFORM_TRIGGER_TRIGGER_NOTICE_H_

#include <string>

namespace kelo {

// What a recording node is told when a trigger's window has passed: the trigger's time and
// its label, as one line a person can read and a program can parse back exactly:
//
//   TriggerNotice notice{1709647629000, "brake_event"};
//   notice.ToText();                                  // "trigger 1709647629000 brake_event"
//   TriggerNotice back;
//   bool ok = TriggerNotice::Parse("trigger 1709647629000 brake_event", &back);
//
// The text is "trigger", a blank and the time in decimal milliseconds since the epoch, then,
// when there is a label, a blank and the label. A label is 1 to kMaxLabelBytes characters
// out of letters, digits, '_', '-' and '.', so it needs no escaping and is safe inside a
// file name. A plain value type.
struct TriggerNotice {
  static constexpr size_t kMaxLabelBytes = 64;
  // The last millisecond of the year 9999 (UTC): later times cannot be named with a
  // four-digit year.
  static constexpr long kMaxTimeMs = 253402300799999;

  long time_ms = 0;   // when the trigger happened, 0 to kMaxTimeMs
  std::string label;  // "" or a valid label

  // The text described above. For a notice that is not valid (IsValid() false) the result
  // does not parse.
  std::string ToText() const;

  // Whether `time_ms` and `label` are in range, i.e. whether ToText() parses back.
  bool IsValid() const;

  // Fills `*notice` and returns true when `text` is exactly a text ToText() can produce
  // (no blank too many, no sign, no leading zero, no other character); otherwise returns
  // false and leaves `*notice` untouched.
  static bool Parse(const std::string& text, TriggerNotice* notice);

  // Whether `label` may be a trigger's label: "" or up to kMaxLabelBytes characters out of
  // letters, digits, '_', '-' and '.'.
  static bool IsValidLabel(const std::string& label);
};

}  // namespace kelo

#endif  // KELO_PLATFORM_TRIGGER_TRIGGER_NOTICE_H_
