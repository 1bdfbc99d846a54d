#ifndef KELO_TESTS_PLATFORM_TRIGGER_TRIGGER_TEST_UTIL_H_
#define KELO_TESTS_PLATFORM_TRIGGER_TRIGGER_TEST_UTIL_H_

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

extern char** environ;

namespace kelo {
namespace testing_trigger {

// Waits are generous: sanitizer builds on a busy machine are slow, and a wait that ends
// early on success costs nothing.
constexpr int kWaitMs = 20000;

inline long WallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A process of its own (the trigger_peer program) whose output lines the test reads.
class PeerProcess {
 public:
  explicit PeerProcess(const std::vector<std::string>& args) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<std::string> all = {KELO_TRIGGER_PEER};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, KELO_TRIGGER_PEER, &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
  }
  ~PeerProcess() { Stop(); }

  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // Reads output until a line equal to `line` (or, with `prefix`, beginning with it) has
  // come; false when it did not within `timeout_ms` or the output ended.
  bool WaitForLine(const std::string& line, int timeout_ms = kWaitMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (size_t seen = 0;;) {
      for (; seen < lines_.size(); ++seen) {
        if (lines_[seen] == line) return true;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd fd = {stdout_, POLLIN, 0};
      if (left.count() <= 0 || poll(&fd, 1, static_cast<int>(left.count())) <= 0) return false;
      char chunk[256];
      const ssize_t n = read(stdout_, chunk, sizeof(chunk));
      if (n <= 0) return false;
      partial_.append(chunk, static_cast<size_t>(n));
      for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
        lines_.push_back(partial_.substr(0, end));
        partial_.erase(0, end + 1);
      }
    }
  }

  // Every complete line read so far.
  const std::vector<std::string>& lines() const { return lines_; }

  // Closes the peer's input and returns its exit status (-1 when it did not exit normally).
  int Stop() {
    if (pid_ <= 0) return -1;
    close(stdin_);
    close(stdout_);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int stdout_ = -1;
  std::string partial_;
  std::vector<std::string> lines_;
};

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
