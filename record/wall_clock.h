#ifndef KELO_RECORD_WALL_CLOCK_H_
#define KELO_RECORD_WALL_CLOCK_H_

#include <sys/time.h>

#include <cstdint>

namespace kelo {

// Milliseconds since the epoch, as the recorder stamps everything: seconds × 1000 plus
// microseconds ÷ 1000.0, truncated toward zero.
inline int64_t ToMs(const struct timeval& tv) {
  return static_cast<int64_t>(tv.tv_sec * 1000 + tv.tv_usec / 1000.0);
}

inline int64_t WallClockMs() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return ToMs(now);
}

}  // namespace kelo

#endif  // KELO_RECORD_WALL_CLOCK_H_
