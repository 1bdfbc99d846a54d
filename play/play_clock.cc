#include "play/play_clock.h"

#include <sys/prctl.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cerrno>

namespace kelo {
namespace play_internal {

namespace {

constexpr int64_t kNanosPerMicro = 1000;
constexpr int64_t kNanosPerSecond = 1000000000;
// How far past the lateness of a late wake-up the margin is set.
constexpr int64_t kMarginOverNanos = 10000;
// Each sleep that wakes in time takes this share of the margin off: a margin set by one
// late wake-up halves in about 180 sleeps.
constexpr int64_t kMarginDecay = 256;

// How long before a deadline this thread wakes up to spin (see SleepUntilWallUs). Kept
// per thread: the wake-up latency belongs to the thread and the CPUs it runs on. It
// starts at the largest, so that the first deadlines, before anything is learnt, are
// kept as well as the later ones.
thread_local int64_t t_spin_margin_ns = kMaxSpinMicros * kNanosPerMicro;

int64_t ClockNanos(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * kNanosPerSecond + now.tv_nsec;
}

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

// Lowers the calling thread's timer slack for its lifetime. The slack is a property of
// the embedding tool's thread, so it is put back as it was.
class TightTimerSlack {
 public:
  TightTimerSlack() : previous_(prctl(PR_GET_TIMERSLACK)) { prctl(PR_SET_TIMERSLACK, 1UL); }
  ~TightTimerSlack() {
    if (previous_ > 0) prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(previous_));
  }

  TightTimerSlack(const TightTimerSlack&) = delete;
  TightTimerSlack& operator=(const TightTimerSlack&) = delete;

 private:
  const int previous_;
};

}  // namespace

int64_t WallClockMs() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int64_t>(static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000.0);
}

void SleepUntilWallUs(int64_t deadline_us) {
  const int64_t deadline = deadline_us * kNanosPerMicro;
  int64_t remaining = deadline - ClockNanos(CLOCK_REALTIME);
  if (remaining <= 0) return;
  int64_t& margin = t_spin_margin_ns;
  if (remaining > margin) {
    const int64_t wake = deadline - margin;
    {
      TightTimerSlack slack;
      struct timespec at;
      at.tv_sec = static_cast<time_t>(wake / kNanosPerSecond);
      at.tv_nsec = static_cast<long>(wake % kNanosPerSecond);
      while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &at, nullptr) == EINTR) {
      }
    }
    const int64_t now = ClockNanos(CLOCK_REALTIME);
    // A wake-up past the deadline raises the margin to a little over how late it came; a
    // slow decay otherwise keeps it near the worst latency of the last few hundred sleeps,
    // the tail that makes a message late, not the typical one.
    if (now - wake > margin) {
      margin = std::min(now - wake + kMarginOverNanos, kMaxSpinMicros * kNanosPerMicro);
    } else {
      margin = std::max(margin - margin / kMarginDecay, kMinSpinMicros * kNanosPerMicro);
    }
    remaining = deadline - now;
  }
  // The rest is spun on the monotonic clock and never for longer than the largest margin,
  // so a wall clock stepped back at this moment cannot keep the thread spinning.
  if (remaining > kMaxSpinMicros * kNanosPerMicro) remaining = kMaxSpinMicros * kNanosPerMicro;
  const int64_t end = ClockNanos(CLOCK_MONOTONIC) + remaining;
  while (ClockNanos(CLOCK_MONOTONIC) < end) CpuRelax();
}

}  // namespace play_internal
}  // namespace kelo
