#include "platform/bag/bag_cache_writer.h"

#include <time.h>

#include <algorithm>
#include <cctype>
#include <limits>
#include <vector>

#include "platform/bag/bag_file_writer.h"
#include "platform/trigger/trigger_notice.h"

namespace kelo {

namespace {

constexpr long kNanosPerMilli = 1000000;
// Runs of dropped messages kept at most, whatever the rate: a bound on memory, reached only
// when the cache is far too small for the traffic.
constexpr size_t kMaxDroppedRuns = 1 << 20;

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
    : BagCacheWriter(path, reserve, duration, cache_size, DefaultBagWriterOptions()) {}

BagCacheWriter::BagCacheWriter(const fileio::FilePath& path, long reserve, long duration, long cache_size,
                               const BagWriterOptions& options)
    : BagWriter(path, options), reserve_(reserve), duration_(duration), cache_size_(cache_size) {}

BagCacheWriter::~BagCacheWriter() = default;

bool BagCacheWriter::open(const std::string& index) { return true; }

void BagCacheWriter::append_message(long time, long record_time, const std::string& topic,
                                    const std::string& data, const std::string& type) {
  if (!CheckTimes(time, record_time, topic)) return;
  BagChannel* c = channel(topic, type);  // declares the topic for every saved file
  if (c == nullptr) return;
  const long cost = static_cast<long>(std::min<size_t>(data.size(), std::numeric_limits<long>::max() / 2)) +
                    kMessageOverheadBytes;
  auto payload = std::make_shared<const std::string>(data);
  std::deque<Cached> dropped;  // freed outside the lock
  std::lock_guard<std::mutex> lock(mu_);
  topics_.emplace(c->id, topic);
  Cached message{c->id, ++sequences_[c->id], time, record_time, std::move(payload)};
  if (cost > cache_size_) {
    NoteDroppedLocked(message);
    dropped.push_back(std::move(message));
    return;
  }
  cache_.push_back(std::move(message));
  cached_bytes_ += cost;
  while (cached_bytes_ > cache_size_) {
    cached_bytes_ -= static_cast<long>(cache_.front().data->size()) + kMessageOverheadBytes;
    NoteDroppedLocked(cache_.front());
    dropped.push_back(std::move(cache_.front()));
    cache_.pop_front();
  }
}

void BagCacheWriter::NoteDroppedLocked(const Cached& message) {
  if (!dropped_.empty() && dropped_.back().time == message.time &&
      dropped_.back().channel == message.channel) {
    ++dropped_.back().count;
  } else {
    dropped_.push_back(Dropped{message.time, message.channel, 1});
  }
  // A window reaches back at most `duration` (or `reserve`) seconds before the newest
  // message when its notice comes; what lies further back is of no use.
  const long horizon = AddSeconds(message.time, std::max(std::max(reserve_, duration_), 0L) + 60, -1);
  while (dropped_.size() > kMaxDroppedRuns || (!dropped_.empty() && dropped_.front().time < horizon)) {
    dropped_.pop_front();
  }
}

std::string BagCacheWriter::save_file(const std::string& notice) {
  TriggerNotice trigger;
  if (!TriggerNotice::Parse(notice, &trigger)) return "";
  const long begin = AddSeconds(trigger.time_ms, reserve_, -1);
  const long end = AddSeconds(begin, duration_, +1);
  std::vector<Cached> window;
  std::map<std::string, uint64_t> cut;
  {
    std::lock_guard<std::mutex> lock(mu_);
    for (const Cached& m : cache_) {
      if (m.time >= begin && m.time <= end) window.push_back(m);
    }
    for (const Dropped& d : dropped_) {
      if (d.time >= begin && d.time <= end) cut[topics_[d.channel]] += d.count;
    }
  }
  for (const auto& [topic, n] : cut) losses()->Add(topic, BagLossReason::kWindowCut, n);
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

std::string BagCacheWriter::WhyNothingToSave(long trigger_ms) {
  const long end = AddSeconds(AddSeconds(trigger_ms, reserve_, -1), duration_, +1);
  std::lock_guard<std::mutex> lock(mu_);
  if (cache_.empty() || end >= cache_.front().time) return "";
  return "its window ended " + std::to_string((cache_.front().time - end) / 1000) +
         " s before the oldest message cached";
}

bool BagCacheWriter::IsSavedName(const std::string& name) const {
  const BagFileName saved = BagFileName::ForPart(path().GetFullPath(), "");
  const std::string base = fileio::FilePath(saved.stem).GetName() + "_";
  constexpr size_t kDigits = 14;
  if (name.size() < base.size() + kDigits + saved.extension.size() ||
      name.compare(0, base.size(), base) != 0 ||
      name.compare(name.size() - saved.extension.size(), saved.extension.size(), saved.extension) != 0) {
    return false;
  }
  for (size_t i = base.size(); i < base.size() + kDigits; ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
  }
  // What follows the time: nothing, "_<label>", "-<n>" or "_<label>-<n>".
  const std::string rest =
      name.substr(base.size() + kDigits, name.size() - base.size() - kDigits - saved.extension.size());
  if (rest.empty()) return true;
  if (rest.size() < 2 || (rest[0] != '_' && rest[0] != '-')) return false;
  for (size_t i = 1; i < rest.size(); ++i) {
    const char c = rest[i];
    const bool digit = c >= '0' && c <= '9';
    if (rest[0] == '-'
            ? !digit
            : !(digit || std::isalpha(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.')) {
      return false;
    }
  }
  return true;
}

}  // namespace kelo
