#include "platform/thread/kelo_thread_spin.h"

namespace kelo {

namespace {

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

}  // namespace

KeloThreadSpin::KeloThreadSpin() = default;
KeloThreadSpin::~KeloThreadSpin() = default;

void KeloThreadSpin::lock() {
  for (int i = 0; i < kSpinAttempts; ++i) {
    if (mutex_.try_lock()) return;
    CpuRelax();
  }
  mutex_.lock();
}

}  // namespace kelo
