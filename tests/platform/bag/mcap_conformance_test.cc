// Reads every file of the MCAP conformance corpus and compares what the bag reader makes
// of it with the corpus's own listing of the file's records.
//
// A checkout without git-lfs holds only pointer stubs in place of the .mcap files. The
// test then rebuilds each file from its listing (which names every record in file order,
// chunk contents flattened) and the features in its name, and uses the rebuilt file only
// if it reproduces the data section CRC and the summary CRC that the listing records, i.e.
// only if it is byte for byte the original.

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "platform/bag/bag_reader.h"
#include "platform/bag/mcap_crc32.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_index.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing_support::ListDir;
using testing_support::ReadAll;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

struct ExpectedMessage {
  uint16_t channel_id;
  uint64_t log_time;
  uint64_t publish_time;
  std::string data;
};

struct Expected {
  std::map<uint16_t, mcap::Schema> schemas;
  std::map<uint16_t, mcap::Channel> channels;
  std::vector<ExpectedMessage> messages;  // in file order
};

std::map<std::string, Json::Value> Fields(const Json::Value& record) {
  std::map<std::string, Json::Value> out;
  for (const Json::Value& pair : record["fields"]) out[pair[0].asString()] = pair[1];
  return out;
}

std::string Bytes(const Json::Value& array) {
  std::string out;
  for (const Json::Value& b : array) out.push_back(static_cast<char>(std::stoi(b.asString())));
  return out;
}

uint64_t Number(const Json::Value& v) { return std::stoull(v.asString()); }

Expected ParseListing(const std::string& json_path) {
  Json::Value root;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(ReadFile(json_path));
  EXPECT_TRUE(Json::parseFromStream(builder, in, &root, &errors)) << errors;
  Expected e;
  for (const Json::Value& record : root["records"]) {
    const std::string type = record["type"].asString();
    auto f = Fields(record);
    if (type == "Schema") {
      mcap::Schema s;
      s.id = static_cast<uint16_t>(Number(f["id"]));
      s.name = f["name"].asString();
      s.encoding = f["encoding"].asString();
      s.data = Bytes(f["data"]);
      e.schemas[s.id] = s;
    } else if (type == "Channel") {
      mcap::Channel c;
      c.id = static_cast<uint16_t>(Number(f["id"]));
      c.schema_id = static_cast<uint16_t>(Number(f["schema_id"]));
      c.topic = f["topic"].asString();
      c.message_encoding = f["message_encoding"].asString();
      for (const std::string& key : f["metadata"].getMemberNames()) {
        c.metadata.emplace_back(key, f["metadata"][key].asString());
      }
      e.channels[c.id] = c;
    } else if (type == "Message") {
      e.messages.push_back({static_cast<uint16_t>(Number(f["channel_id"])), Number(f["log_time"]),
                            Number(f["publish_time"]), Bytes(f["data"])});
    }
  }
  return e;
}

// Extensible records of the "pad" variants end with these three extra bytes.
constexpr char kPad[] = "\x01\xff\xff";

std::string Padded(std::string record, bool pad) {
  if (!pad) return record;
  record.append(kPad, 3);
  const uint64_t length = mcap::LoadU64(record.data() + 1) + 3;
  for (int i = 0; i < 8; ++i) record[1 + i] = static_cast<char>((length >> (8 * i)) & 0xFF);
  return record;
}

std::string Record(mcap::Opcode op, const std::string& content) {
  std::string out;
  size_t r = mcap::BeginRecord(&out, op);
  out += content;
  mcap::EndRecord(&out, r);
  return out;
}

template <typename Pairs>
Pairs IdMap(const Json::Value& map) {
  Pairs out;
  for (const std::string& key : map.getMemberNames()) {
    out.emplace_back(static_cast<uint16_t>(std::stoul(key)), Number(map[key]));
  }
  return out;
}

mcap::KeyValues Strings(const Json::Value& map) {
  mcap::KeyValues out;
  for (const std::string& key : map.getMemberNames()) out.emplace_back(key, map[key].asString());
  return out;
}

