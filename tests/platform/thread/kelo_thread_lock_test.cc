#include <time.h>

#include <atomic>
#include <chrono>
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

double ThreadCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}

// The player holds its lock across long sleeps: catches a waiter that burns a core spinning.
TEST(KeloThreadSpinTest, LongWaitBlocksInsteadOfSpinning) {
  KeloThreadSpin spin;
  std::atomic<bool> started{false};
  double waited = 0, cpu = 0;
  spin.lock();
  std::thread waiter([&] {
    started = true;
    const double cpu_before = ThreadCpuSeconds();
    const auto before = std::chrono::steady_clock::now();
    spin.lock();
    waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
    cpu = ThreadCpuSeconds() - cpu_before;
    spin.unlock();
  });
  while (!started) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  spin.unlock();
  waiter.join();
  ASSERT_GE(waited, 0.3);
  EXPECT_LT(cpu, waited / 4);
}

}  // namespace
}  // namespace kelo
