#ifndef KELO_PLATFORM_BAG_BAG_LOSS_LEDGER_H_
#define KELO_PLATFORM_BAG_BAG_LOSS_LEDGER_H_

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kelo {

// Why a message handed to a recorder did not reach a completed file.
enum class BagLossReason : int {
  kQueueFull = 0,  // the recorder's queue overflowed while the disk fell behind
  kWriteError,     // the file could not be written: an I/O error, an unwritable folder
  kDiskFull,       // no space was left, and the writer's own queue overflowed meanwhile
  kWindowCut,      // a trigger's window reached back before what the cache still held
  kShutdown,       // recording stopped before the message was written
  kEmpty,          // a message without payload, which the recorder does not store
  kBadTime,        // a time a bag cannot hold (negative)
};
constexpr int kBagLossReasons = 7;

// "queue_full", "write_error", "disk_full", "window_cut", "shutdown", "empty", "bad_time".
const char* BagLossReasonName(BagLossReason reason);
// The reason named `name`; false when there is none.
bool BagLossReasonFromName(const std::string& name, BagLossReason* reason);

// Lost messages, counted per topic and reason. A plain value type.
class BagLosses {
 public:
  using Counts = std::array<uint64_t, kBagLossReasons>;

  void Add(const std::string& topic, BagLossReason reason, uint64_t count);
  void Add(const BagLosses& other);

  bool empty() const { return by_topic_.empty(); }
  uint64_t total() const;
  uint64_t total(BagLossReason reason) const;
  uint64_t topic_total(const std::string& topic) const;
  // Topic names to counts, in name order; only topics that lost something.
  const std::map<std::string, Counts>& by_topic() const { return by_topic_; }

  // The reasons with their counts, most first: "3 queue full, 1 disk full"; "" when empty.
  std::string Describe() const;
  // The same of one topic's counts.
  static std::string Describe(const Counts& counts);

  // How a bag stores them: a metadata record of this name whose keys are topic names and
  // whose values list the non-zero counts, "queue_full=3 disk_full=1".
  static const char kMetadataName[];
  std::vector<std::pair<std::string, std::string>> ToMetadata() const;
  // Adds the counts of such a record; false (adding what it could read) for a value that
  // does not parse. Unknown reasons are left out, so later writers may add some.
  bool AddMetadata(const std::vector<std::pair<std::string, std::string>>& values);

  bool operator==(const BagLosses& other) const { return by_topic_ == other.by_topic_; }

 private:
  std::map<std::string, Counts> by_topic_;
};

// The losses of one recording, where everything that loses a message counts it: the
// recorder's queue, the bag writer, the trigger cache. Each completed file takes the
// losses counted since the previous one took theirs (TakeUnfiled), so that a bag tells what
// its recording lost while it was written. May be called from any thread.
class BagLossLedger {
 public:
  BagLossLedger() = default;
  BagLossLedger(const BagLossLedger&) = delete;
  BagLossLedger& operator=(const BagLossLedger&) = delete;

  void Add(const std::string& topic, BagLossReason reason, uint64_t count = 1);

  // Everything counted so far.
  BagLosses Total() const;

  // What was counted since the last TakeUnfiled(), for a file about to be completed.
  BagLosses TakeUnfiled();
  // Gives back what a file took and could not store, for the next file to take.
  void ReturnUnfiled(const BagLosses& losses);

 private:
  mutable std::mutex mu_;
  BagLosses total_;
  BagLosses unfiled_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_LOSS_LEDGER_H_