// Encodes one listed record (not Chunk, Message Index, Data End or Footer) with the
// library's own encoders where it has one: the rebuilt file must reproduce the corpus's
// CRCs, so they are checked byte for byte too.
std::string Encode(const std::string& type, std::map<std::string, Json::Value> f) {
  std::string c;
  auto u16 = [&](const char* name) { return static_cast<uint16_t>(Number(f[name])); };
  auto u32 = [&](const char* name) { return static_cast<uint32_t>(Number(f[name])); };
  if (type == "Header") {
    mcap::AppendHeader(&c, {f["profile"].asString(), f["library"].asString()});
  } else if (type == "Schema") {
    mcap::AppendSchema(&c, {u16("id"), f["name"].asString(), f["encoding"].asString(), Bytes(f["data"])});
  } else if (type == "Message") {
    mcap::AppendMessage(
        &c, {u16("channel_id"), u32("sequence"), Number(f["log_time"]), Number(f["publish_time"])},
        Bytes(f["data"]));
  } else if (type == "Channel") {
    mcap::AppendChannel(&c, {u16("id"), u16("schema_id"), f["topic"].asString(),
                             f["message_encoding"].asString(), Strings(f["metadata"])});
  } else if (type == "Metadata") {
    mcap::AppendMetadata(&c, {f["name"].asString(), Strings(f["metadata"])});
  } else if (type == "Statistics") {
    mcap::Statistics st;
    st.message_count = Number(f["message_count"]);
    st.schema_count = u16("schema_count");
    st.channel_count = u32("channel_count");
    st.attachment_count = u32("attachment_count");
    st.metadata_count = u32("metadata_count");
    st.chunk_count = u32("chunk_count");
    st.message_start_time = Number(f["message_start_time"]);
    st.message_end_time = Number(f["message_end_time"]);
    st.channel_message_counts = IdMap<mcap::ChannelCounts>(f["channel_message_counts"]);
    mcap::AppendStatistics(&c, st);
  } else if (type == "ChunkIndex") {
    mcap::ChunkIndex ci;
    ci.message_start_time = Number(f["message_start_time"]);
    ci.message_end_time = Number(f["message_end_time"]);
    ci.chunk_start_offset = Number(f["chunk_start_offset"]);
    ci.chunk_length = Number(f["chunk_length"]);
    ci.message_index_offsets = IdMap<std::vector<std::pair<uint16_t, uint64_t>>>(f["message_index_offsets"]);
    ci.message_index_length = Number(f["message_index_length"]);
    ci.compression = f["compression"].asString();
    ci.compressed_size = Number(f["compressed_size"]);
    ci.uncompressed_size = Number(f["uncompressed_size"]);
    mcap::AppendChunkIndex(&c, ci);
  } else if (type == "MetadataIndex") {
    mcap::AppendMetadataIndex(&c, {Number(f["offset"]), Number(f["length"]), f["name"].asString()});
  } else if (type == "SummaryOffset") {
    mcap::AppendSummaryOffset(&c, {static_cast<uint8_t>(Number(f["group_opcode"])), Number(f["group_start"]),
                                   Number(f["group_length"])});
  } else if (type == "Attachment") {  // the library writes none
    mcap::PutU64(&c, Number(f["log_time"]));
    mcap::PutU64(&c, Number(f["create_time"]));
    mcap::PutString(&c, f["name"].asString());
    mcap::PutString(&c, f["media_type"].asString());
    const std::string data = Bytes(f["data"]);
    mcap::PutU64(&c, data.size());
    c += data;
    mcap::PutU32(&c, mcap::Crc32(c.data(), c.size()));
    return Record(mcap::kOpAttachment, c);
  } else if (type == "AttachmentIndex") {
    for (const char* field : {"offset", "length", "log_time", "create_time", "data_size"}) {
      mcap::PutU64(&c, Number(f[field]));
    }
    mcap::PutString(&c, f["name"].asString());
    mcap::PutString(&c, f["media_type"].asString());
    return Record(mcap::kOpAttachmentIndex, c);
  } else {
    ADD_FAILURE() << "unknown record type " << type;
  }
  return c;
}

