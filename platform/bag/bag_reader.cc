#include "platform/bag/bag_reader.h"

#include <algorithm>
#include <limits>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>

#include "platform/bag/mcap_compression.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_index.h"
#include "platform/bag/mcap_records.h"

namespace kelo {

namespace {

constexpr uint64_t kNanosPerMilli = 1000000;
// Decompressed chunks kept for reuse: enough for a merge across a few overlapping chunks.
constexpr size_t kCachedChunks = 4;
// A message whose record runs to the end of a chunk stored without compression, and whose
// payload is at least this large, is read straight into the string it is handed out in.
constexpr uint64_t kInPlaceBytes = 32 << 10;
constexpr uint32_t kNoBlock = std::numeric_limits<uint32_t>::max();

long ToMillis(uint64_t nanos) { return static_cast<long>(nanos / kNanosPerMilli); }

// The payload buffer of the last large message a caller let go of, for the next one read in
// place. The allocator maps every block this large afresh and the kernel then zero-fills it
// page by page, which costs more than reading the payload; a reader going forward reuses
// one buffer instead. Messages may be let go of on any thread, and after the reader is gone.
class PayloadPool {
 public:
  std::string Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(spare_);
  }
  // Keeps the larger of `payload` and the spare; leaves `payload` empty.
  void Give(std::string* payload) {
    std::string smaller;
    std::lock_guard<std::mutex> lock(mutex_);
    if (payload->capacity() > spare_.capacity()) spare_.swap(*payload);
    smaller.swap(*payload);
  }

 private:
  std::mutex mutex_;
  std::string spare_;
};

}  // namespace

struct BagReader::Rep {
  struct ChannelView {
    std::string topic;
    std::string type;
  };

  std::string path;
  std::string open_error;  // why the file is not a bag at all; "" once it opened
  bool opened = false;     // the file is a bag; the index's damage tells what was left out
  mcap::RandomAccessFile file;
  mcap::ChunkDecompressor decompressor;
  mcap::BagIndex index;
  std::unordered_map<uint16_t, ChannelView> channels;
  size_t position = 0;

  std::shared_ptr<BagMessage> current;  // the message at `position`, once decoded
  size_t current_position = std::numeric_limits<size_t>::max();

  std::list<std::pair<uint32_t, std::string>> cache;  // most recently used first
  std::string scratch;
  std::string loose_record;  // the record of a message outside chunks

  // A large message read in place: the cache entry of its chunk holds the records up to
  // its payload, which waits here until read() hands it out.
  std::string in_place_payload;
  std::shared_ptr<PayloadPool> payloads = std::make_shared<PayloadPool>();
  uint32_t in_place_block = kNoBlock;
  uint32_t in_place_offset = 0;

  std::string Error() const;

  size_t valid_position = std::numeric_limits<size_t>::max();  // checked by Settle()

  // The records of the chunk `ref` lies in, from the cache or the file.
  const std::string* Chunk(const mcap::MessageRef& ref, std::string* why);
  bool InPlace(const mcap::MessageRef& ref) const {
    return ref.block == in_place_block && ref.offset == in_place_offset;
  }
  // Forgets the payload waiting to be handed out, with its chunk's cache entry.
  void ForgetInPlace();
  // Finds the record of `ref` and checks it is the message the index promises.
  bool Locate(const mcap::MessageRef& ref, const char** record, uint64_t* length, mcap::MessageHeader* header,
              const ChannelView** channel, std::string* why);
  // Makes sure the message at `position` can be read, dropping damaged chunks until one
  // can; false at the end.
  bool Settle();
  void DropBlock(uint32_t block);
};

