#ifndef KELO_TESTS_SUPPORT_REPORT_LOG_H_
#define KELO_TESTS_SUPPORT_REPORT_LOG_H_

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "output/tools_module_output.h"

namespace kelo {
namespace testing_support {

// Collects what a recorder reports through its string sink. It can also hold the thread
// that reports a chosen text inside the sink until the test releases it, which is how tests
// stall the save thread at a known point.
class ReportLog {
 public:
  ToolsModuleOutput::OutputFunc sink() {
    return [this](const std::string& text) { Report(text); };
  }

  // The next report that begins with `prefix` waits in the sink until the next Release().
  void HoldOn(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(mutex_);
    hold_prefix_ = prefix;
    held_ = false;
  }
  // Waits until the report chosen by the last HoldOn() is being held.
  void WaitUntilHeld() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return held_; });
  }
  // Lets every report held so far go on.
  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    releases_ = holds_;
    changed_.notify_all();
  }

  std::vector<std::string> texts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
  }
  // The reports that begin with `prefix` (a whole text is its own prefix).
  size_t Count(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::count_if(texts_.begin(), texts_.end(),
                         [&](const std::string& text) { return text.rfind(prefix, 0) == 0; });
  }

 private:
  void Report(const std::string& text) {
    std::unique_lock<std::mutex> lock(mutex_);
    texts_.push_back(text);
    if (!hold_prefix_.empty() && text.rfind(hold_prefix_, 0) == 0) {
      hold_prefix_.clear();
      held_ = true;
      const long mine = ++holds_;
      changed_.notify_all();
      changed_.wait(lock, [this, mine] { return releases_ >= mine; });
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> texts_;
  std::string hold_prefix_;
  bool held_ = false;
  long holds_ = 0;     // reports held so far
  long releases_ = 0;  // holds released so far
};

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_SUPPORT_REPORT_LOG_H_
