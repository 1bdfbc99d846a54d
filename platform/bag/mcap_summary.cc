#include "platform/bag/mcap_summary.h"

#include <cstdio>

#include "platform/bag/mcap_crc32.h"

namespace kelo {
namespace mcap {

Metadata ChannelTimesMetadata(const std::map<uint16_t, ChannelStats>& stats) {
  Metadata m;
  m.name = kChannelTimesMetadataName;
  for (const auto& [id, s] : stats) {
    if (s.messages > 0) {
      m.metadata.emplace_back(std::to_string(id), std::to_string(s.first_time) + " " + std::to_string(s.last_time));
    }
  }
  return m;
}

bool ReadChannelTimes(const Metadata& m, std::map<uint16_t, ChannelStats>* stats) {
  for (const auto& [key, value] : m.metadata) {
    unsigned long id = 0;
    unsigned long long first = 0, last = 0;
    char end = 0;
    if (std::sscanf(key.c_str(), "%lu%c", &id, &end) != 1 || id > 0xffff ||
        std::sscanf(value.c_str(), "%llu %llu%c", &first, &last, &end) != 2 || first > last) {
      return false;
    }
    ChannelStats& s = (*stats)[static_cast<uint16_t>(id)];
    s.first_time = first;
    s.last_time = last;
  }
  return true;
}

void AppendFileTail(std::string* out, uint64_t data_end_offset, uint32_t data_crc,
                    const SummaryContent& summary) {
  const size_t base = out->size();  // out[base] sits at file offset data_end_offset
  AppendDataEnd(out, data_crc);
  const size_t summary_begin = out->size();
  auto file_offset = [&](size_t at) { return data_end_offset + (at - base); };

  std::vector<SummaryOffset> groups;
  auto group = [&](Opcode op, size_t begin) {
    if (out->size() > begin) groups.push_back({op, file_offset(begin), out->size() - begin});
  };
  size_t begin = out->size();
  for (const Schema& s : summary.schemas) AppendSchema(out, s);
  group(kOpSchema, begin);
  begin = out->size();
  for (const Channel& c : summary.channels) AppendChannel(out, c);
  group(kOpChannel, begin);
  begin = out->size();
  AppendStatistics(out, summary.statistics);
  group(kOpStatistics, begin);
  begin = out->size();
  for (const ChunkIndex& c : summary.chunk_indexes) AppendChunkIndex(out, c);
  group(kOpChunkIndex, begin);
  begin = out->size();
  for (const MetadataIndex& m : summary.metadata_indexes) AppendMetadataIndex(out, m);
  group(kOpMetadataIndex, begin);

  Footer footer;
  footer.summary_start = out->size() > summary_begin ? file_offset(summary_begin) : 0;
  const size_t offsets_begin = out->size();
  for (const SummaryOffset& g : groups) AppendSummaryOffset(out, g);
  footer.summary_offset_start = out->size() > offsets_begin ? file_offset(offsets_begin) : 0;
  const size_t footer_begin = out->size();
  AppendFooter(out, footer);
  // The CRC covers the summary, its offsets and the footer up to the CRC field itself.
  const size_t crc_end = footer_begin + kPrefixSize + 16;
  uint32_t crc = Crc32(out->data() + summary_begin, crc_end - summary_begin);
  for (int i = 0; i < 4; ++i) (*out)[crc_end + i] = static_cast<char>((crc >> (8 * i)) & 0xFF);
  out->append(kMagic, kMagicSize);
}

}  // namespace mcap
}  // namespace kelo