const std::string* BagReader::Rep::Chunk(const mcap::MessageRef& ref, std::string* why) {
  for (auto it = cache.begin(); it != cache.end(); ++it) {
    if (it->first == ref.block) {
      if (it != cache.begin()) cache.splice(cache.begin(), cache, it);
      return &cache.front().second;
    }
  }
  std::string records;
  if (cache.size() >= kCachedChunks) {
    const uint32_t evicted = cache.back().first;
    records = std::move(cache.back().second);  // reuse its memory
    cache.pop_back();
    if (evicted == in_place_block) ForgetInPlace();
  }
  const mcap::Block& block = index.blocks[ref.block];
  std::string tail;
  mcap::ChunkSplit split;
  split.at = uint64_t{ref.offset} + mcap::kPrefixSize + mcap::kMessageHeaderSize;
  split.tail = &tail;
  const bool try_split = block.compression.empty() && block.length > split.at + kInPlaceBytes;
  if (try_split) tail = payloads->Take();
  if (!mcap::LoadChunk(file, block, &decompressor, &records, &scratch, why, try_split ? &split : nullptr)) {
    return nullptr;
  }
  if (split.done) {
    const uint64_t length = mcap::LoadU64(records.data() + ref.offset + 1);
    if (length == mcap::kMessageHeaderSize + tail.size()) {
      if (in_place_block != kNoBlock) ForgetInPlace();
      in_place_payload = std::move(tail);
      in_place_block = ref.block;
      in_place_offset = ref.offset;
    } else {
      records += tail;  // other records follow the message: keep the chunk whole
    }
  }
  cache.emplace_front(ref.block, std::move(records));
  return &cache.front().second;
}

void BagReader::Rep::ForgetInPlace() {
  cache.remove_if([this](const std::pair<uint32_t, std::string>& c) { return c.first == in_place_block; });
  payloads->Give(&in_place_payload);
  in_place_block = kNoBlock;
}

bool BagReader::Rep::Locate(const mcap::MessageRef& ref, const char** record, uint64_t* length,
                            mcap::MessageHeader* header, const ChannelView** channel, std::string* why) {
  const mcap::Block& block = index.blocks[ref.block];
  const char* p;
  uint64_t avail;
  if (block.loose) {
    const uint64_t at = block.offset + ref.offset;
    char prefix[mcap::kPrefixSize];
    if (!file.Read(at, mcap::kPrefixSize, prefix) ||
        !file.Read(at + mcap::kPrefixSize, mcap::LoadU64(prefix + 1), &loose_record)) {
      *why = "message at byte " + std::to_string(at) + " cannot be read";
      return false;
    }
    loose_record.insert(0, prefix, mcap::kPrefixSize);
    p = loose_record.data();
    avail = loose_record.size();
  } else {
    const std::string* records = Chunk(ref, why);
    if (records == nullptr) return false;
    // An index that points past the records (into a payload held apart) finds nothing.
    const uint64_t at = std::min<uint64_t>(ref.offset, records->size());
    p = records->data() + at;
    avail = records->size() - at + (InPlace(ref) ? in_place_payload.size() : 0);
  }
  const uint64_t len = avail >= mcap::kPrefixSize ? mcap::LoadU64(p + 1) : 0;
  auto found = channels.end();
  if (avail < mcap::kPrefixSize || static_cast<uint8_t>(p[0]) != mcap::kOpMessage ||
      len > avail - mcap::kPrefixSize || !mcap::ParseMessageHeader(p + mcap::kPrefixSize, len, header) ||
      header->log_time != ref.log_time || (found = channels.find(header->channel_id)) == channels.end()) {
    *why = "message index does not match the data at byte " + std::to_string(block.offset);
    return false;
  }
  *record = p;
  *length = len;
  *channel = &found->second;
  return true;
}

bool BagReader::Rep::Settle() {
  while (position < index.messages.size()) {
    if (valid_position == position) return true;
    const mcap::MessageRef ref = index.messages[position];
    const char* record;
    uint64_t length;
    mcap::MessageHeader header;
    const ChannelView* channel;
    std::string why;
    if (Locate(ref, &record, &length, &header, &channel, &why)) {
      valid_position = position;
      return true;
    }
    // The damage was not visible from the index: leave the chunk out and go on with the
    // next message, so that a reader not at its end always has a message to give.
    if (index.damage.first.empty()) index.damage.first = why;
    DropBlock(ref.block);
  }
  return false;
}

void BagReader::Rep::DropBlock(uint32_t block) {
  if (block == in_place_block) ForgetInPlace();
  auto& messages = index.messages;
  size_t before_position = 0;
  for (size_t i = 0; i < position && i < messages.size(); ++i) {
    if (messages[i].block == block) ++before_position;
  }
  const size_t count = messages.size();
  messages.erase(std::remove_if(messages.begin(), messages.end(),
                                [block](const mcap::MessageRef& m) { return m.block == block; }),
                 messages.end());
  position -= before_position;
  valid_position = std::numeric_limits<size_t>::max();
  current.reset();
  current_position = std::numeric_limits<size_t>::max();
  ++index.damage.damaged_chunks;
  index.damage.lost_messages += count - messages.size();
}

