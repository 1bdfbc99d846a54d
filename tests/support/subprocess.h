#ifndef KELO_TESTS_SUPPORT_SUBPROCESS_H_
#define KELO_TESTS_SUPPORT_SUBPROCESS_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/bag_files.h"

namespace kelo {
namespace testing_support {

// Polls `condition` every 20 ms until it holds or `timeout_ms` passed; returns whether it held.
inline bool WaitFor(const std::function<bool()>& condition, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// A program run by a test, with standard output and error going to files, so the test
// can read what it printed at any time. Standard input is /dev/null. The process is
// killed when the object goes, if it still runs.
class Subprocess {
 public:
  // Starts `argv`; output goes to `<log_prefix>.out` and `<log_prefix>.err`.
  Subprocess(const std::vector<std::string>& argv, const std::string& log_prefix)
      : out_path_(log_prefix + ".out"), err_path_(log_prefix + ".err") {
    // Everything the child needs is made before fork(): a child of a threaded process may
    // only call async-signal-safe functions.
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    if ((pid_ = fork()) == 0) {
      dup2(open("/dev/null", O_RDONLY), 0);
      dup2(open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      dup2(open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      execv(args[0], args.data());
      _exit(127);
    }
  }
  ~Subprocess() {
    Signal(SIGKILL);
    if (pid_ > 0 && !exited_) waitpid(pid_, nullptr, 0);
  }

  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;

  void Signal(int signal_number) {
    if (pid_ > 0 && !exited_) kill(pid_, signal_number);
  }

  // Waits up to `timeout_ms` for the process to end; returns its exit code, 128 + the
  // signal that ended it, or -1 when it still runs.
  int Wait(int timeout_ms) {
    if (exited_) return code_;
    WaitFor([this] { return Poll(); }, timeout_ms);
    return exited_ ? code_ : -1;
  }

  std::string Stdout() const { return ReadFile(out_path_); }
  // Whether the process printed `text` on its standard output within `timeout_ms`.
  bool Prints(const std::string& text, int timeout_ms = 20000) const {
    return WaitFor([&] { return Stdout().find(text) != std::string::npos; }, timeout_ms);
  }
  std::string Stderr() const { return ReadFile(err_path_); }

 private:
  bool Poll() {
    if (pid_ <= 0) return exited_ = true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return false;
    exited_ = true;
    code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
  }

  const std::string out_path_, err_path_;
  pid_t pid_ = -1;
  bool exited_ = false;
  int code_ = -1;
};

struct RunResult {
  int code;  // as Subprocess::Wait() returns it
  std::string out;
  std::string err;
};

// Runs `argv` to its end (at most `timeout_ms`): its exit code and what it printed.
inline RunResult RunToEnd(const std::vector<std::string>& argv, const std::string& log_prefix,
                          int timeout_ms = 60000) {
  Subprocess process(argv, log_prefix);
  return {process.Wait(timeout_ms), process.Stdout(), process.Stderr()};  // in this order
}

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_SUPPORT_SUBPROCESS_H_
