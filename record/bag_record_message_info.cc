// The statistics history of BagRecord.

#include <cstdint>

#include "record/bag_record.h"

namespace kelo {

namespace {

// A span this short cannot give a rate: one record, or records of one millisecond.
constexpr double kMinSpan = 0.00001;
// A stream silent for this long (or for this many of its usual intervals, when those are
// longer than a second) has stopped, and its rate now is 0.
constexpr double kSilenceSeconds = 2.0;

}  // namespace

BagRecord::MessageInfoQueue::MessageInfoQueue() : total_bytes_(0), history_bytes_(0), time_span_(0.0) {}

void BagRecord::MessageInfoQueue::append(const MessageInfo& info) {
  total_bytes_ += info.bytes;
  history_bytes_ += info.bytes;
  infos_.push_back(info);
  while (infos_.size() > kHistory) {
    history_bytes_ -= infos_.front().bytes;
    infos_.pop_front();
  }
  time_span_ = infos_.back().time - infos_.front().time;
}

double BagRecord::MessageInfoQueue::freq() const {
  if (infos_.empty() || kMinSpan >= time_span_) return 0.0;
  // N records spanning T seconds are N − 1 intervals.
  return static_cast<double>(static_cast<int32_t>(infos_.size() - 1)) / time_span_;
}

double BagRecord::MessageInfoQueue::pre_bytes() const {
  if (infos_.empty() || kMinSpan >= time_span_) return 0.0;
  // The oldest record's bytes arrived at the start of the span, not within it.
  return static_cast<double>(static_cast<int64_t>(history_bytes_ - infos_.front().bytes)) / time_span_;
}

void FillMonitorRates(const BagRecord::MessageInfoQueue& queue, double now_s,
                      tools::interactive::BagRecordMessageInfo* info) {
  const double freq = queue.freq();
  const double bytes = queue.pre_bytes();
  info->set_freq(freq);
  info->set_pre_bytes(bytes);
  info->set_total_bytes(queue.total_bytes());
  const double silence = freq > 1.0 || freq <= 0.0 ? kSilenceSeconds : kSilenceSeconds / freq;
  const bool silent = now_s - queue.last_time() > silence;
  info->set_current_freq(silent ? 0.0 : freq);
  info->set_current_bytes(silent ? 0.0 : bytes);
}

}  // namespace kelo
