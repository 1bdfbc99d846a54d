#include "tools/kelo_bag/demo_publishers.h"

#include <chrono>

#include "tools/kelo_bag/lcm_bus.h"

namespace kelo {
namespace cli {

const std::vector<DemoPublishers::Stream>& DemoPublishers::Streams() {
  static const std::vector<Stream> streams = {
      {"/camera", 30.0, 1 << 20, 0x6b63616d65726131ULL},
      {"/lidar", 10.0, 2 << 20, 0x6b6c696461723031ULL},
      {"/imu", 200.0, 64, 0x6b696d7530303031ULL},
      {"/status", 1.0, 48, 0x6b73746174757331ULL},
  };
  return streams;
}

namespace {

constexpr size_t kPatternRow = 1024;

}  // namespace

std::string DemoPublishers::Pattern(const Stream& stream) {
  std::string pattern(stream.bytes + kPatternRow, '\0');
  for (size_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = static_cast<char>((i % kPatternRow) / 4 + i / kPatternRow);
  }
  return pattern;
}

std::string DemoPublishers::Payload(const Stream& stream, const std::string& pattern, uint64_t sequence) {
  std::string payload = pattern.substr(sequence * 7 % kPatternRow, stream.bytes);
  for (size_t i = 0; i < 8 && i < payload.size(); ++i) {
    payload[i] = static_cast<char>(stream.fingerprint >> (56 - 8 * i));
  }
  for (size_t i = 0; i < 8 && 8 + i < payload.size(); ++i) {
    payload[8 + i] = static_cast<char>(sequence >> (56 - 8 * i));
  }
  return payload;
}

constexpr size_t DemoPublishers::kMaxPending;

DemoPublishers::~DemoPublishers() { Stop(); }

void DemoPublishers::Start() {
  stop_.store(false);
  for (const Stream& stream : Streams()) {
    threads_.emplace_back([this, &stream] { Run(stream); });
  }
}

void DemoPublishers::Stop() {
  {
    std::lock_guard<std::mutex> hold(mutex_);
    stop_.store(true);
  }
  changed_.notify_all();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

size_t DemoPublishers::PublishPending(LcmBus* bus, int wait_ms) {
  std::deque<std::pair<std::string, std::string>> batch;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(wait_ms), [this] { return !pending_.empty(); });
    batch.swap(pending_);
  }
  changed_.notify_all();
  for (const auto& message : batch) {
    if (bus->Publish(message.first, message.second)) published_.fetch_add(1);
  }
  return batch.size();
}

void DemoPublishers::Run(const Stream& stream) {
  using Clock = std::chrono::steady_clock;
  const auto period =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / stream.hz));
  const std::string pattern = Pattern(stream);
  const Clock::time_point start = Clock::now();
  for (uint64_t sequence = 0;; ++sequence) {
    // Paced from the start, so that a late message does not delay the ones after it.
    const Clock::time_point due = start + period * static_cast<Clock::rep>(sequence);
    std::string payload = Payload(stream, pattern, sequence);
    std::unique_lock<std::mutex> lock(mutex_);
    if (changed_.wait_until(lock, due, [this] { return stop_.load(); })) return;
    changed_.wait(lock, [this] { return stop_.load() || pending_.size() < kMaxPending; });
    if (stop_.load()) return;
    pending_.emplace_back(stream.topic, std::move(payload));
    lock.unlock();
    changed_.notify_all();
  }
}

}  // namespace cli
}  // namespace kelo
