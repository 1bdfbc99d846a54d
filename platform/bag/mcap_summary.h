#ifndef KELO_PLATFORM_BAG_MCAP_SUMMARY_H_
#define KELO_PLATFORM_BAG_MCAP_SUMMARY_H_

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/bag/mcap_records.h"

namespace kelo {
namespace mcap {

// How many messages a channel has and their first and last log times.
struct ChannelStats {
  uint64_t messages = 0;
  uint64_t first_time = 0;
  uint64_t last_time = 0;

  void Add(uint64_t log_time) {
    first_time = messages == 0 ? log_time : std::min(first_time, log_time);
    last_time = messages == 0 ? log_time : std::max(last_time, log_time);
    ++messages;
  }
};

// Our files keep each channel's first and last log time in a metadata record of this name
// ("<channel id>" -> "<first> <last>", in nanoseconds), so that a reader of the summary
// alone knows them; the statistics hold the counts.
constexpr char kChannelTimesMetadataName[] = "kelo_channel_times";
Metadata ChannelTimesMetadata(const std::map<uint16_t, ChannelStats>& stats);
// Takes the times of `m` into `stats`, for the channels it names; false when malformed.
bool ReadChannelTimes(const Metadata& m, std::map<uint16_t, ChannelStats>* stats);

// What a file's summary repeats about its data section.
struct SummaryContent {
  std::vector<Schema> schemas;
  std::vector<Channel> channels;
  Statistics statistics;
  std::vector<ChunkIndex> chunk_indexes;
  std::vector<MetadataIndex> metadata_indexes;
};

// Appends everything that closes an MCAP file whose data section is `data_end_offset`
// bytes long with CRC `data_crc`: Data End, the summary (schemas, channels, statistics,
// chunk indexes, metadata indexes, in that order), one Summary Offset per non-empty group, the Footer with
// its CRC, and the closing magic.
void AppendFileTail(std::string* out, uint64_t data_end_offset, uint32_t data_crc,
                    const SummaryContent& summary);

}  // namespace mcap
}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_MCAP_SUMMARY_H_
