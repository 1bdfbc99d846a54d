#include "platform/bag/bag_channel_table.h"

namespace kelo {

namespace {
constexpr size_t kMaxIds = 65535;
}  // namespace

BagChannel* BagChannelTable::Get(const std::string& topic, const std::string& type,
                                 bool* created) {
  *created = false;
  if (last_ != nullptr && last_->topic == topic && last_->type == type) return last_;
  std::vector<BagChannel*>& same_topic = by_topic_[topic];
  for (BagChannel* c : same_topic) {
    if (c->type == type) return last_ = c;
  }
  if (channels_.size() >= kMaxIds) return nullptr;
  auto schema = schema_ids_.find(type);
  if (schema == schema_ids_.end()) {
    if (schema_ids_.size() >= kMaxIds) return nullptr;
    schema = schema_ids_.emplace(type, static_cast<uint16_t>(schema_ids_.size() + 1)).first;
  }
  BagChannel c;
  c.id = static_cast<uint16_t>(channels_.size() + 1);
  c.schema_id = schema->second;
  c.topic = topic;
  c.type = type;
  channels_.push_back(std::move(c));
  same_topic.push_back(&channels_.back());
  *created = true;
  return last_ = &channels_.back();
}

}  // namespace kelo
