#ifndef KELO_PLATFORM_BAG_MCAP_SUMMARY_H_
#define KELO_PLATFORM_BAG_MCAP_SUMMARY_H_

#include <cstdint>
#include <string>
#include <vector>

#include "platform/bag/mcap_records.h"

namespace kelo {
namespace mcap {

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
