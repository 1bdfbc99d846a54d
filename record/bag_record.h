#ifndef KELO_RECORD_BAG_RECORD_H_
#define KELO_RECORD_BAG_RECORD_H_

#include <cstddef>
#include <cstdint>
#include <deque>

namespace kelo {

// The recorder: takes the messages an embedding tool receives, from any number of threads,
// and writes them to bag files on a save thread of its own.
class BagRecord {
 public:
  // One received message, as the statistics see it.
  struct MessageInfo {
    double time = 0.0;   // wall-clock receive time, seconds since the epoch (ms resolution)
    uint64_t bytes = 0;  // payload size
  };

  // The newest kHistory receptions of one stream (a topic, or all topics together) and the
  // rates over them. No lock of its own: the owner serialises appends and reads.
  class MessageInfoQueue {
   public:
    static constexpr size_t kHistory = 5000;

    MessageInfoQueue();

    // Adds one reception; the oldest falls out once kHistory are held. Amortised O(1).
    void append(const MessageInfo& info);

    // Messages per second: (held − 1) / span; 0.0 while the span is at most 1e-5 s
    // (one record, records of the same millisecond, or a clock that stepped back).
    double freq() const;
    // Bytes per second over the same span, leaving out the oldest held record's bytes.
    double pre_bytes() const;
    // Bytes of every record ever appended.
    uint64_t total_bytes() const { return total_bytes_; }

   private:
    uint64_t total_bytes_;
    uint64_t history_bytes_;
    double time_span_;
    std::deque<MessageInfo> infos_;
  };
};

}  // namespace kelo

#endif  // KELO_RECORD_BAG_RECORD_H_
