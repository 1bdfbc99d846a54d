#ifndef KELO_TESTS_PLATFORM_TRIGGER_TRIGGER_TEST_UTIL_H_
#define KELO_TESTS_PLATFORM_TRIGGER_TRIGGER_TEST_UTIL_H_

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/peer_process.h"

namespace kelo {
namespace testing_trigger {

using testing_support::PeerProcess;

// Waits are generous: sanitizer builds on a busy machine are slow, and a wait that ends
// early on success costs nothing.
constexpr int kWaitMs = 20000;

inline long WallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The notices some nodes were given, with when they came.
class NoticeLog {
 public:
  struct Entry {
    std::string node;
    std::string notice;
    long at_ms;  // wall clock when the callback ran
  };

  std::function<void(const std::string&)> Collect(const std::string& node) {
    return [this, node](const std::string& notice) { Add(node, notice); };
  }

  void Add(const std::string& node, const std::string& notice) {
    const long at = WallClockMs();
    std::lock_guard<std::mutex> hold(mu_);
    entries_.push_back(Entry{node, notice, at});
    changed_.notify_all();
  }

  // Whether at least `count` notices whose text contains `part` came within `timeout_ms`.
  bool WaitFor(size_t count, const std::string& part, int timeout_ms = kWaitMs) {
    std::unique_lock<std::mutex> hold(mu_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [&] { return CountLocked(part) >= count; });
  }

  // The notices whose text contains `part`, in the order they came.
  std::vector<Entry> With(const std::string& part) {
    std::lock_guard<std::mutex> hold(mu_);
    std::vector<Entry> found;
    for (const Entry& e : entries_) {
      if (e.notice.find(part) != std::string::npos) found.push_back(e);
    }
    return found;
  }

 private:
  size_t CountLocked(const std::string& part) const {
    size_t n = 0;
    for (const Entry& e : entries_) n += e.notice.find(part) != std::string::npos;
    return n;
  }

  std::mutex mu_;
  std::condition_variable changed_;
  std::vector<Entry> entries_;
};

}  // namespace testing_trigger
}  // namespace kelo

#endif  // KELO_TESTS_PLATFORM_TRIGGER_TRIGGER_TEST_UTIL_H_
