#include "platform/thread/kelo_thread_lock.h"

namespace kelo {

KeloThreadLock::KeloThreadLock() = default;
KeloThreadLock::~KeloThreadLock() = default;

void KeloThreadLock::lock() { mutex_.lock(); }

bool KeloThreadLock::try_lock() { return mutex_.try_lock(); }

void KeloThreadLock::unlock() { mutex_.unlock(); }

}  // namespace kelo
