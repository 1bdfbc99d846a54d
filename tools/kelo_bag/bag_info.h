#ifndef KELO_TOOLS_KELO_BAG_BAG_INFO_H_
#define KELO_TOOLS_KELO_BAG_BAG_INFO_H_

#include <cstdint>
#include <string>
#include <vector>

#include <json/value.h>

#include "platform/bag/bag_loss_ledger.h"

namespace kelo {
namespace cli {

// What `kelo_bag info` tells about a bag, or about several bags taken together.
//
//   BagSummary summary;
//   std::string error;
//   if (SummarizeBag("rec/bag_0.kelobag", false, &summary, &error)) std::cout << FormatSummary(summary);
struct BagSummary {
  struct Topic {
    std::string name;
    std::string type;  // a topic recorded with two types has a row per type
    uint64_t messages = 0;
    long first_ms = 0;  // times of its first and last messages
    long last_ms = 0;
    // Messages per second between the first and the last; 0 with fewer than two, or when
    // they share one millisecond.
    double frequency() const;
  };

  std::string path;    // "" for a merged summary
  uint64_t files = 1;  // bags summarized
  uint64_t size_bytes = 0;
  long start_ms = 0;  // first and last message times; 0 without messages
  long end_ms = 0;
  uint64_t messages = 0;
  std::vector<Topic> topics;  // by name, then type
  std::string compression;    // as BagFileInfo::compression; merged: every kind, "+"-joined
  unsigned chunks = 0;
  bool recovered = false;  // merged: any of them
  std::string note;        // the reader's line about what was recovered; "" when none
  // What could not be read (BagFileInfo); `partial` when anything could not.
  bool partial = false;
  unsigned damaged_chunks = 0;
  uint64_t lost_messages = 0;  // in those chunks; a lower bound when messages_unknown
  bool messages_unknown = false;
  uint64_t unread_bytes = 0;
  // What the recording lost while the file was written, as the file itself says.
  BagLosses losses;
  // What the file says of the recording it belongs to (command, host, bus, tool, mode), in
  // its order; none in a merged summary.
  std::vector<std::pair<std::string, std::string>> recording;

  double duration_s() const { return (end_ms - start_ms) * 0.001; }
};

// Describes the bag at `path` from its summary and indexes, without reading its messages;
// with `verify`, reads every message, so that a chunk damaged since the file was written
// is found (and left out of the counts). False, with `error` set to the reader's one line,
// when the file cannot be read as a bag at all; an unfinished or damaged bag is summarized
// as far as it was read, with `recovered` set and `note` saying what was kept.
bool SummarizeBag(const std::string& path, bool verify, BagSummary* summary, std::string* error);

// The bags as one recording: sizes, counts and chunks added, the time span of them all,
// topic rows of one name and type joined.
BagSummary MergeSummaries(const std::vector<BagSummary>& summaries);

// "2 chunks (40 messages) and 123 bytes could not be read"; "" when all could be read.
std::string UnreadableText(const BagSummary& summary);

// The text for people: file, size, times, duration, messages, compression, chunks,
// recovery, what could not be read, what the recording lost, then a row per topic with
// type, count and frequency.
std::string FormatSummary(const BagSummary& summary);

// The same as a JSON object: path (absent when merged), files, size_bytes, start_ms,
// end_ms, start (local time text), end, duration_s, messages, compression, chunks,
// recovered, note, unreadable: {chunks, messages, messages_unknown, bytes}, lost,
// losses: {topic: {reason: count}}, and topics: [{topic, type, messages, frequency_hz}].
Json::Value SummaryJson(const BagSummary& summary);

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_BAG_INFO_H_
