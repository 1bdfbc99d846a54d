#ifndef KELO_PLATFORM_THREAD_KELO_THREAD_SPIN_H_
#define KELO_PLATFORM_THREAD_KELO_THREAD_SPIN_H_

#include "platform/thread/kelo_thread_lock.h"

namespace kelo {

// A lock for short critical sections that are taken very often (the recorder's queue, the
// player's state). A waiter first spins for a few microseconds, which is cheaper than a
// sleep when the holder is about to release; after that it blocks like KeloThreadLock, so a
// lock held for minutes (the player sleeps while holding its lock) costs waiters no CPU.
// Non-recursive. All members may be called from any thread.
class KeloThreadSpin : public KeloThreadLock {
 public:
  KeloThreadSpin();
  ~KeloThreadSpin() override;

  void lock() override;

  // How many failed attempts a waiter spins through before it blocks.
  static constexpr int kSpinAttempts = 128;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_THREAD_KELO_THREAD_SPIN_H_
