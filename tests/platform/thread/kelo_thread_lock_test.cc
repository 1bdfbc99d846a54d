#include <pthread.h>
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

double ThreadCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}

template <typename Lock>
void ExpectMutualExclusion() {
  Lock lock;
  long counter = 0;  // deliberately not atomic: only the lock protects it
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        KeloThreadLocker hold(&lock);
        ++counter;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, 4 * 20000);
}

TEST(KeloThreadLockTest, KeepsCriticalSectionsExclusiveAcrossThreads) {
  ExpectMutualExclusion<KeloThreadLock>();
  ExpectMutualExclusion<KeloThreadSpin>();
}

TEST(KeloThreadLockTest, LockerReleasesOnScopeExitThroughBasePointer) {
  KeloThreadSpin spin;
  KeloThreadLock* base = &spin;
  {
    KeloThreadLocker hold(base);
    std::atomic<bool> taken{true};
    std::thread([&] { taken = spin.try_lock(); }).join();
    EXPECT_FALSE(taken) << "a held lock must not be taken by another thread";
  }
  std::atomic<bool> taken{false};
  std::thread([&] {
    taken = spin.try_lock();
    if (taken) spin.unlock();
  }).join();
  EXPECT_TRUE(taken) << "the locker must release the lock when it goes out of scope";
}

// The player keeps its lock across sleeps of up to minutes: a waiter must block, not burn
// a core, once its brief spin is over.
TEST(KeloThreadSpinTest, LongWaitBlocksInsteadOfSpinning) {
  KeloThreadSpin spin;
  std::atomic<bool> waiter_started{false};
  double waited_seconds = 0, waiter_cpu_seconds = 0;
  spin.lock();
  std::thread waiter([&] {
    waiter_started = true;
    double cpu_before = ThreadCpuSeconds();
    auto before = std::chrono::steady_clock::now();
    spin.lock();
    waited_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
    waiter_cpu_seconds = ThreadCpuSeconds() - cpu_before;
    spin.unlock();
  });
  while (!waiter_started) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  spin.unlock();
  waiter.join();
  ASSERT_GE(waited_seconds, 0.3);
  EXPECT_LT(waiter_cpu_seconds, waited_seconds / 4) << "the waiter spun for most of its wait";
}

}  // namespace
}  // namespace kelo
