#include "platform/trigger/trigger_notice.h"

namespace kelo {

namespace {

constexpr char kWord[] = "trigger ";

bool IsLabelChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
         c == '.';
}

// Decimal digits without sign or leading zero ("0" itself is fine), at most kMaxTimeMs.
bool ParseTime(const std::string& text, long* value) {
  if (text.empty() || text.size() > 15 || (text.size() > 1 && text[0] == '0')) return false;
  long v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (v > TriggerNotice::kMaxTimeMs) return false;
  *value = v;
  return true;
}

}  // namespace

bool TriggerNotice::IsValidLabel(const std::string& label) {
  if (label.size() > kMaxLabelBytes) return false;
  for (char c : label) {
    if (!IsLabelChar(c)) return false;
  }
  return true;
}

bool TriggerNotice::IsValid() const { return time_ms >= 0 && time_ms <= kMaxTimeMs && IsValidLabel(label); }

std::string TriggerNotice::ToText() const {
  std::string text = kWord + std::to_string(time_ms);
  if (!label.empty()) text += " " + label;
  return text;
}

bool TriggerNotice::Parse(const std::string& text, TriggerNotice* notice) {
  const size_t word = sizeof(kWord) - 1;
  if (text.compare(0, word, kWord) != 0) return false;
  const size_t blank = text.find(' ', word);
  TriggerNotice parsed;
  if (!ParseTime(text.substr(word, blank == std::string::npos ? std::string::npos : blank - word),
                 &parsed.time_ms)) {
    return false;
  }
  if (blank != std::string::npos) {
    parsed.label = text.substr(blank + 1);
    if (parsed.label.empty() || !IsValidLabel(parsed.label)) return false;
  }
  *notice = parsed;
  return true;
}

}  // namespace kelo