std::string BagReader::Rep::Error() const {
  if (!opened) return open_error.empty() ? "" : path + ": " + open_error;
  const mcap::Damage& d = index.damage;
  if (!d.any()) return "";
  std::string line = path + ": ";
  if (d.damaged()) {
    line += "recovered damaged bag";
  } else if (d.unfinished) {
    line += "recovered unfinished bag";
  } else {
    line += "summary damaged (" + d.summary_problem + "), read by scanning";
  }
  line += ": kept " + std::to_string(index.messages.size()) + " messages";
  if (d.damaged_chunks > 0) {
    line += "; " + std::to_string(d.damaged_chunks) + (d.damaged_chunks == 1 ? " chunk (" : " chunks (") +
            (d.lost_unknown ? "at least " : "") + std::to_string(d.lost_messages) +
            " messages) could not be read";
  } else if (d.lost_messages > 0) {
    line += "; " + std::to_string(d.lost_messages) + " messages could not be read";
  }
  if (d.unread_bytes > 0) {
    line += std::string(d.unfinished && d.damaged_chunks == 0 && d.first.empty() ? "; the last " : "; ") +
            std::to_string(d.unread_bytes) + " bytes could not be read";
  }
  if (!d.first.empty()) line += " (first: " + d.first + ")";
  return line;
}

BagReader::BagReader(const std::string& path) : BagReader(path, false) {}

BagReader::BagReader(const std::string& path, bool summary_only) : rep_(new Rep) {
  Rep& r = *rep_;
  r.path = path;
  std::string error;
  if (!r.file.Open(path, &error)) {
    r.open_error = "cannot open: " + error;
    return;
  }
  if (!mcap::BuildIndex(r.file, &r.decompressor, &r.index, &error, summary_only)) {
    r.open_error = error;
    return;
  }
  r.opened = true;
  for (const auto& c : r.index.channels) {
    Rep::ChannelView view;
    view.topic = c.second.topic;
    auto schema = r.index.schemas.find(c.second.schema_id);
    if (schema != r.index.schemas.end()) view.type = schema->second.name;
    r.channels.emplace(c.first, std::move(view));
  }
}

BagReader::~BagReader() = default;

std::string BagReader::get_error() const { return rep_->Error(); }

bool BagReader::eof() const {
  // Checking the current message here keeps read() from coming up empty before the end
  // when a chunk turns out to be damaged.
  return !rep_->Settle();
}

std::shared_ptr<BagMessage> BagReader::read() {
  Rep& r = *rep_;
  if (!r.Settle()) return nullptr;
  if (r.current_position == r.position) return r.current;
  const char* record;
  uint64_t length;
  mcap::MessageHeader header;
  const Rep::ChannelView* channel;
  std::string why;
  if (!r.Locate(r.index.messages[r.position], &record, &length, &header, &channel, &why)) {
    return nullptr;  // cannot happen: Settle() just located it and the chunk is cached
  }
  std::shared_ptr<BagMessage> message;
  if (r.InPlace(r.index.messages[r.position])) {
    message.reset(new BagMessage, [pool = r.payloads](BagMessage* m) {
      pool->Give(&m->data);
      delete m;
    });
  } else {
    message = std::make_shared<BagMessage>();
  }
  message->topic = channel->topic;
  message->type = channel->type;
  message->time = ToMillis(header.log_time);
  message->record_time = ToMillis(header.publish_time);
  if (r.InPlace(r.index.messages[r.position])) {
    message->data = std::move(r.in_place_payload);
    r.ForgetInPlace();  // the chunk is read again if the message is wanted again
  } else {
    message->data.assign(record + mcap::kPrefixSize + mcap::kMessageHeaderSize, length - mcap::kMessageHeaderSize);
  }
  r.current = std::move(message);
  r.current_position = r.position;
  return r.current;
}

