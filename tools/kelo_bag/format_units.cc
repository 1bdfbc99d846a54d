#include "tools/kelo_bag/format_units.h"

#include <time.h>

#include <cmath>
#include <cstdio>
#include <ctime>

namespace kelo {
namespace cli {

std::string FormatBytes(double bytes) {
  static const char* const kUnits[] = {"KB", "MB", "GB", "TB"};
  char text[64];
  if (!(bytes >= 1024.0)) {
    std::snprintf(text, sizeof(text), "%.0f B", bytes > 0 ? bytes : 0.0);
    return text;
  }
  int unit = -1;
  while (bytes >= 1024.0 && unit < 3) {
    bytes /= 1024.0;
    ++unit;
  }
  std::snprintf(text, sizeof(text),
                bytes < 10.0    ? "%.2f %s"
                : bytes < 100.0 ? "%.1f %s"
                                : "%.0f %s",
                bytes, kUnits[unit]);
  return text;
}

std::string FormatByteRate(double bytes_per_second) { return FormatBytes(bytes_per_second) + "/s"; }

std::string FormatClock(double seconds) {
  long total = seconds > 0 && std::isfinite(seconds) ? static_cast<long>(seconds) : 0;
  char text[48];
  if (total >= 3600) {
    std::snprintf(text, sizeof(text), "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
  } else {
    std::snprintf(text, sizeof(text), "%02ld:%02ld", total / 60, total % 60);
  }
  return text;
}

std::string FormatLocalTime(long ms) {
  // Floor division, so that times before the epoch keep a millisecond part of 0..999.
  time_t seconds = static_cast<time_t>(ms / 1000);
  long millis = ms % 1000;
  if (millis < 0) {
    millis += 1000;
    --seconds;
  }
  struct tm local;
  if (localtime_r(&seconds, &local) == nullptr) return std::to_string(ms) + " ms";
  char date[32];
  std::strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &local);
  char text[48];
  std::snprintf(text, sizeof(text), "%s.%03ld", date, millis);
  return text;
}

std::string FormatFixed(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f", decimals, value);
  return text;
}

std::string PadRight(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string PadLeft(const std::string& text, size_t width) {
  return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

}  // namespace cli
}  // namespace kelo
