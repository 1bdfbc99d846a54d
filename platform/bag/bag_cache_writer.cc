#include "platform/bag/bag_cache_writer.h"

#include <time.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "platform/bag/bag_file_writer.h"
#include "platform/trigger/trigger_notice.h"

namespace kelo {

namespace {

constexpr long kNanosPerMilli = 1000000;
constexpr long kMaxTimeMs = std::numeric_limits<long>::max() / kNanosPerMilli;

// a + b * 1000, held within the range of long: a window bound out of range lies beyond
// every message time anyway.
long AddSeconds(long a, long seconds, int sign) {
  long ms, sum;
  if (__builtin_mul_overflow(seconds, 1000L, &ms)) {
    return (seconds > 0) == (sign > 0) ? std::numeric_limits<long>::max() : std::numeric_limits<long>::min();
  }
  if (sign < 0 ? __builtin_sub_overflow(a, ms, &sum) : __builtin_add_overflow(a, ms, &sum)) {
    return (ms > 0) == (sign > 0) ? std::numeric_limits<long>::max() : std::numeric_limits<long>::min();
  }
  return sum;
}

std::string LocalTimeText(long time_ms) {
  // The C library guards its time-zone state with a lock the thread sanitizer cannot see;
  // saves run on several threads, so they take turns here.
  static std::mutex mu;
  const time_t seconds = static_cast<time_t>(time_ms / 1000);
  struct tm local;
  {
    std::lock_guard<std::mutex> lock(mu);
    tzset();  // a change of TZ since the last save is followed
    if (localtime_r(&seconds, &local) == nullptr) return std::to_string(seconds);
  }
  char text[40];
  const size_t n = strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local);
  return std::string(text, n);
}

}  // namespace

BagCacheWriter::BagCacheWriter(const fileio::FilePath& path, long reserve, long duration, long cache_size)
    : BagCacheWriter(path, reserve, duration, cache_size, BagWriterOptions()) {}

BagCacheWriter::BagCacheWriter(const fileio::FilePath& path, long reserve, long duration, long cache_size,
                               const BagWriterOptions& options)
    : BagWriter(path, options), reserve_(reserve), duration_(duration), cache_size_(cache_size) {}

BagCacheWriter::~BagCacheWriter() = default;

bool BagCacheWriter::open(const std::string& index) { return true; }

void BagCacheWriter::append_message(long time, long record_time, const std::string& topic,
                                    const std::string& data, const std::string& type) {
  if (time < 0 || record_time < 0 || time > kMaxTimeMs || record_time > kMaxTimeMs) {
    std::lock_guard<std::mutex> lock(mu_);
    time_failing_ = true;
    error_log()->Fail("time", "message on " + topic + " at time " + std::to_string(time) +
                                  " ms (recorded at " + std::to_string(record_time) +
                                  " ms) is outside the times a bag can hold; such messages are not cached");
    return;
  }
  BagChannel* c = channel(topic, type);  // declares the topic for every saved file
  if (c == nullptr || cache_size_ <= 0) return;
  const long cost = static_cast<long>(std::min<size_t>(data.size(), std::numeric_limits<long>::max() / 2)) +
                    kMessageOverheadBytes;
  if (cost > cache_size_) return;
  auto payload = std::make_shared<const std::string>(data);
  std::deque<Cached> dropped;  // freed outside the lock
  std::lock_guard<std::mutex> lock(mu_);
  if (time_failing_) {
    time_failing_ = false;
    error_log()->Recover("time", "caching messages again from " + topic);
  }
  cache_.push_back(Cached{c->id, ++sequences_[c->id], time, record_time, std::move(payload)});
  cached_bytes_ += cost;
  while (cached_bytes_ > cache_size_) {
    cached_bytes_ -= static_cast<long>(cache_.front().data->size()) + kMessageOverheadBytes;
    dropped.push_back(std::move(cache_.front()));
    cache_.pop_front();
  }
}

std::string BagCacheWriter::save_file(const std::string& notice) {
  TriggerNotice trigger;
  if (!TriggerNotice::Parse(notice, &trigger)) return "";
  const long begin = AddSeconds(trigger.time_ms, reserve_, -1);
  const long end = AddSeconds(begin, duration_, +1);
  std::vector<Cached> window;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const Cached& m : cache_) {
      if (m.time >= begin && m.time <= end) window.push_back(m);
    }
  }
  if (window.empty()) return "";
  std::stable_sort(window.begin(), window.end(),
                   [](const Cached& a, const Cached& b) { return a.time < b.time; });

  std::string part = LocalTimeText(trigger.time_ms);
  if (!trigger.label.empty()) part += "_" + trigger.label;
  std::lock_guard<std::mutex> save_lock(save_mu_);
  std::unique_ptr<BagFileWriter> file = create_file(part);
  for (const Cached& m : window) {
    file->AddMessage(m.channel, m.sequence, static_cast<uint64_t>(m.time) * kNanosPerMilli,
                     static_cast<uint64_t>(m.record_time) * kNanosPerMilli, m.data->data(), m.data->size());
  }
  return file->Complete();
}

std::string BagCacheWriter::close() { return ""; }

}  // namespace kelo
