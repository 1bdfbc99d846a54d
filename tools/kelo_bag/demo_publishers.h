#ifndef KELO_TOOLS_KELO_BAG_DEMO_PUBLISHERS_H_
#define KELO_TOOLS_KELO_BAG_DEMO_PUBLISHERS_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kelo {
namespace cli {

class LcmBus;

// The sensors of `kelo_bag demo`: threads that make messages at fixed rates, the way a
// vehicle's nodes would: a 30 Hz 1 MB /camera, a 10 Hz 2 MB /lidar, a 200 Hz /imu and a
// 1 Hz /status. Every payload starts with its type's 8-byte fingerprint, as lcm-gen
// messages do. The messages are put on the bus by the thread that also dispatches it: LCM's
// in-process provider stalls when other threads publish while it still holds messages.
//
//   DemoPublishers publishers;
//   publishers.Start();
//   while (...) { publishers.PublishPending(bus, 10); bus->Handle(0); ... }
//   publishers.Stop();   // returns once nothing more is made
class DemoPublishers {
 public:
  struct Stream {
    std::string topic;
    double hz;
    size_t bytes;
    uint64_t fingerprint;
  };

  // The streams, in the order above.
  static const std::vector<Stream>& Streams();

  // What the payloads of `stream` are cut from: a picture-like gradient that compresses, as
  // sensor data often does.
  static std::string Pattern(const Stream& stream);
  // The payload of message `sequence` of `stream`: the fingerprint (big-endian), the
  // sequence number (big-endian), then a part of `pattern` that moves with the sequence,
  // so that no two messages are alike.
  static std::string Payload(const Stream& stream, const std::string& pattern, uint64_t sequence);

  DemoPublishers() = default;
  ~DemoPublishers();

  DemoPublishers(const DemoPublishers&) = delete;
  DemoPublishers& operator=(const DemoPublishers&) = delete;

  // Starts one thread per stream.
  void Start();
  // Stops and joins the threads; messages made and not yet published stay pending.
  void Stop();

  // Publishes on `bus`, on the calling thread, every message made so far, in the order
  // made; waits up to `wait_ms` for one when none is pending. Returns how many it published.
  size_t PublishPending(LcmBus* bus, int wait_ms);

  // Messages published so far, over all streams.
  uint64_t published() const { return published_.load(); }

 private:
  // At most this many messages wait to be published; a stream whose messages are not
  // taken waits too, so a slow bus slows the sensors rather than filling memory.
  static constexpr size_t kMaxPending = 256;

  void Run(const Stream& stream);

  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> published_{0};
  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::pair<std::string, std::string>> pending_;  // topic, payload
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_DEMO_PUBLISHERS_H_