// Rebuilds a corpus file from its listing; false when the result does not reproduce the
// listing's CRCs. Features: "ch" puts schemas, channels and messages into one uncompressed
// chunk (records inside it unpadded), "mx" follows it with message indexes, "pad" pads
// every extensible record outside chunks.
bool Rebuild(const std::string& json_path, const std::string& features, std::string* out) {
  Json::Value root;
  std::string errors;
  std::istringstream in(ReadFile(json_path));
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) return false;
  auto has = [&](const std::string& tag) {
    return ("-" + features + "-").find("-" + tag + "-") != std::string::npos;
  };
  const bool pad = has("pad");
  const bool chunked = has("ch");
  std::string file(mcap::kMagic, mcap::kMagicSize);
  std::string chunk;
  std::map<uint16_t, std::vector<mcap::IndexEntry>> indexes;
  uint64_t start = 0, end = 0;
  size_t summary_start = 0;
  bool in_summary = false;
  auto flush = [&] {
    if (chunk.empty()) return;
    mcap::ChunkHeader h;
    h.message_start_time = start;
    h.message_end_time = end;
    h.uncompressed_size = chunk.size();
    h.uncompressed_crc = mcap::Crc32(chunk.data(), chunk.size());
    h.records_size = chunk.size();
    mcap::AppendChunkHeader(&file, h);
    file += chunk;
    if (has("mx")) {
      for (const auto& i : indexes) {
        std::string mi;
        mcap::AppendMessageIndex(&mi, i.first, i.second);
        file += Padded(mi, pad);
      }
    }
    chunk.clear();
    indexes.clear();
  };
  for (const Json::Value& record : root["records"]) {
    const std::string type = record["type"].asString();
    auto f = Fields(record);
    if (type == "DataEnd") {
      flush();
      const uint32_t crc = static_cast<uint32_t>(Number(f["data_section_crc"]));
      if (mcap::Crc32(file.data(), file.size()) != crc) return false;
      mcap::AppendDataEnd(&file, crc);
      summary_start = file.size();
      in_summary = true;
    } else if (type == "Footer") {
      mcap::Footer footer{Number(f["summary_start"]), Number(f["summary_offset_start"]), 0};
      mcap::AppendFooter(&file, footer);
      const uint32_t crc = mcap::Crc32(file.data() + summary_start, file.size() - 4 - summary_start);
      if (crc != Number(f["summary_crc"])) return false;
      file.resize(file.size() - 4);
      mcap::PutU32(&file, crc);
      file.append(mcap::kMagic, mcap::kMagicSize);
    } else if (!in_summary && chunked && (type == "Schema" || type == "Channel" || type == "Message")) {
      if (type == "Message") {
        const uint64_t t = Number(f["log_time"]);
        start = indexes.empty() ? t : std::min(start, t);
        end = indexes.empty() ? t : std::max(end, t);
        indexes[static_cast<uint16_t>(Number(f["channel_id"]))].push_back({t, chunk.size()});
      }
      chunk += Encode(type, f);
    } else {
      file += Padded(Encode(type, f), pad && type != "Message");
    }
  }
  *out = file;
  return true;
}

// The corpus file itself, or its rebuild when the checkout holds only a git-lfs stub.
std::string CorpusFile(const std::string& mcap_path, const TempDir& scratch) {
  const std::string bytes = ReadFile(mcap_path);
  if (bytes.compare(0, mcap::kMagicSize, mcap::kMagic, mcap::kMagicSize) == 0) return mcap_path;
  EXPECT_EQ(0u, bytes.find("version https://git-lfs")) << "neither MCAP nor a git-lfs stub";
  const std::string name = mcap_path.substr(mcap_path.rfind('/') + 1);
  const std::string stem = name.substr(0, name.size() - 5);
  const size_t dash = stem.find('-');
  std::string rebuilt;
  if (!Rebuild(mcap_path.substr(0, mcap_path.size() - 5) + ".json",
               dash == std::string::npos ? "" : stem.substr(dash + 1), &rebuilt)) {
    ADD_FAILURE() << "cannot rebuild " << name << " from its listing";
    return mcap_path;
  }
  WriteFile(scratch.file(name), rebuilt);
  return scratch.file(name);
}

