#ifndef KELO_PLATFORM_BAG_MCAP_RECORDS_H_
#define KELO_PLATFORM_BAG_MCAP_RECORDS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace kelo {
namespace mcap {

// The MCAP records the bag library writes and reads, and their little-endian encoding.
// Encoders append a whole record (opcode, length, content) to a byte string. Parsers take a
// record's content and return false when a field runs past its end; bytes after the last
// known field are ignored, since later format versions may append fields.

extern const char kMagic[8];
constexpr size_t kMagicSize = 8;
constexpr size_t kPrefixSize = 9;          // opcode + uint64 content length
constexpr size_t kMessageHeaderSize = 22;  // Message content before its payload
constexpr size_t kFooterRecordSize = 29;   // never extended
constexpr size_t kDataEndRecordSize = 13;  // never extended

enum Opcode : uint8_t {
  kOpHeader = 0x01,
  kOpFooter = 0x02,
  kOpSchema = 0x03,
  kOpChannel = 0x04,
  kOpMessage = 0x05,
  kOpChunk = 0x06,
  kOpMessageIndex = 0x07,
  kOpChunkIndex = 0x08,
  kOpAttachment = 0x09,
  kOpAttachmentIndex = 0x0A,
  kOpStatistics = 0x0B,
  kOpMetadata = 0x0C,
  kOpMetadataIndex = 0x0D,
  kOpSummaryOffset = 0x0E,
  kOpDataEnd = 0x0F,
};

using KeyValues = std::vector<std::pair<std::string, std::string>>;
using ChannelCounts = std::vector<std::pair<uint16_t, uint64_t>>;

struct Header {
  std::string profile;
  std::string library;
};

struct Footer {
  uint64_t summary_start = 0;
  uint64_t summary_offset_start = 0;
  uint32_t summary_crc = 0;
};

struct Schema {
  uint16_t id = 0;
  std::string name;
  std::string encoding;
  std::string data;
};

struct Channel {
  uint16_t id = 0;
  uint16_t schema_id = 0;
  std::string topic;
  std::string message_encoding;
  KeyValues metadata;
};

// A Message without its payload, which runs from kMessageHeaderSize to the record's end.
struct MessageHeader {
  uint16_t channel_id = 0;
  uint32_t sequence = 0;
  uint64_t log_time = 0;
  uint64_t publish_time = 0;
};

// A Chunk's fields before its records; `records_offset` is where the (possibly
// compressed) records start, counted from the start of the content.
struct ChunkHeader {
  uint64_t message_start_time = 0;
  uint64_t message_end_time = 0;
  uint64_t uncompressed_size = 0;
  uint32_t uncompressed_crc = 0;
  std::string compression;
  uint64_t records_size = 0;
  uint64_t records_offset = 0;
};

struct IndexEntry {
  uint64_t log_time;
  uint64_t offset;
};

struct ChunkIndex {
  uint64_t message_start_time = 0;
  uint64_t message_end_time = 0;
  uint64_t chunk_start_offset = 0;
  uint64_t chunk_length = 0;
  std::vector<std::pair<uint16_t, uint64_t>> message_index_offsets;
  uint64_t message_index_length = 0;
  std::string compression;
  uint64_t compressed_size = 0;
  uint64_t uncompressed_size = 0;
};

struct Statistics {
  uint64_t message_count = 0;
  uint16_t schema_count = 0;
  uint32_t channel_count = 0;
  uint32_t attachment_count = 0;
  uint32_t metadata_count = 0;
  uint32_t chunk_count = 0;
  uint64_t message_start_time = 0;
  uint64_t message_end_time = 0;
  ChannelCounts channel_message_counts;
};

// A named set of key-value pairs, outside any chunk; a Metadata Index in the summary
// points at it.
struct Metadata {
  std::string name;
  KeyValues metadata;
};

struct MetadataIndex {
  uint64_t offset = 0;  // of the Metadata record
  uint64_t length = 0;  // of the whole record, prefix included
  std::string name;
};

struct SummaryOffset {
  uint8_t group_opcode = 0;
  uint64_t group_start = 0;
  uint64_t group_length = 0;
};

// Little-endian appends to a byte string.
void PutU8(std::string* out, uint8_t v);
void PutU16(std::string* out, uint16_t v);
void PutU32(std::string* out, uint32_t v);
void PutU64(std::string* out, uint64_t v);
void PutString(std::string* out, const std::string& s);  // uint32 length + bytes

// Starts a record; returns the position to hand to EndRecord, which fills in the length.
size_t BeginRecord(std::string* out, Opcode op);
void EndRecord(std::string* out, size_t begin);

void AppendHeader(std::string* out, const Header& h);
void AppendFooter(std::string* out, const Footer& f);
void AppendSchema(std::string* out, const Schema& s);
void AppendChannel(std::string* out, const Channel& c);
void AppendMessageHeader(std::string* out, const MessageHeader& m, size_t data_size);
void AppendMessage(std::string* out, const MessageHeader& m, const std::string& data);
// Everything of a Chunk record up to its records, which the caller writes after it.
void AppendChunkHeader(std::string* out, const ChunkHeader& c);
void AppendMessageIndex(std::string* out, uint16_t channel_id, const std::vector<IndexEntry>& e);
void AppendChunkIndex(std::string* out, const ChunkIndex& c);
void AppendStatistics(std::string* out, const Statistics& s);
void AppendMetadata(std::string* out, const Metadata& m);
void AppendMetadataIndex(std::string* out, const MetadataIndex& m);
void AppendSummaryOffset(std::string* out, const SummaryOffset& s);
void AppendDataEnd(std::string* out, uint32_t data_section_crc);

// Reads little-endian fields from a bounded span. Once a read fails, ok() stays false and
// every later read yields zero or empty, so a parser may check once at the end.
class Cursor {
 public:
  Cursor(const char* data, size_t size) : p_(data), left_(size) {}

