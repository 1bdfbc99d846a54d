#ifndef KELO_PLATFORM_BAG_BAG_ERROR_LOG_H_
#define KELO_PLATFORM_BAG_BAG_ERROR_LOG_H_

#include <atomic>
#include <map>
#include <mutex>
#include <string>

namespace kelo {

// Reports a writer's problems on stderr once per episode: the first failure of a kind is
// printed, repeats are only counted, and the first success after them ends the episode
// with one line saying how many times it failed. A disk that stays full therefore costs
// two lines, not one per message. May be called from any thread.
class BagErrorLog {
 public:
  BagErrorLog() = default;
  BagErrorLog(const BagErrorLog&) = delete;
  BagErrorLog& operator=(const BagErrorLog&) = delete;

  // A failure of kind `kind`; `line` is printed (with "bag: " before it) only when no
  // episode of that kind is open.
  void Fail(const std::string& kind, const std::string& line);

  // A success of kind `kind`; when an episode was open, prints `line` followed by the
  // number of failures it had, and closes it.
  void Recover(const std::string& kind, const std::string& line);

  // Failures counted in the open episode of `kind` (0 when none is open).
  long failures(const std::string& kind) const;

  // The first lines of the open episodes, joined by "; "; "" while all is well.
  std::string problems() const;

 private:
  struct Episode {
    long failures = 0;
    std::string line;
  };

  std::atomic<int> open_count_{0};  // lets Recover skip the lock on the usual path
  mutable std::mutex mu_;
  std::map<std::string, Episode> open_;  // by kind
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_ERROR_LOG_H_
