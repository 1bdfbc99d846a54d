#ifndef KELO_PLAY_BAG_VIEW_H_
#define KELO_PLAY_BAG_VIEW_H_

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/bag/bag_message.h"
#include "platform/bag/bag_reader.h"

namespace kelo {

// Several bags read as one stream of messages in time order, limited to a play range of
// bag time and, optionally, to a set of topics.
//
//   BagView view;  view.append_bag(&reader_a);  view.append_bag(&reader_b);
//   view.set_time(10, 60);                          // from begin_time() + 10 s, for 60 s
//   while (auto msg = view.pop_message()) Use(*msg);
//
// All times are bag times in milliseconds unless a member says seconds. Messages with
// equal times come from the bag appended first, then in each bag's own order.
//
// The view refers to the readers but does not own them: they must outlive it, and it
// moves their cursors, so nothing else may use them while the view does. The view takes
// no lock: one thread at a time.
class BagView {
 public:
  struct BagInfo {
    uint32_t index;     // where reset_message() puts the reader back
    BagReader* reader;  // not owned
  };

  BagView();
  ~BagView();

  BagView(const BagView&) = delete;
  BagView& operator=(const BagView&) = delete;

  // Adds a bag (after the ones appended before) and the topics it declares; a topic
  // already known takes the type of the later bag. The begin time becomes the earliest
  // start time of the bags, except that a begin time of 0 (no bag yet, or only bags
  // without messages) is replaced by the next bag's start time. The play range and the
  // reader's position are left alone: call set_time() or set_time_ms() before reading.
  void append_bag(BagReader* reader);

  // The filter: when it is empty every topic passes, otherwise only the topics in it. A
  // change does not move any reader, so a message already under a reader's cursor is
  // still returned; it is fully in force after the next set_time() or set_time_ms().
  void append_filter_topic(const std::string& topic);
  void set_filter_topics(const std::set<std::string>& topics);

  // Sets the play range to [begin_time() + start, begin_time() + start + duration] and
  // puts every reader on its first accepted message in it; the range ends at the end of
  // the longest bag when `duration` is 0 or would reach past it. A message exactly at the
  // end of the range plays. Readers are checked against the range in force before this
  // call, so a start past the previous range's end leaves the view with nothing to give.
  void set_time_ms(long start, long duration);
  // set_time_ms(start * 1000, duration * 1000): whole seconds.
  void set_time(long start, long duration);

  // Puts every reader back where the last set_time_ms() left it (where it was opened when
  // there was none), so the same range can be played again.
  void reset_message();

  // The next message in merged order, or null when the range is exhausted.
  std::shared_ptr<BagMessage> pop_message();

  // The reader whose current message is the earliest (the first appended among equals),
  // or null when every reader is at its end.
  BagReader* get_min_time_bag() const;

  // The reader's current message, after skipping messages the filter rejects; null, with
  // the reader put at its end, when that message lies past the play range.
  std::shared_ptr<BagMessage> bag_read(BagReader* reader);
  // Advances the reader by one message, then bag_read().
  std::shared_ptr<BagMessage> bag_next(BagReader* reader);

  // The type of `topic`. An unknown topic is added with an empty type, which is returned,
  // and appears in topics() from then on.
  std::string get_message_type(const std::string& topic);

  // Every topic declared by any appended bag, by name, with its type.
  const std::map<std::string, std::string>& topics() const { return topics_; }

  // The earliest start time over the bags (see append_bag), 0 with none.
  long begin_time() const { return begin_time_; }
  // Length of the play range in ms. Before the first set_time_ms() the range is unbounded
  // and this is a very large number.
  long duration() const;

 private:
  int64_t begin_time_;
  int64_t start_time_;
  int64_t end_time_;
  std::map<std::string, std::string> topics_;
  std::set<std::string> filter_topics_;
  std::vector<BagInfo> bags_;
};

}  // namespace kelo

#endif  // KELO_PLAY_BAG_VIEW_H_
