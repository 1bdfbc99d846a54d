// Reads every file of the MCAP conformance corpus and compares what the index and the bag
// reader make of it with the corpus's own listing of the file's records.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/bag/bag_reader.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_index.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

struct Listed {
  std::map<uint16_t, mcap::Schema> schemas;
  std::map<uint16_t, mcap::Channel> channels;
  std::vector<std::map<std::string, Json::Value>> messages;  // in file order
};

uint64_t Number(const Json::Value& v) { return std::stoull(v.asString()); }

std::string Bytes(const Json::Value& array) {
  std::string out;
  for (const Json::Value& b : array) out.push_back(static_cast<char>(std::stoi(b.asString())));
  return out;
}

Listed ParseListing(const std::string& json_path) {
  Json::Value root;
  std::string errors;
  std::istringstream in(testing_support::ReadFile(json_path));
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) << errors;
  Listed e;
  for (const Json::Value& record : root["records"]) {
    std::map<std::string, Json::Value> f;
    for (const Json::Value& pair : record["fields"]) f[pair[0].asString()] = pair[1];
    const std::string type = record["type"].asString();
    if (type == "Schema") {
      e.schemas[Number(f["id"])] = {0, f["name"].asString(), f["encoding"].asString(), Bytes(f["data"])};
    } else if (type == "Channel") {
      mcap::Channel& c = e.channels[Number(f["id"])];
      c.schema_id = static_cast<uint16_t>(Number(f["schema_id"]));
      c.topic = f["topic"].asString();
      c.message_encoding = f["message_encoding"].asString();
      c.metadata.clear();  // listed again in the summary
      for (const std::string& key : f["metadata"].getMemberNames()) {
        c.metadata.emplace_back(key, f["metadata"][key].asString());
      }
    } else if (type == "Message") {
      e.messages.push_back(f);
    }
  }
  return e;
}

TEST(McapConformanceTest, ReadsSchemasChannelsAndMessagesOfEveryCorpusFile) {
  const std::string root = KELO_MCAP_CONFORMANCE_DIR;
  size_t files = 0;
  for (const std::string& group : testing_support::ListDir(root)) {
    for (const std::string& name : testing_support::ListDir(root + "/" + group)) {
      if (name.size() <= 5 || name.compare(name.size() - 5, 5, ".mcap") != 0) continue;
      ++files;
      const std::string path = root + "/" + group + "/" + name;
      SCOPED_TRACE(path);
      Listed want = ParseListing(path.substr(0, path.size() - 5) + ".json");
      mcap::RandomAccessFile file;
      std::string error;
      ASSERT_TRUE(file.Open(path, &error)) << error;
      mcap::ChunkDecompressor decompressor;
      mcap::BagIndex index;
      ASSERT_TRUE(mcap::BuildIndex(file, &decompressor, &index, &error)) << error;
      EXPECT_FALSE(index.damage.any()) << index.damage.first << index.damage.summary_problem;
      ASSERT_EQ(want.schemas.size(), index.schemas.size());
      for (const auto& [id, s] : want.schemas) {
        const mcap::Schema& got = index.schemas.at(id);
        EXPECT_EQ(s.name + "|" + s.encoding + "|" + s.data, got.name + "|" + got.encoding + "|" + got.data);
      }
      ASSERT_EQ(want.channels.size(), index.channels.size());
      for (const auto& [id, c] : want.channels) {
        const mcap::Channel& got = index.channels.at(id);
        EXPECT_EQ(c.schema_id, got.schema_id);
        EXPECT_EQ(c.topic + "|" + c.message_encoding, got.topic + "|" + got.message_encoding);
        auto metadata = got.metadata;
        std::sort(metadata.begin(), metadata.end());
        EXPECT_EQ(c.metadata, metadata);
      }
      // The reader's order: by log time, ties in file order.
      std::stable_sort(want.messages.begin(), want.messages.end(),
                       [](auto& a, auto& b) { return Number(a.at("log_time")) < Number(b.at("log_time")); });
      const std::vector<BagMessage> got = testing_support::ReadAll(path);
      ASSERT_EQ(want.messages.size(), got.size());
      ASSERT_EQ(want.messages.size(), index.messages.size());
      for (size_t i = 0; i < got.size(); ++i) {
        auto& m = want.messages[i];
        const mcap::Channel& channel = want.channels.at(Number(m["channel_id"]));
        auto schema = want.schemas.find(channel.schema_id);
        EXPECT_EQ(channel.topic, got[i].topic);
        EXPECT_EQ(schema == want.schemas.end() ? "" : schema->second.name, got[i].type);
        EXPECT_EQ(Number(m["log_time"]), index.messages[i].log_time);
        EXPECT_EQ(static_cast<long>(Number(m["log_time"]) / 1000000), got[i].time);
        EXPECT_EQ(static_cast<long>(Number(m["publish_time"]) / 1000000), got[i].record_time);
        EXPECT_EQ(Bytes(m["data"]), got[i].data);
      }
    }
  }
  EXPECT_GE(files, 400u) << "corpus expected at " << root;
}

}  // namespace
}  // namespace kelo
