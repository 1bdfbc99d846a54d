#ifndef KELO_TESTS_SUPPORT_PEER_PROCESS_H_
#define KELO_TESTS_SUPPORT_PEER_PROCESS_H_

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace kelo {
namespace testing_support {

// A program run beside the test (a peer in a test of several processes) whose output lines
// the test reads and whose standard input it holds: closing it tells the peer to exit.
class PeerProcess {
 public:
  PeerProcess(const std::string& program, const std::vector<std::string>& args) {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<std::string> all = {program};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
  }
  ~PeerProcess() { Stop(); }

  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;

  // Reads output until a line equal to `line` has come; false when it did not within
  // `timeout_ms` (generous: sanitizer builds on a busy machine are slow) or the output ended.
  bool WaitForLine(const std::string& line, int timeout_ms = 20000) {
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

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_SUPPORT_PEER_PROCESS_H_
