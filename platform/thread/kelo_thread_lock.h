#ifndef KELO_PLATFORM_THREAD_KELO_THREAD_LOCK_H_
#define KELO_PLATFORM_THREAD_KELO_THREAD_LOCK_H_

#include <mutex>

namespace kelo {

// A non-recursive mutual-exclusion lock that blocks its waiters. It is the base of the
// platform's locks, so code that only takes and releases a lock can accept any of them:
//
//   KeloThreadLock lock;
//   { KeloThreadLocker hold(&lock); ...critical section... }
//
// Locking a lock that the calling thread already holds is a deadlock, never a no-op.
// All members may be called from any thread.
class KeloThreadLock {
 public:
  KeloThreadLock();
  virtual ~KeloThreadLock();

  KeloThreadLock(const KeloThreadLock&) = delete;
  KeloThreadLock& operator=(const KeloThreadLock&) = delete;

  // Returns once the calling thread holds the lock.
  virtual void lock();
  // Takes the lock if it is free; returns whether it was taken. Never waits.
  bool try_lock();
  // Releases the lock, which the calling thread must hold.
  void unlock();

 protected:
  std::mutex mutex_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_THREAD_KELO_THREAD_LOCK_H_
