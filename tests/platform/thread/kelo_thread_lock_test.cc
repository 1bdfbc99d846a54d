#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/thread/kelo_thread_lock.h"
#include "platform/thread/kelo_thread_locker.h"
#include "platform/thread/kelo_thread_spin.h"

namespace kelo {
namespace {

// Catches a lock that lets two threads in, or a locker that never releases (a hang).
TEST(KeloThreadLockTest, KeepsCriticalSectionsExclusiveAcrossThreads) {
  KeloThreadLock lock;
  KeloThreadSpin spin;
  for (KeloThreadLock* any : {&lock, static_cast<KeloThreadLock*>(&spin)}) {
    long counter = 0;  // not atomic: only the lock protects it
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([&] {
        for (int i = 0; i < 20000; ++i) {
          KeloThreadLocker hold(any);
          ++counter;
        }
      });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, 4 * 20000);
  }
}

}  // namespace
}  // namespace kelo