  uint8_t U8();
  uint16_t U16();
  uint32_t U32();
  uint64_t U64();
  std::string String();   // uint32 length + bytes
  std::string Bytes32();  // uint32 length + bytes
  void Skip(size_t n);
  // Starts a uint32-length-prefixed map or array; returns a cursor over its bytes.
  Cursor Sub32();

  bool ok() const { return ok_; }
  size_t left() const { return left_; }
  const char* here() const { return p_; }

 private:
  bool Take(size_t n);

  const char* p_;
  size_t left_;
  bool ok_ = true;
};

bool ParseHeader(const char* content, size_t size, Header* out);
bool ParseFooter(const char* content, size_t size, Footer* out);
bool ParseSchema(const char* content, size_t size, Schema* out);
bool ParseChannel(const char* content, size_t size, Channel* out);
bool ParseMessageHeader(const char* content, size_t size, MessageHeader* out);
bool ParseChunkHeader(const char* content, size_t size, ChunkHeader* out);
// Appends the entries to `out`; false when the array's length is not a whole number of
// entries or runs past the record.
bool ParseMessageIndex(const char* content, size_t size, uint16_t* channel_id, std::vector<IndexEntry>* out);
bool ParseChunkIndex(const char* content, size_t size, ChunkIndex* out);
bool ParseStatistics(const char* content, size_t size, Statistics* out);
bool ParseMetadata(const char* content, size_t size, Metadata* out);
bool ParseMetadataIndex(const char* content, size_t size, MetadataIndex* out);
bool ParseSummaryOffset(const char* content, size_t size, SummaryOffset* out);
bool ParseDataEnd(const char* content, size_t size, uint32_t* data_section_crc);

inline uint64_t LoadU64(const char* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | static_cast<uint8_t>(p[i]);
  return v;
}

inline uint16_t LoadU16(const char* p) {
  return static_cast<uint16_t>(static_cast<uint8_t>(p[0]) | (static_cast<uint8_t>(p[1]) << 8));
}

}  // namespace mcap
}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_MCAP_RECORDS_H_
