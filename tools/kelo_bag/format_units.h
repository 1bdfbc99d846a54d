#ifndef KELO_TOOLS_KELO_BAG_FORMAT_UNITS_H_
#define KELO_TOOLS_KELO_BAG_FORMAT_UNITS_H_

#include <cstddef>
#include <string>

namespace kelo {
namespace cli {

// How the tool writes quantities for people. Sizes use binary multiples (1 MB = 1048576
// bytes), as the record options do.

// "0 B", "999 B", "12.3 KB", "45.6 MB", "1.23 GB".
std::string FormatBytes(double bytes);
// FormatBytes followed by "/s".
std::string FormatByteRate(double bytes_per_second);
// Elapsed time as "MM:SS", or "H:MM:SS" from one hour on; negative times count as 0.
std::string FormatClock(double seconds);
// A time in ms since the epoch as local "YYYY-MM-DD HH:MM:SS.mmm".
std::string FormatLocalTime(long ms);
// `value` with `decimals` digits after the point.
std::string FormatFixed(double value, int decimals);

// `text` filled with blanks to `width` columns (after it, or before it); longer text is kept.
std::string PadRight(const std::string& text, size_t width);
std::string PadLeft(const std::string& text, size_t width);

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_FORMAT_UNITS_H_