std::vector<std::string> CorpusFiles() {
  std::vector<std::string> out;
  const std::string root = KELO_MCAP_CONFORMANCE_DIR;
  for (const std::string& group : ListDir(root)) {
    for (const std::string& name : ListDir(root + "/" + group)) {
      if (name.size() > 5 && name.compare(name.size() - 5, 5, ".mcap") == 0) {
        out.push_back(root + "/" + group + "/" + name);
      }
    }
  }
  return out;
}

TEST(McapConformanceTest, CorpusIsPresent) {
  EXPECT_GE(CorpusFiles().size(), 400u) << "corpus expected at " << KELO_MCAP_CONFORMANCE_DIR;
}

TEST(McapConformanceTest, ReadsSchemasChannelsAndMessagesOfEveryCorpusFile) {
  TempDir scratch;
  for (const std::string& corpus_path : CorpusFiles()) {
    SCOPED_TRACE(corpus_path);
    const Expected want = ParseListing(corpus_path.substr(0, corpus_path.size() - 5) + ".json");
    const std::string path = CorpusFile(corpus_path, scratch);

    mcap::RandomAccessFile file;
    std::string error;
    ASSERT_TRUE(file.Open(path, &error)) << error;
    mcap::ChunkDecompressor decompressor;
    mcap::BagIndex index;
    ASSERT_TRUE(mcap::BuildIndex(file, &decompressor, &index, &error)) << error;
    EXPECT_FALSE(index.damage.any()) << index.damage.first << index.damage.summary_problem;

    ASSERT_EQ(want.schemas.size(), index.schemas.size());
    for (const auto& s : want.schemas) {
      const mcap::Schema& got = index.schemas.at(s.first);
      EXPECT_EQ(s.second.name, got.name);
      EXPECT_EQ(s.second.encoding, got.encoding);
      EXPECT_EQ(s.second.data, got.data);
    }
    ASSERT_EQ(want.channels.size(), index.channels.size());
    for (const auto& c : want.channels) {
      const mcap::Channel& got = index.channels.at(c.first);
      EXPECT_EQ(c.second.schema_id, got.schema_id);
      EXPECT_EQ(c.second.topic, got.topic);
      EXPECT_EQ(c.second.message_encoding, got.message_encoding);
      auto metadata = got.metadata;
      std::sort(metadata.begin(), metadata.end());
      EXPECT_EQ(c.second.metadata, metadata);
    }

    // The reader's order: by log time, ties in file order.
    std::vector<ExpectedMessage> ordered = want.messages;
    std::stable_sort(ordered.begin(), ordered.end(), [](const ExpectedMessage& a, const ExpectedMessage& b) {
      return a.log_time < b.log_time;
    });
    ASSERT_EQ(ordered.size(), index.messages.size());
    for (size_t i = 0; i < ordered.size(); ++i) {
      EXPECT_EQ(ordered[i].log_time, index.messages[i].log_time) << "message " << i;
    }

    const std::vector<BagMessage> got = ReadAll(path);
    ASSERT_EQ(ordered.size(), got.size());
    for (size_t i = 0; i < ordered.size(); ++i) {
      const mcap::Channel& channel = want.channels.at(ordered[i].channel_id);
      auto schema = want.schemas.find(channel.schema_id);
      EXPECT_EQ(channel.topic, got[i].topic);
      EXPECT_EQ(schema == want.schemas.end() ? "" : schema->second.name, got[i].type);
      EXPECT_EQ(static_cast<long>(ordered[i].log_time / 1000000), got[i].time);
      EXPECT_EQ(static_cast<long>(ordered[i].publish_time / 1000000), got[i].record_time);
      EXPECT_EQ(ordered[i].data, got[i].data);
    }
  }
}

}  // namespace
}  // namespace kelo
