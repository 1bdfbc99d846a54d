#ifndef KELO_PLATFORM_BAG_MCAP_INDEX_H_
#define KELO_PLATFORM_BAG_MCAP_INDEX_H_

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/bag/mcap_compression.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_records.h"
#include "platform/bag/mcap_summary.h"

namespace kelo {
namespace mcap {

// Where a run of messages is stored: one chunk, or records outside any chunk.
struct Block {
  bool loose = false;
  uint64_t offset = 0;  // a chunk: its record's file offset; loose: base of its messages' offsets
  uint64_t length = 0;  // a chunk: its whole record's length
  std::string compression;  // a chunk's, as its index or header says ("" for none)
};

// One message of the index in 16 bytes: its log time and where its record starts, counted
// in its block's decompressed records (or from a loose block's base).
struct MessageRef {
  uint64_t log_time;
  uint32_t block;
  uint32_t offset;
};

// What of a file could not be read: all zero and empty for a sound one.
struct Damage {
  bool unfinished = false;      // no summary: still being written, or cut short
  std::string summary_problem;  // why a summary present could not be used
  uint32_t damaged_chunks = 0;  // chunks whose records could not be read
  uint64_t lost_messages = 0;   // messages those chunks were indexed to hold
  bool lost_unknown = false;    // some damaged chunk's messages could not be counted
  uint64_t unread_bytes = 0;    // bytes skipped as garbage or left unread at the end
  std::string first;            // the first damage found and where, "" when none

  bool damaged() const { return damaged_chunks > 0 || !first.empty(); }
  bool any() const { return unfinished || damaged() || !summary_problem.empty(); }
};

// Everything a reader needs to find any message without scanning the file again.
struct BagIndex {
  Header header;
  std::map<uint16_t, Schema> schemas;
  std::map<uint16_t, Channel> channels;
  std::vector<Block> blocks;         // in file order
  std::vector<MessageRef> messages;  // in log time order, ties in file order
  std::vector<Metadata> metadata;    // in file order
  std::map<uint16_t, ChannelStats> channel_stats;
  bool from_summary = false;  // opened from the summary, without scanning the data
  // Opened from the summary alone (see BuildIndex): `messages` is empty; the statistics
  // give the count and times.
  bool summary_only = false;
  Statistics statistics;
  Damage damage;
};

// Builds the index of an MCAP file. A file with a sound summary is indexed from it and its
// message indexes alone. Any other file (no summary, an unfinished or cut recording, a
// damaged one) is read record by record from the start: a chunk that cannot be read is
// skipped and counted, garbage is skipped up to the next chunk that reads soundly, and a
// record cut short by the end of the file ends the scan. Every length read from the file is
// checked against the bytes left in it before memory is set aside for it.
// With `summary_only`, a sound summary that holds each channel's times (our files') is all
// that is read: no message is indexed, and only the file's description is known.
// Returns false, with `error` set, only when the file is not MCAP at all.
bool BuildIndex(const RandomAccessFile& file, ChunkDecompressor* decompressor, BagIndex* index,
                std::string* error, bool summary_only = false);

// Where a chunk's records are to be cut in two: those from byte `at` on go to `tail`, so
// that a large message's payload can be read straight into the buffer it is handed out in.
struct ChunkSplit {
  uint64_t at = 0;
  std::string* tail = nullptr;
  bool done = false;  // set by LoadChunk: false when the chunk is compressed or ends before `at`
};

// Reads the chunk of `block`, checks its framing, decompresses it into `records` and
// verifies its CRC. `scratch` holds the compressed bytes between calls. False with
// `error` set when the chunk is damaged. With `split`, a chunk stored without compression
// is read in two parts, `records` ending where `split->tail` begins.
bool LoadChunk(const RandomAccessFile& file, const Block& block, ChunkDecompressor* decompressor,
               std::string* records, std::string* scratch, std::string* error, ChunkSplit* split = nullptr);

}  // namespace mcap
}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_MCAP_INDEX_H_
