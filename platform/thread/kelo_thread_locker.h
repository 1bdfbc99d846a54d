#ifndef KELO_PLATFORM_THREAD_KELO_THREAD_LOCKER_H_
#define KELO_PLATFORM_THREAD_KELO_THREAD_LOCKER_H_

#include "platform/thread/kelo_thread_lock.h"

namespace kelo {

// Holds a lock for the lifetime of the locker:
//
//   KeloThreadLocker hold(queue_lock_);
//   messages_->push_back(...);
//
// The lock must outlive the locker.
class KeloThreadLocker {
 public:
  explicit KeloThreadLocker(KeloThreadLock* lock) : lock_(lock) { lock_->lock(); }
  ~KeloThreadLocker() { lock_->unlock(); }

  KeloThreadLocker(const KeloThreadLocker&) = delete;
  KeloThreadLocker& operator=(const KeloThreadLocker&) = delete;

 private:
  KeloThreadLock* const lock_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_THREAD_KELO_THREAD_LOCKER_H_
