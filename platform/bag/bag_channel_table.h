#ifndef KELO_PLATFORM_BAG_BAG_CHANNEL_TABLE_H_
#define KELO_PLATFORM_BAG_BAG_CHANNEL_TABLE_H_

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

namespace kelo {

// One MCAP channel of a bag: a (topic, type) pair. The type is stored as the name of the
// channel's schema, so every message keeps the type it was written with.
struct BagChannel {
  uint16_t id = 0;
  uint16_t schema_id = 0;
  std::string topic;
  std::string type;
  uint32_t sequence = 0;  // messages written on the channel so far, across files
};

// Gives each (topic, type) pair a channel id and each type a schema id, both from 1 and
// stable for the writer's lifetime, so that all parts of a recording number them alike.
// Not thread-safe: the writer calls it under its lock.
class BagChannelTable {
 public:
  BagChannelTable() = default;
  BagChannelTable(const BagChannelTable&) = delete;
  BagChannelTable& operator=(const BagChannelTable&) = delete;

  // The channel of (topic, type), created when new (`*created` set accordingly). Null
  // when all 65535 ids are taken. The pointer stays valid for the table's lifetime.
  BagChannel* Get(const std::string& topic, const std::string& type, bool* created);

  // Every channel, in id order.
  const std::deque<BagChannel>& all() const { return channels_; }

 private:
  std::deque<BagChannel> channels_;  // index = id - 1; a deque keeps pointers stable
  std::unordered_map<std::string, std::vector<BagChannel*>> by_topic_;
  std::unordered_map<std::string, uint16_t> schema_ids_;
  BagChannel* last_ = nullptr;  // messages mostly repeat the previous channel
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_CHANNEL_TABLE_H_
