#ifndef KELO_PLAY_PLAY_CLOCK_H_
#define KELO_PLAY_PLAY_CLOCK_H_

#include <cstdint>

namespace kelo {
namespace play_internal {

// The wall clock the player schedules by: milliseconds since the epoch from
// gettimeofday, tv_sec * 1000 + tv_usec / 1000.0 truncated toward zero.
int64_t WallClockMs();

// Returns once the wall clock (the clock gettimeofday reads) has reached `deadline_us`,
// microseconds since the epoch; at once when it already has. Signals do not cut it short.
//
// A plain relative sleep wakes up late by the thread's timer slack plus the wake-up
// latency, easily a tenth of a millisecond. This sleeps to an absolute deadline with the
// slack lowered for the duration of the call (and restored afterwards), wakes a little
// early and spins on the clock for the rest. How early is learnt per thread: it follows the
// worst of how late this thread's recent sleeps woke up, between kMinSpinMicros and
// kMaxSpinMicros, so a quiet machine spins for a few microseconds per call and a busy one
// (a virtual machine whose idle CPUs wake up milliseconds late) for more.
void SleepUntilWallUs(int64_t deadline_us);

constexpr int64_t kMinSpinMicros = 5;
constexpr int64_t kMaxSpinMicros = 2000;

}  // namespace play_internal
}  // namespace kelo

#endif  // KELO_PLAY_PLAY_CLOCK_H_
