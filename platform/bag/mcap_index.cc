#include "platform/bag/mcap_index.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "platform/bag/mcap_crc32.h"

namespace kelo {
namespace mcap {

namespace {

// Offsets inside a block are 32-bit to keep the index at 16 bytes a message.
constexpr uint64_t kMaxBlockOffset = std::numeric_limits<uint32_t>::max();
constexpr uint64_t kLooseSpan = uint64_t{1} << 31;
constexpr size_t kTailSize = kFooterRecordSize + kMagicSize;
constexpr size_t kChunkHeadRead = 4096;
constexpr uint32_t kNoBlock = std::numeric_limits<uint32_t>::max();

bool InFileOrder(const MessageRef& a, const MessageRef& b) {
  if (a.log_time != b.log_time) return a.log_time < b.log_time;
  if (a.block != b.block) return a.block < b.block;
  return a.offset < b.offset;
}

// Sorts `v`, whose [bounds[i], bounds[i+1]) ranges are runs that are usually sorted
// already (one channel's index, one chunk): unsorted runs are sorted, then runs are
// merged pairwise, which costs little more than checking them.
void SortRuns(std::vector<MessageRef>* v, std::vector<size_t> bounds) {
  if (bounds.empty() || bounds.front() != 0) bounds.insert(bounds.begin(), 0);
  if (bounds.back() != v->size()) bounds.push_back(v->size());
  auto begin = v->begin();
  for (size_t i = 0; i + 1 < bounds.size(); ++i) {
    if (!std::is_sorted(begin + bounds[i], begin + bounds[i + 1], InFileOrder)) {
      std::sort(begin + bounds[i], begin + bounds[i + 1], InFileOrder);
    }
  }
  if (std::is_sorted(v->begin(), v->end(), InFileOrder)) return;
  while (bounds.size() > 2) {
    std::vector<size_t> merged{0};
    for (size_t i = 0; i + 1 < bounds.size(); i += 2) {
      if (i + 2 < bounds.size()) {
        std::inplace_merge(begin + bounds[i], begin + bounds[i + 1], begin + bounds[i + 2], InFileOrder);
        merged.push_back(bounds[i + 2]);
      } else {
        merged.push_back(bounds[i + 1]);
      }
    }
    bounds.swap(merged);
  }
}

void AddSchema(BagIndex* index, Schema&& s) {
  if (s.id == 0) return;  // reserved for "no schema"
  index->schemas.emplace(s.id, std::move(s));
}

void AddChannel(BagIndex* index, Channel&& c) { index->channels.emplace(c.id, std::move(c)); }

// Parses the fields of a Chunk before its records from the first `avail` bytes of its
// content, which is `content_size` bytes long.
bool ParseChunkHead(const char* p, size_t avail, uint64_t content_size, ChunkHeader* h) {
  Cursor c(p, avail);
  h->message_start_time = c.U64();
  h->message_end_time = c.U64();
  h->uncompressed_size = c.U64();
  h->uncompressed_crc = c.U32();
  h->compression = c.String();
  h->records_size = c.U64();
  if (!c.ok()) return false;
  h->records_offset = avail - c.left();
  return h->records_offset <= content_size && h->records_size <= content_size - h->records_offset;
}

// Checks the CRC of a chunk's records, held in `records` followed by `tail`.
bool CheckChunkCrc(const ChunkHeader& h, const std::string& records, const std::string& tail, std::string* error) {
  if (h.uncompressed_crc != 0 &&
      Crc32Extend(Crc32(records.data(), records.size()), tail.data(), tail.size()) != h.uncompressed_crc) {
    *error = "chunk CRC mismatch";
    return false;
  }
  return true;
}

// Decompresses and checks a chunk's records from its header and stored bytes.
bool DecodeChunk(const ChunkHeader& h, const char* stored, ChunkDecompressor* decompressor,
                 std::string* records, std::string* error) {
  if (h.uncompressed_size > kMaxBlockOffset) {
    *error = "chunk of " + std::to_string(h.uncompressed_size) + " bytes is too large";
    return false;
  }
  if (!decompressor->Decompress(h.compression, stored, static_cast<size_t>(h.records_size),
                                h.uncompressed_size, records, error)) {
    return false;
  }
  return CheckChunkCrc(h, *records, std::string(), error);
}

// A message whose channel is unknown cannot be given a topic: it is lost, and said so.
std::string UndeclaredChannel(uint16_t channel, uint64_t at) {
  return "message on undeclared channel " + std::to_string(channel) + " at byte " + std::to_string(at);
}

// Indexes the records of a decompressed chunk, learning the schemas and channels it
// defines. False when its records do not exactly fill it.
bool ScanChunkRecords(const std::string& records, uint32_t block, BagIndex* index, std::string* error) {
  const char* p = records.data();
  const size_t size = records.size();
  size_t pos = 0;
  std::map<uint16_t, ChannelStats> found;  // taken into the index only when the chunk is whole
  uint64_t undeclared = 0;  // messages on a channel no record before them declared
  uint16_t first_undeclared = 0;
  while (pos < size) {
    if (size - pos < kPrefixSize) {
      *error = "chunk ends inside a record";
      return false;
    }
    const uint8_t op = static_cast<uint8_t>(p[pos]);
    const uint64_t len = LoadU64(p + pos + 1);
    if (op == 0 || len > size - pos - kPrefixSize) {
      *error = "broken record inside a chunk";
      return false;
    }
    const char* content = p + pos + kPrefixSize;
    if (op == kOpMessage) {
      MessageHeader m;
      if (!ParseMessageHeader(content, len, &m)) {
        *error = "short message inside a chunk";
        return false;
      }
      if (index->channels.count(m.channel_id) > 0) {
        index->messages.push_back({m.log_time, block, static_cast<uint32_t>(pos)});
        found[m.channel_id].Add(m.log_time);
      } else {
        if (undeclared == 0) first_undeclared = m.channel_id;
        ++undeclared;
      }
    } else if (op == kOpSchema) {
      Schema s;
      if (ParseSchema(content, len, &s)) AddSchema(index, std::move(s));
    } else if (op == kOpChannel) {
      Channel c;
      if (ParseChannel(content, len, &c)) AddChannel(index, std::move(c));
    }
    pos += kPrefixSize + len;
  }
  for (const auto& [channel, stats] : found) {
    ChannelStats& into = index->channel_stats[channel];
    if (stats.messages == 0) continue;
    into.first_time = into.messages == 0 ? stats.first_time : std::min(into.first_time, stats.first_time);
    into.last_time = into.messages == 0 ? stats.last_time : std::max(into.last_time, stats.last_time);
    into.messages += stats.messages;
  }
  if (undeclared > 0 && index->damage.first.empty()) {
    index->damage.first = UndeclaredChannel(first_undeclared, index->blocks[block].offset);
  }
  index->damage.lost_messages += undeclared;
  return true;
}

enum class SummaryUse { kUsed, kAbsent, kDamaged };

// Describes the file from its summary's chunk indexes and statistics and its metadata,
// without a message: false when they do not tell every channel's count and times.
bool DescribeFromSummary(const std::vector<ChunkIndex>& chunks, const Statistics& stats, BagIndex* index) {
  std::map<uint16_t, ChannelStats> times;
  bool have_times = false;
  for (const Metadata& m : index->metadata) {
    if (m.name == kChannelTimesMetadataName) have_times = ReadChannelTimes(m, &times);
  }
  if (!have_times) return false;
  uint64_t total = 0;
  for (const auto& [id, count] : stats.channel_message_counts) {
    if (count == 0) continue;
    auto found = times.find(id);
    if (index->channels.count(id) == 0 || found == times.end()) return false;
    found->second.messages = count;
    total += count;
  }
  if (total != stats.message_count) return false;
  for (auto& [id, s] : times) {
    if (s.messages > 0) index->channel_stats[id] = s;
  }
  for (const ChunkIndex& c : chunks) {
    index->blocks.push_back({false, c.chunk_start_offset, c.chunk_length, c.compression});
  }
  index->statistics = stats;
  index->summary_only = true;
  return true;
}

// Indexes the file from its summary and message indexes. kAbsent when the file has no
// summary or one that does not account for every message (messages outside chunks,
// channels defined only in the data); kDamaged, with `why`, when it is inconsistent.
SummaryUse LoadFromSummary(const RandomAccessFile& file, ChunkDecompressor* decompressor, BagIndex* index,
                           std::string* why, bool summary_only) {
  const uint64_t size = file.size();
  if (size < kMagicSize + kDataEndRecordSize + kTailSize) return SummaryUse::kAbsent;
  char tail[kTailSize];
  if (!file.Read(size - kTailSize, kTailSize, tail)) return SummaryUse::kAbsent;
  if (static_cast<uint8_t>(tail[0]) != kOpFooter || LoadU64(tail + 1) != 20 ||
      std::memcmp(tail + kFooterRecordSize, kMagic, kMagicSize) != 0) {
    return SummaryUse::kAbsent;
  }
  Footer footer;
  ParseFooter(tail + kPrefixSize, 20, &footer);
  if (footer.summary_start == 0) return SummaryUse::kAbsent;
  const uint64_t footer_pos = size - kTailSize;
  if (footer.summary_start < kMagicSize + kDataEndRecordSize || footer.summary_start > footer_pos) {
    *why = "footer points outside the file";
    return SummaryUse::kDamaged;
  }
  const uint64_t data_end_pos = footer.summary_start - kDataEndRecordSize;
  std::string region;
  if (!file.Read(data_end_pos, footer_pos + kFooterRecordSize - data_end_pos, &region)) {
    *why = "summary cannot be read";
    return SummaryUse::kDamaged;
  }
  if (static_cast<uint8_t>(region[0]) != kOpDataEnd || LoadU64(region.data() + 1) != 4) {
    *why = "no data end record before the summary";
    return SummaryUse::kDamaged;
  }
  if (footer.summary_crc != 0 && Crc32(region.data() + kDataEndRecordSize,
                                       region.size() - kDataEndRecordSize - 4) != footer.summary_crc) {
    *why = "summary CRC mismatch";
    return SummaryUse::kDamaged;
  }

  std::vector<ChunkIndex> chunks;
  std::vector<MetadataIndex> metadata;
  Statistics stats;
  int stats_seen = 0;
  const char* p = region.data();
  const size_t end = footer_pos - data_end_pos;
  for (size_t pos = kDataEndRecordSize; pos < end;) {
    if (end - pos < kPrefixSize) {
      *why = "summary ends inside a record";
      return SummaryUse::kDamaged;
    }
    const uint8_t op = static_cast<uint8_t>(p[pos]);
    const uint64_t len = LoadU64(p + pos + 1);
    if (op == 0 || len > end - pos - kPrefixSize) {
      *why = "broken record in the summary";
      return SummaryUse::kDamaged;
    }
    const char* content = p + pos + kPrefixSize;
    bool ok = true;
    if (op == kOpSchema) {
      Schema s;
      ok = ParseSchema(content, len, &s);
      if (ok) AddSchema(index, std::move(s));
    } else if (op == kOpChannel) {
      Channel c;
      ok = ParseChannel(content, len, &c);
      if (ok) AddChannel(index, std::move(c));
    } else if (op == kOpChunkIndex) {
      ChunkIndex c;
      ok = ParseChunkIndex(content, len, &c);
      if (ok) chunks.push_back(std::move(c));
    } else if (op == kOpStatistics) {
      ok = ParseStatistics(content, len, &stats) && ++stats_seen == 1;
    } else if (op == kOpMetadataIndex) {
      MetadataIndex m;
      ok = ParseMetadataIndex(content, len, &m);
      if (ok) metadata.push_back(std::move(m));
    }
    if (!ok) {
      *why = "malformed record in the summary";
      return SummaryUse::kDamaged;
    }
    pos += kPrefixSize + len;
  }
  // Without statistics nothing tells whether the chunks hold every message.
  if (stats_seen == 0) return SummaryUse::kAbsent;

  for (const MetadataIndex& m : metadata) {
    std::string record;
    Metadata parsed;
    if (m.offset < kMagicSize || m.length < kPrefixSize || m.offset > data_end_pos ||
        m.length > data_end_pos - m.offset || !file.Read(m.offset, m.length, &record) ||
        static_cast<uint8_t>(record[0]) != kOpMetadata ||
        LoadU64(record.data() + 1) != m.length - kPrefixSize ||
        !ParseMetadata(record.data() + kPrefixSize, m.length - kPrefixSize, &parsed)) {
      *why = "metadata index points at no metadata";
      return SummaryUse::kDamaged;
    }
    index->metadata.push_back(std::move(parsed));
  }
  std::sort(chunks.begin(), chunks.end(), [](const ChunkIndex& a, const ChunkIndex& b) {
    return a.chunk_start_offset < b.chunk_start_offset;
  });
  for (const ChunkIndex& c : chunks) {
    if (c.chunk_start_offset < kMagicSize || c.chunk_length < kPrefixSize ||
        c.chunk_start_offset > data_end_pos || c.chunk_length > data_end_pos - c.chunk_start_offset ||
        c.uncompressed_size > kMaxBlockOffset) {
      *why = "chunk index points outside the data";
      return SummaryUse::kDamaged;
    }
  }
  if (summary_only && DescribeFromSummary(chunks, stats, index)) return SummaryUse::kUsed;
  std::vector<size_t> runs;
  std::string records, scratch;
  for (const ChunkIndex& c : chunks) {
    const uint32_t block = static_cast<uint32_t>(index->blocks.size());
    index->blocks.push_back({false, c.chunk_start_offset, c.chunk_length, c.compression});
    if (c.message_index_offsets.empty()) {
      // Either an empty chunk or one written without message indexes: look inside.
      if (c.uncompressed_size == 0) continue;
      runs.push_back(index->messages.size());
      std::string error;
      if (!LoadChunk(file, index->blocks.back(), decompressor, &records, &scratch, &error) ||
          !ScanChunkRecords(records, block, index, &error)) {
        *why = error;
        return SummaryUse::kDamaged;
      }
      continue;
    }
    const uint64_t at = c.chunk_start_offset + c.chunk_length;
    if (c.message_index_length > data_end_pos - at) {
      *why = "message index runs past the data";
      return SummaryUse::kDamaged;
    }
    std::string indexes;
    if (!file.Read(at, c.message_index_length, &indexes)) {
      *why = "message index cannot be read";
      return SummaryUse::kDamaged;
    }
    std::vector<IndexEntry> entries;
    for (size_t pos = 0; pos < indexes.size();) {
      if (indexes.size() - pos < kPrefixSize) {
        *why = "broken message index";
        return SummaryUse::kDamaged;
      }
      const uint8_t op = static_cast<uint8_t>(indexes[pos]);
      const uint64_t len = LoadU64(indexes.data() + pos + 1);
      if (op == 0 || len > indexes.size() - pos - kPrefixSize) {
        *why = "broken message index";
        return SummaryUse::kDamaged;
      }
      if (op == kOpMessageIndex) {
        uint16_t channel = 0;
        entries.clear();
        if (!ParseMessageIndex(indexes.data() + pos + kPrefixSize, len, &channel, &entries)) {
          *why = "malformed message index";
          return SummaryUse::kDamaged;
        }
        if (index->channels.count(channel) == 0) return SummaryUse::kAbsent;
        runs.push_back(index->messages.size());
        for (const IndexEntry& e : entries) {
          if (e.offset >= c.uncompressed_size) {
            *why = "message index points outside its chunk";
            return SummaryUse::kDamaged;
          }
          index->messages.push_back({e.log_time, block, static_cast<uint32_t>(e.offset)});
          index->channel_stats[channel].Add(e.log_time);
        }
      }
      pos += kPrefixSize + len;
    }
  }
  if (index->messages.size() != stats.message_count) return SummaryUse::kAbsent;
  for (const auto& c : index->channels) {
    if (c.second.schema_id != 0 && index->schemas.count(c.second.schema_id) == 0) {
      return SummaryUse::kAbsent;
    }
  }
  SortRuns(&index->messages, runs);
  return SummaryUse::kUsed;
}

bool KnownOpcode(uint8_t op) { return op >= kOpHeader && op <= kOpDataEnd; }

// Whether a chunk that reads soundly begins at `pos`: its header parses, its sizes fit the
// file and it names a compression this reader knows.
bool ChunkStartsAt(SequentialReader* in, uint64_t pos, uint64_t size) {
  const char* p = in->Get(pos, kPrefixSize);
  if (p == nullptr || static_cast<uint8_t>(p[0]) != kOpChunk) return false;
  const uint64_t len = LoadU64(p + 1);
  if (len > size - pos - kPrefixSize) return false;
  const char* content = in->Get(pos + kPrefixSize, std::min<uint64_t>(len, kChunkHeadRead));
  ChunkHeader h;
  return content != nullptr &&
         ParseChunkHead(content, static_cast<size_t>(std::min<uint64_t>(len, kChunkHeadRead)), len, &h) &&
         h.uncompressed_size <= kMaxBlockOffset &&
         (h.compression.empty() || h.compression == "zstd" || h.compression == "lz4");
}

// The first place in `w[0, n)` where a chunk or the end of the data may begin (the end of
// the data: its opcode and a length of 4); `n` when there is none. `w` holds a record
// prefix beyond each place. memchr keeps a long damaged stretch cheap to cross.
uint64_t NextCandidate(const char* w, uint64_t n) {
  const char* chunk = static_cast<const char*>(std::memchr(w, kOpChunk, n));
  const uint64_t limit = chunk == nullptr ? n : static_cast<uint64_t>(chunk - w);
  for (uint64_t i = 0; i < limit; ++i) {
    const char* end = static_cast<const char*>(std::memchr(w + i, kOpDataEnd, limit - i));
    if (end == nullptr) break;
    i = static_cast<uint64_t>(end - w);
    if (LoadU64(end + 1) == 4) return i;
  }
  return limit;
}

// The offset of the next record at or after `from` that a scan can go on with: a chunk that
// reads soundly, or the end of the data; `size` when there is none.
uint64_t Resync(SequentialReader* in, uint64_t from, uint64_t size) {
  uint64_t pos = from;
  while (pos + kPrefixSize <= size) {
    // The places a record may begin, a window at a time: a damaged stretch can be long.
    const uint64_t n = std::min<uint64_t>(size - kPrefixSize + 1 - pos, uint64_t{64} << 10);
    const char* w = in->Get(pos, n + kPrefixSize - 1);
    const uint64_t i = NextCandidate(w, n);
    if (i == n) {
      pos += n;
      continue;
    }
    if (static_cast<uint8_t>(w[i]) == kOpDataEnd || ChunkStartsAt(in, pos + i, size)) return pos + i;
    pos += i + 1;  // the window may have moved: look again from there
  }
  return size;
}

// Reads the file record by record from the start; see BuildIndex.
void LoadByScanning(const RandomAccessFile& file, ChunkDecompressor* decompressor, BagIndex* index,
                    bool tail_ok) {
  SequentialReader in(&file);
  const uint64_t size = file.size();
  Damage& damage = index->damage;
  uint64_t pos = kMagicSize;
  bool finished = false;  // reached the end of the data section
  bool counting = false;  // message indexes that follow belong to a damaged chunk
  bool counted = false;   // one of them was read
  uint32_t loose = kNoBlock;
  std::vector<size_t> runs;
  std::string records;
  auto stop_counting = [&] {
    if (counting && !counted) damage.lost_unknown = true;
    counting = false;
  };
  // Whether a record may begin at `at`: the end of the file, a prefix cut short, or a
  // known opcode, with the fixed length of the records that end the data. A record whose
  // successor fails this has a length that cannot be trusted; were a stray byte taken for
  // the end, every chunk after it would be dropped unsaid.
  auto framed = [&](uint64_t at) {
    const char* p = size - at < kPrefixSize ? nullptr : in.Get(at, kPrefixSize);
    if (p == nullptr) return true;
    const uint8_t op = static_cast<uint8_t>(p[0]);
    const uint64_t len = LoadU64(p + 1);
    return KnownOpcode(op) && (op != kOpDataEnd || len == 4) && (op != kOpFooter || len == 20);
  };
  // Leaves the bytes from `pos` on as unreadable and goes on at the next record that reads.
  auto skip_damage = [&](const std::string& what) {
    const uint64_t next = Resync(&in, pos + 1, size);
    if (damage.first.empty()) damage.first = what + " at byte " + std::to_string(pos);
    damage.unread_bytes += next - pos;
    pos = next;
  };
  while (pos < size) {
    const char* p = in.Get(pos, kPrefixSize);
    if (p == nullptr) {  // cut inside a record's prefix
      damage.unread_bytes += size - pos;
      break;
    }
    const uint8_t op = static_cast<uint8_t>(p[0]);
    const uint64_t len = LoadU64(p + 1);
    if (op != kOpMessageIndex) stop_counting();
    if (KnownOpcode(op) && len > size - pos - kPrefixSize && Resync(&in, pos + 1, size) == size) {
      damage.unread_bytes += size - pos;  // the last record is cut short
      break;
    }
    if (!KnownOpcode(op) || len > size - pos - kPrefixSize) {
      skip_damage("invalid record");
      continue;
    }
    if (op == kOpDataEnd || op == kOpFooter) {
      finished = true;
      break;
    }
    const uint64_t content_at = pos + kPrefixSize;
    const uint64_t next = content_at + len;
    if (!framed(next)) {
      skip_damage("broken record length");
      continue;
    }
    if (op == kOpChunk) {
      const char* content = in.Get(content_at, len);
      ChunkHeader h;
      std::string error;
      const uint32_t block = static_cast<uint32_t>(index->blocks.size());
      const size_t before = index->messages.size();
      if (content == nullptr || !ParseChunkHead(content, len, len, &h)) {
        error = "malformed chunk";
      } else if (DecodeChunk(h, content + h.records_offset, decompressor, &records, &error)) {
        index->blocks.push_back({false, pos, kPrefixSize + len, h.compression});
        if (!ScanChunkRecords(records, block, index, &error)) {
          index->blocks.pop_back();
          index->messages.resize(before);
        }
      }
      if (!error.empty()) {
        // Its message indexes, which follow it, tell how many messages it held.
        ++damage.damaged_chunks;
        if (damage.first.empty()) damage.first = error + " at byte " + std::to_string(pos);
        counting = true;
        counted = false;
      } else {
        runs.push_back(before);
        loose = kNoBlock;  // later loose messages come after this chunk in file order
      }
    } else if (op == kOpMessageIndex) {
      if (counting) {
        const char* content = in.Get(content_at, len);
        uint16_t channel = 0;
        std::vector<IndexEntry> entries;
        if (content != nullptr && ParseMessageIndex(content, len, &channel, &entries)) {
          damage.lost_messages += entries.size();
          counted = true;
        }
      }
    } else if (op == kOpMessage) {
      MessageHeader m;
      const char* content = in.Get(content_at, std::min<uint64_t>(len, kMessageHeaderSize));
      if (content == nullptr || !ParseMessageHeader(content, len, &m)) {
        skip_damage("short message");
        continue;
      }
      if (index->channels.count(m.channel_id) > 0) {
        if (loose == kNoBlock || pos - index->blocks[loose].offset >= kLooseSpan) {
          loose = static_cast<uint32_t>(index->blocks.size());
          index->blocks.push_back({true, pos, 0, ""});
          runs.push_back(index->messages.size());
        }
        index->messages.push_back(
            {m.log_time, loose, static_cast<uint32_t>(pos - index->blocks[loose].offset)});
        index->channel_stats[m.channel_id].Add(m.log_time);
      } else {
        if (damage.first.empty()) damage.first = UndeclaredChannel(m.channel_id, pos);
        ++damage.lost_messages;
      }
    } else if (op == kOpSchema || op == kOpChannel || op == kOpHeader || op == kOpMetadata) {
      const char* content = in.Get(content_at, len);
      bool ok = content != nullptr;
      if (ok && op == kOpSchema) {
        Schema s;
        ok = ParseSchema(content, len, &s);
        if (ok) AddSchema(index, std::move(s));
      } else if (ok && op == kOpChannel) {
        Channel c;
        ok = ParseChannel(content, len, &c);
        if (ok) AddChannel(index, std::move(c));
      } else if (ok && op == kOpMetadata) {
        Metadata m;
        ok = ParseMetadata(content, len, &m);
        if (ok) index->metadata.push_back(std::move(m));
      } else if (ok) {
        ok = ParseHeader(content, len, &index->header);
      }
      if (!ok) {
        skip_damage("malformed record");
        continue;
      }
    }
    pos = next;
  }
  stop_counting();
  SortRuns(&index->messages, runs);
  damage.unfinished = !finished || !tail_ok;
}

bool TailIsIntact(const RandomAccessFile& file) {
  char tail[kTailSize];
  const uint64_t size = file.size();
  return size >= kMagicSize + kTailSize && file.Read(size - kTailSize, kTailSize, tail) &&
         static_cast<uint8_t>(tail[0]) == kOpFooter && LoadU64(tail + 1) == 20 &&
         std::memcmp(tail + kFooterRecordSize, kMagic, kMagicSize) == 0;
}

}  // namespace

bool LoadChunk(const RandomAccessFile& file, const Block& block, ChunkDecompressor* decompressor,
               std::string* records, std::string* scratch, std::string* error, ChunkSplit* split) {
  const std::string at = " at byte " + std::to_string(block.offset);
  char head[kChunkHeadRead];
  const uint64_t head_size = std::min<uint64_t>(block.length, kChunkHeadRead);
  if (block.length < kPrefixSize || !file.Read(block.offset, head_size, head)) {
    *error = "chunk cannot be read" + at;
    return false;
  }
  const uint64_t content_size = block.length - kPrefixSize;
  if (static_cast<uint8_t>(head[0]) != kOpChunk || LoadU64(head + 1) != content_size) {
    *error = "no chunk" + at;
    return false;
  }
  ChunkHeader h;
  const char* content = head + kPrefixSize;
  size_t avail = static_cast<size_t>(head_size - kPrefixSize);
  std::string whole;
  if (!ParseChunkHead(content, avail, content_size, &h)) {
    if (head_size == block.length || !file.Read(block.offset + kPrefixSize, content_size, &whole) ||
        !ParseChunkHead(whole.data(), whole.size(), content_size, &h)) {
      *error = "malformed chunk" + at;
      return false;
    }
  }
  // Records stored as they are are read straight into place, nothing to decompress; with a
  // split, those from its cut on into its tail.
  const bool plain = h.compression.empty() && h.records_size == h.uncompressed_size;
  const uint64_t stored_at = block.offset + kPrefixSize + h.records_offset;
  if (split != nullptr) split->done = plain && split->at < h.records_size;
  std::string no_tail;
  std::string* tail = split != nullptr && split->done ? split->tail : &no_tail;
  const uint64_t cut = split != nullptr && split->done ? split->at : h.records_size;
  if (!file.Read(stored_at, cut, plain ? records : scratch) ||
      !file.Read(stored_at + cut, h.records_size - cut, tail)) {
    *error = "chunk cannot be read" + at;
    return false;
  }
  if (plain ? !CheckChunkCrc(h, *records, *tail, error)
            : !DecodeChunk(h, scratch->data(), decompressor, records, error)) {
    *error += at;
    return false;
  }
  return true;
}

bool BuildIndex(const RandomAccessFile& file, ChunkDecompressor* decompressor, BagIndex* index,
                std::string* error, bool summary_only) {
  char magic[kMagicSize];
  if (!file.Read(0, kMagicSize, magic) || std::memcmp(magic, kMagic, kMagicSize) != 0) {
    *error = "not a bag file (no MCAP magic)";
    return false;
  }
  std::string why;
  switch (LoadFromSummary(file, decompressor, index, &why, summary_only)) {
    case SummaryUse::kUsed: {
      // The header is not repeated in the summary; it is the first record.
      char prefix[kPrefixSize];
      std::string content;
      if (file.Read(kMagicSize, kPrefixSize, prefix) && static_cast<uint8_t>(prefix[0]) == kOpHeader &&
          file.Read(kMagicSize + kPrefixSize, LoadU64(prefix + 1), &content)) {
        ParseHeader(content.data(), content.size(), &index->header);
      }
      index->from_summary = true;
      return true;
    }
    case SummaryUse::kAbsent:
    case SummaryUse::kDamaged:
      break;
  }
  *index = BagIndex();
  LoadByScanning(file, decompressor, index, TailIsIntact(file));
  index->damage.summary_problem = why;
  return true;
}

}  // namespace mcap
}  // namespace kelo
