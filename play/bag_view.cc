#include "play/bag_view.h"

#include <algorithm>
#include <limits>

#include "play/wrapping.h"

namespace kelo {

using play_internal::WrapAdd;
using play_internal::WrapMul;
using play_internal::WrapSub;

namespace {

constexpr int64_t kNoEnd = std::numeric_limits<int64_t>::max();

}  // namespace

BagView::BagView() : begin_time_(0), start_time_(0), end_time_(kNoEnd) {}

BagView::~BagView() = default;

void BagView::append_bag(BagReader* reader) {
  bags_.push_back(BagInfo{0, reader});
  for (const std::shared_ptr<BagTopic>& topic : reader->topics()) {
    topics_[topic->name] = topic->type;
  }
  // A begin time of 0 counts as unset, so a bag that starts at 0 (or has no messages)
  // never holds back the bags that follow it.
  const int64_t start = reader->start_time();
  if (begin_time_ == 0 || begin_time_ > start) begin_time_ = start;
}

void BagView::append_filter_topic(const std::string& topic) { filter_topics_.insert(topic); }

void BagView::set_filter_topics(const std::set<std::string>& topics) {
  if (&topics != &filter_topics_) filter_topics_ = topics;
}

void BagView::set_time_ms(long start, long duration) {
  start_time_ = WrapAdd(begin_time_, start);
  int64_t max_end = 0;
  for (BagInfo& info : bags_) {
    BagReader* reader = info.reader;
    max_end = std::max<int64_t>(max_end, reader->end_time());
    if (start_time_ < reader->start_time()) {
      reader->seek(0);
    } else if (start_time_ <= reader->end_time()) {
      reader->seek_time(start_time_);
    } else {
      reader->seek(reader->count());
    }
    // Still under the previous end: a start beyond it closes the reader here.
    bag_read(reader);
    info.index = reader->index();
  }
  const int64_t end = WrapAdd(start_time_, duration);
  end_time_ = (end <= max_end && duration != 0) ? end : max_end;
  // A bag whose first message in the range lies past the new end has nothing to play: it
  // is closed, here and on every reset, rather than played and waited for.
  for (BagInfo& info : bags_) {
    if (info.reader->eof() || info.reader->read()->time <= end_time_) continue;
    info.reader->seek(info.reader->count());
    info.index = info.reader->index();
  }
}

void BagView::set_time(long start, long duration) {
  set_time_ms(WrapMul(start, 1000), WrapMul(duration, 1000));
}

void BagView::reset_message() {
  for (const BagInfo& info : bags_) info.reader->seek(info.index);
}

std::shared_ptr<BagMessage> BagView::pop_message() {
  BagReader* reader = get_min_time_bag();
  if (reader == nullptr) return nullptr;
  std::shared_ptr<BagMessage> msg = reader->read();
  bag_next(reader);
  return msg;
}

BagReader* BagView::get_min_time_bag() const {
  BagReader* best = nullptr;
  int64_t best_time = kNoEnd;
  for (const BagInfo& info : bags_) {
    BagReader* reader = info.reader;
    if (reader->eof()) continue;
    const int64_t time = reader->read()->time;
    if (time < best_time) {  // strictly: among equal times the earlier bag stays
      best_time = time;
      best = reader;
    }
  }
  return best;
}

std::shared_ptr<BagMessage> BagView::bag_read(BagReader* reader) {
  std::shared_ptr<BagMessage> msg;
  while (!reader->eof()) {
    msg = reader->read();
    if (msg->time > end_time_) {
      reader->seek(reader->count());
      return nullptr;
    }
    if (filter_topics_.empty() || filter_topics_.count(msg->topic) != 0) return msg;
    reader->next();
  }
  return msg;
}

std::shared_ptr<BagMessage> BagView::bag_next(BagReader* reader) {
  reader->next();
  return bag_read(reader);
}

std::string BagView::get_message_type(const std::string& topic) { return topics_[topic]; }

long BagView::duration() const { return WrapSub(end_time_, start_time_); }

}  // namespace kelo