void BagReader::next() {
  if (rep_->position < rep_->index.messages.size()) ++rep_->position;
  // Let go of the message, so that a large payload the caller is done with can be reused.
  rep_->current.reset();
  rep_->current_position = std::numeric_limits<size_t>::max();
}

void BagReader::seek(unsigned index) {
  rep_->position = std::min<size_t>(index, rep_->index.messages.size());
}

void BagReader::seek_time(long time) {
  const auto& messages = rep_->index.messages;
  uint64_t nanos = 0;
  if (time > 0) {
    nanos = static_cast<uint64_t>(time) > std::numeric_limits<uint64_t>::max() / kNanosPerMilli
                ? std::numeric_limits<uint64_t>::max()
                : static_cast<uint64_t>(time) * kNanosPerMilli;
  }
  auto it = std::lower_bound(messages.begin(), messages.end(), nanos,
                             [](const mcap::MessageRef& m, uint64_t t) { return m.log_time < t; });
  rep_->position = static_cast<size_t>(it - messages.begin());
}

unsigned BagReader::index() const { return static_cast<unsigned>(rep_->position); }

unsigned BagReader::count() const {
  const mcap::BagIndex& index = rep_->index;
  return static_cast<unsigned>(index.summary_only ? index.statistics.message_count : index.messages.size());
}

long BagReader::start_time() const {
  const mcap::BagIndex& index = rep_->index;
  if (index.summary_only) return ToMillis(index.statistics.message_start_time);  // 0 without messages
  return index.messages.empty() ? 0 : ToMillis(index.messages.front().log_time);
}

long BagReader::end_time() const {
  const mcap::BagIndex& index = rep_->index;
  if (index.summary_only) return ToMillis(index.statistics.message_end_time);  // 0 without messages
  return index.messages.empty() ? 0 : ToMillis(index.messages.back().log_time);
}

std::vector<std::shared_ptr<BagTopic>> BagReader::topics() const {
  std::vector<std::shared_ptr<BagTopic>> out;
  std::map<std::pair<std::string, std::string>, std::shared_ptr<BagTopic>> seen;
  for (const auto& c : rep_->index.channels) {
    const Rep::ChannelView& view = rep_->channels.at(c.first);
    std::shared_ptr<BagTopic>& topic = seen[{view.topic, view.type}];
    if (!topic) {
      topic = std::make_shared<BagTopic>();
      topic->name = view.topic;
      topic->type = view.type;
      out.push_back(topic);
    }
    // Several channels of one topic and type (another writer's) count together.
    auto stats = rep_->index.channel_stats.find(c.first);
    if (stats == rep_->index.channel_stats.end() || stats->second.messages == 0) continue;
    const long first = ToMillis(stats->second.first_time), last = ToMillis(stats->second.last_time);
    topic->first_time = topic->messages == 0 ? first : std::min(topic->first_time, first);
    topic->last_time = topic->messages == 0 ? last : std::max(topic->last_time, last);
    topic->messages += stats->second.messages;
  }
  return out;
}

BagFileInfo BagReader::file_info() const {
  const Rep& r = *rep_;
  BagFileInfo info;
  info.library = r.index.header.library;
  info.indexed = r.index.from_summary;
  // Damage can also come to light later, when a chunk is read: that counts too.
  const mcap::Damage& d = r.index.damage;
  info.recovered = r.opened && d.any();
  info.damaged = r.opened && d.damaged();
  info.damaged_chunks = d.damaged_chunks;
  info.lost_messages = d.lost_messages;
  info.messages_unknown = d.lost_unknown;
  info.unread_bytes = d.unread_bytes;
  std::vector<std::string> seen;
  for (const mcap::Block& block : r.index.blocks) {
    if (block.loose) continue;
    ++info.chunks;
    const std::string name = block.compression.empty() ? "none" : block.compression;
    if (std::find(seen.begin(), seen.end(), name) == seen.end()) seen.push_back(name);
  }
  for (const std::string& name : seen) {
    info.compression += (info.compression.empty() ? "" : "+") + name;
  }
  return info;
}

std::vector<BagMetadata> BagReader::metadata() const {
  std::vector<BagMetadata> out;
  for (const mcap::Metadata& m : rep_->index.metadata) out.push_back({m.name, m.metadata});
  return out;
}

}  // namespace kelo
