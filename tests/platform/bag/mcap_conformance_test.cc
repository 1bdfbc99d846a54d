// Reads every file of the MCAP conformance corpus and compares what the bag reader makes of it
// with the corpus's own listing of the file's records.
#include <gtest/gtest.h>
#include <json/json.h>

#include <map>
#include <sstream>

#include "platform/bag/bag_reader.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using Fields = std::map<std::string, Json::Value>;

uint64_t Number(const Json::Value& v) { return std::stoull(v.asString()); }

TEST(McapConformanceTest, ReadsTheMessagesOfEveryCorpusFile) {
  const std::string root = KELO_MCAP_CONFORMANCE_DIR;
  size_t files = 0;
  for (const std::string& group : testing_support::ListDir(root)) {
    for (const std::string& name : testing_support::ListDir(root + "/" + group)) {
      if (name.size() <= 5 || name.compare(name.size() - 5, 5, ".mcap") != 0) continue;
      ++files;
      const std::string path = root + "/" + group + "/" + name;
      SCOPED_TRACE(path);
      Json::Value listing;
      std::istringstream in(testing_support::ReadFile(path.substr(0, path.size() - 5) + ".json"));
      ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &listing, nullptr));
      std::map<uint64_t, std::string> schemas, topics;  // the topic and type name of each channel
      std::vector<Fields> messages;
      for (const Json::Value& record : listing["records"]) {
        Fields f;
        for (const Json::Value& pair : record["fields"]) f[pair[0].asString()] = pair[1];
        const std::string type = record["type"].asString();
        if (type == "Schema") schemas[Number(f["id"])] = f["name"].asString();
        if (type == "Channel") topics[Number(f["id"])] = f["topic"].asString() + "|" + schemas[Number(f["schema_id"])];
        if (type == "Message") messages.push_back(f);
      }
      // The reader's order: by log time, ties in file order.
      std::stable_sort(messages.begin(), messages.end(),
                       [](auto& a, auto& b) { return Number(a.at("log_time")) < Number(b.at("log_time")); });
      BagReader reader(path);
      EXPECT_EQ("", reader.get_error());
      EXPECT_FALSE(reader.file_info().damaged);
      ASSERT_EQ(messages.size(), reader.count());
      for (auto& m : messages) {
        std::string data;
        for (const Json::Value& b : m["data"]) data.push_back(static_cast<char>(std::stoi(b.asString())));
        const BagMessage got = *reader.read();
        reader.next();
        EXPECT_EQ(topics[Number(m["channel_id"])], got.topic + "|" + got.type);
        EXPECT_EQ(static_cast<long>(Number(m["log_time"]) / 1000000), got.time);
        EXPECT_EQ(static_cast<long>(Number(m["publish_time"]) / 1000000), got.record_time);
        EXPECT_EQ(data, got.data);
      }
    }
  }
  EXPECT_GE(files, 400u) << "corpus expected at " << root;
}

}  // namespace
}  // namespace kelo
