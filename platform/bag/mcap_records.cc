#include "platform/bag/mcap_records.h"

#include <cstring>

namespace kelo {
namespace mcap {

const char kMagic[8] = {'\x89', 'M', 'C', 'A', 'P', '0', '\r', '\n'};

namespace {

template <typename T>
void PutLE(std::string* out, T v) {
  char b[sizeof(T)];
  for (size_t i = 0; i < sizeof(T); ++i) b[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
  out->append(b, sizeof(T));
}

void StoreU64(char* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

void StoreU32(char* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

// Starts a uint32-length-prefixed map or array; EndSub32 fills in its byte length.
size_t BeginSub32(std::string* out) {
  size_t at = out->size();
  PutU32(out, 0);
  return at;
}

void EndSub32(std::string* out, size_t at) {
  StoreU32(&(*out)[at], static_cast<uint32_t>(out->size() - at - 4));
}

}  // namespace

void PutU8(std::string* out, uint8_t v) { out->push_back(static_cast<char>(v)); }
void PutU16(std::string* out, uint16_t v) { PutLE(out, v); }
void PutU32(std::string* out, uint32_t v) { PutLE(out, v); }
void PutU64(std::string* out, uint64_t v) { PutLE(out, v); }

void PutString(std::string* out, const std::string& s) {
  PutU32(out, static_cast<uint32_t>(s.size()));
  out->append(s);
}

// A map from channel id to a 64-bit value: its byte length, then id and value pairs.
template <typename Pairs>
void PutChannelMap(std::string* out, const Pairs& pairs) {
  PutU32(out, static_cast<uint32_t>(pairs.size() * 10));
  for (const auto& kv : pairs) {
    PutU16(out, kv.first);
    PutU64(out, kv.second);
  }
}

namespace {

void PutKeyValues(std::string* out, const KeyValues& pairs) {
  size_t m = BeginSub32(out);
  for (const auto& kv : pairs) {
    PutString(out, kv.first);
    PutString(out, kv.second);
  }
  EndSub32(out, m);
}

// Reads a map written by PutKeyValues; false when it runs past `c` or ends inside a pair.
bool ParseKeyValues(Cursor* c, KeyValues* out) {
  Cursor m = c->Sub32();
  out->clear();
  while (m.ok() && m.left() > 0) {
    std::string key = m.String();
    std::string value = m.String();
    if (m.ok()) out->emplace_back(std::move(key), std::move(value));
  }
  return c->ok() && m.ok();
}

}  // namespace

size_t BeginRecord(std::string* out, Opcode op) {
  size_t begin = out->size();
  PutU8(out, op);
  PutU64(out, 0);
  return begin;
}

void EndRecord(std::string* out, size_t begin) {
  StoreU64(&(*out)[begin + 1], out->size() - begin - kPrefixSize);
}

void AppendHeader(std::string* out, const Header& h) {
  size_t r = BeginRecord(out, kOpHeader);
  PutString(out, h.profile);
  PutString(out, h.library);
  EndRecord(out, r);
}

void AppendFooter(std::string* out, const Footer& f) {
  size_t r = BeginRecord(out, kOpFooter);
  PutU64(out, f.summary_start);
  PutU64(out, f.summary_offset_start);
  PutU32(out, f.summary_crc);
  EndRecord(out, r);
}

void AppendSchema(std::string* out, const Schema& s) {
  size_t r = BeginRecord(out, kOpSchema);
  PutU16(out, s.id);
  PutString(out, s.name);
  PutString(out, s.encoding);
  PutString(out, s.data);
  EndRecord(out, r);
}

void AppendChannel(std::string* out, const Channel& c) {
  size_t r = BeginRecord(out, kOpChannel);
  PutU16(out, c.id);
  PutU16(out, c.schema_id);
  PutString(out, c.topic);
  PutString(out, c.message_encoding);
  PutKeyValues(out, c.metadata);
  EndRecord(out, r);
}

void AppendMessageHeader(std::string* out, const MessageHeader& m, size_t data_size) {
  PutU8(out, kOpMessage);
  PutU64(out, kMessageHeaderSize + data_size);
  PutU16(out, m.channel_id);
  PutU32(out, m.sequence);
  PutU64(out, m.log_time);
  PutU64(out, m.publish_time);
}

void AppendMessage(std::string* out, const MessageHeader& m, const std::string& data) {
  AppendMessageHeader(out, m, data.size());
  out->append(data);
}

void AppendChunkHeader(std::string* out, const ChunkHeader& c) {
  PutU8(out, kOpChunk);
  PutU64(out, 8 + 8 + 8 + 4 + 4 + c.compression.size() + 8 + c.records_size);
  PutU64(out, c.message_start_time);
  PutU64(out, c.message_end_time);
  PutU64(out, c.uncompressed_size);
  PutU32(out, c.uncompressed_crc);
  PutString(out, c.compression);
  PutU64(out, c.records_size);
}

void AppendMessageIndex(std::string* out, uint16_t channel_id, const std::vector<IndexEntry>& entries) {
  size_t r = BeginRecord(out, kOpMessageIndex);
  PutU16(out, channel_id);
  PutU32(out, static_cast<uint32_t>(entries.size() * 16));
  for (const IndexEntry& e : entries) {
    PutU64(out, e.log_time);
    PutU64(out, e.offset);
  }
  EndRecord(out, r);
}

void AppendChunkIndex(std::string* out, const ChunkIndex& c) {
  size_t r = BeginRecord(out, kOpChunkIndex);
  PutU64(out, c.message_start_time);
  PutU64(out, c.message_end_time);
  PutU64(out, c.chunk_start_offset);
  PutU64(out, c.chunk_length);
  PutChannelMap(out, c.message_index_offsets);
  PutU64(out, c.message_index_length);
  PutString(out, c.compression);
  PutU64(out, c.compressed_size);
  PutU64(out, c.uncompressed_size);
  EndRecord(out, r);
}

void AppendStatistics(std::string* out, const Statistics& s) {
  size_t r = BeginRecord(out, kOpStatistics);
  PutU64(out, s.message_count);
  PutU16(out, s.schema_count);
  PutU32(out, s.channel_count);
  PutU32(out, s.attachment_count);
  PutU32(out, s.metadata_count);
  PutU32(out, s.chunk_count);
  PutU64(out, s.message_start_time);
  PutU64(out, s.message_end_time);
  PutChannelMap(out, s.channel_message_counts);
  EndRecord(out, r);
}

void AppendMetadata(std::string* out, const Metadata& m) {
  size_t r = BeginRecord(out, kOpMetadata);
  PutString(out, m.name);
  PutKeyValues(out, m.metadata);
  EndRecord(out, r);
}

void AppendMetadataIndex(std::string* out, const MetadataIndex& m) {
  size_t r = BeginRecord(out, kOpMetadataIndex);
  PutU64(out, m.offset);
  PutU64(out, m.length);
  PutString(out, m.name);
  EndRecord(out, r);
}

void AppendSummaryOffset(std::string* out, const SummaryOffset& s) {
  size_t r = BeginRecord(out, kOpSummaryOffset);
  PutU8(out, s.group_opcode);
  PutU64(out, s.group_start);
  PutU64(out, s.group_length);
  EndRecord(out, r);
}

void AppendDataEnd(std::string* out, uint32_t data_section_crc) {
  size_t r = BeginRecord(out, kOpDataEnd);
  PutU32(out, data_section_crc);
  EndRecord(out, r);
}

bool Cursor::Take(size_t n) {
  if (!ok_ || n > left_) {
    ok_ = false;
    left_ = 0;
    return false;
  }
  return true;
}

uint8_t Cursor::U8() {
  if (!Take(1)) return 0;
  uint8_t v = static_cast<uint8_t>(*p_);
  p_ += 1;
  left_ -= 1;
  return v;
}

uint16_t Cursor::U16() {
  if (!Take(2)) return 0;
  uint16_t v = LoadU16(p_);
  p_ += 2;
  left_ -= 2;
  return v;
}

uint32_t Cursor::U32() {
  if (!Take(4)) return 0;
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<uint8_t>(p_[i]);
  p_ += 4;
  left_ -= 4;
  return v;
}

uint64_t Cursor::U64() {
  if (!Take(8)) return 0;
  uint64_t v = LoadU64(p_);
  p_ += 8;
  left_ -= 8;
  return v;
}

std::string Cursor::String() {
  uint32_t n = U32();
  if (!Take(n)) return std::string();
  std::string s(p_, n);
  p_ += n;
  left_ -= n;
  return s;
}

std::string Cursor::Bytes32() { return String(); }

void Cursor::Skip(size_t n) {
  if (!Take(n)) return;
  p_ += n;
  left_ -= n;
}

Cursor Cursor::Sub32() {
  uint32_t n = U32();
  if (!Take(n)) {
    Cursor bad(nullptr, 0);
    bad.ok_ = false;
    return bad;
  }
  Cursor sub(p_, n);
  p_ += n;
  left_ -= n;
  return sub;
}

bool ParseHeader(const char* content, size_t size, Header* out) {
  Cursor c(content, size);
  out->profile = c.String();
  out->library = c.String();
  return c.ok();
}

bool ParseFooter(const char* content, size_t size, Footer* out) {
  Cursor c(content, size);
  out->summary_start = c.U64();
  out->summary_offset_start = c.U64();
  out->summary_crc = c.U32();
  return c.ok();
}

bool ParseSchema(const char* content, size_t size, Schema* out) {
  Cursor c(content, size);
  out->id = c.U16();
  out->name = c.String();
  out->encoding = c.String();
  out->data = c.Bytes32();
  return c.ok();
}

bool ParseChannel(const char* content, size_t size, Channel* out) {
  Cursor c(content, size);
  out->id = c.U16();
  out->schema_id = c.U16();
  out->topic = c.String();
  out->message_encoding = c.String();
  return ParseKeyValues(&c, &out->metadata);
}

bool ParseMessageHeader(const char* content, size_t size, MessageHeader* out) {
  if (size < kMessageHeaderSize) return false;
  Cursor c(content, size);
  out->channel_id = c.U16();
  out->sequence = c.U32();
  out->log_time = c.U64();
  out->publish_time = c.U64();
  return c.ok();
}

bool ParseChunkHeader(const char* content, size_t size, ChunkHeader* out) {
  Cursor c(content, size);
  out->message_start_time = c.U64();
  out->message_end_time = c.U64();
  out->uncompressed_size = c.U64();
  out->uncompressed_crc = c.U32();
  out->compression = c.String();
  out->records_size = c.U64();
  if (!c.ok() || out->records_size > c.left()) return false;
  out->records_offset = size - c.left();
  return true;
}

bool ParseMessageIndex(const char* content, size_t size, uint16_t* channel_id, std::vector<IndexEntry>* out) {
  Cursor c(content, size);
  *channel_id = c.U16();
  Cursor a = c.Sub32();
  if (!c.ok() || !a.ok() || a.left() % 16 != 0) return false;
  size_t n = a.left() / 16;
  const char* p = a.here();
  for (size_t i = 0; i < n; ++i, p += 16) out->push_back({LoadU64(p), LoadU64(p + 8)});
  return true;
}

bool ParseChunkIndex(const char* content, size_t size, ChunkIndex* out) {
  Cursor c(content, size);
  out->message_start_time = c.U64();
  out->message_end_time = c.U64();
  out->chunk_start_offset = c.U64();
  out->chunk_length = c.U64();
  Cursor m = c.Sub32();
  out->message_index_offsets.clear();
  if (m.ok() && m.left() % 10 != 0) return false;
  while (m.ok() && m.left() > 0) {
    uint16_t id = m.U16();
    uint64_t offset = m.U64();
    out->message_index_offsets.emplace_back(id, offset);
  }
  out->message_index_length = c.U64();
  out->compression = c.String();
  out->compressed_size = c.U64();
  out->uncompressed_size = c.U64();
  return c.ok() && m.ok();
}

bool ParseStatistics(const char* content, size_t size, Statistics* out) {
  Cursor c(content, size);
  out->message_count = c.U64();
  out->schema_count = c.U16();
  out->channel_count = c.U32();
  out->attachment_count = c.U32();
  out->metadata_count = c.U32();
  out->chunk_count = c.U32();
  out->message_start_time = c.U64();
  out->message_end_time = c.U64();
  Cursor m = c.Sub32();
  out->channel_message_counts.clear();
  if (m.ok() && m.left() % 10 != 0) return false;
  while (m.ok() && m.left() > 0) {
    uint16_t id = m.U16();
    uint64_t count = m.U64();
    out->channel_message_counts.emplace_back(id, count);
  }
  return c.ok() && m.ok();
}

bool ParseMetadata(const char* content, size_t size, Metadata* out) {
  Cursor c(content, size);
  out->name = c.String();
  return ParseKeyValues(&c, &out->metadata);
}

bool ParseMetadataIndex(const char* content, size_t size, MetadataIndex* out) {
  Cursor c(content, size);
  out->offset = c.U64();
  out->length = c.U64();
  out->name = c.String();
  return c.ok();
}

bool ParseSummaryOffset(const char* content, size_t size, SummaryOffset* out) {
  Cursor c(content, size);
  out->group_opcode = c.U8();
  out->group_start = c.U64();
  out->group_length = c.U64();
  return c.ok();
}

bool ParseDataEnd(const char* content, size_t size, uint32_t* data_section_crc) {
  Cursor c(content, size);
  *data_section_crc = c.U32();
  return c.ok();
}

}  // namespace mcap
}  // namespace kelo
