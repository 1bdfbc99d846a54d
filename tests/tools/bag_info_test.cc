#include "tools/kelo_bag/bag_info.h"

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bag/bag_writer.h"
#include "platform/bag/bag_writer_options.h"
#include "platform/fileio/file_path.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/subprocess.h"

namespace kelo {
namespace cli {
namespace {

using testing_support::ReadWholeFile;
using testing_support::TempDir;

constexpr long kT0 = 1700000000000;

// /imu at 100 Hz for 2 s (201 messages), /cam at 10 Hz for 2 s (21), and /state with a
// type change half way; lz4, small chunks.
std::string WriteBag(const TempDir& dir, const std::string& name, long offset) {
  BagWriterOptions options;
  options.compression = BagCompression::kLz4;
  options.chunk_size = 16 * 1024;
  BagWriter writer(fileio::FilePath(dir.file(name + ".kelobag.active")), options);
  writer.open("");
  for (long t = 0; t <= 2000; t += 10) {
    writer.append_message(kT0 + offset + t, 0, "/imu", std::string(64, 'i'), "lcm:imu");
    if (t % 100 == 0) writer.append_message(kT0 + offset + t, 0, "/cam", std::string(4000, 'c'), "lcm:cam");
    if (t % 500 == 0) writer.append_message(kT0 + offset + t, 0, "/state", "s", t < 1000 ? "v1" : "v2");
  }
  return writer.close();
}

const BagSummary::Topic* Find(const BagSummary& s, const std::string& name, const std::string& type) {
  for (const BagSummary::Topic& t : s.topics) {
    if (t.name == name && t.type == type) return &t;
  }
  return nullptr;
}

TEST(BagInfoTest, SummarizesTimesCountsTopicsAndStorageOfABagAlikeFromItsSummaryAndItsMessages) {
  TempDir dir;
  const std::string path = WriteBag(dir, "a", 0);
  for (bool verify : {false, true}) {
    SCOPED_TRACE(verify ? "every message read" : "summary only");
    BagSummary s;
    std::string error;
    ASSERT_TRUE(SummarizeBag(path, verify, &s, &error)) << error;
    EXPECT_EQ(path, s.path);
    EXPECT_EQ(ReadWholeFile(path).size(), s.size_bytes);
    EXPECT_EQ(kT0, s.start_ms);
    EXPECT_EQ(kT0 + 2000, s.end_ms);
    EXPECT_DOUBLE_EQ(2.0, s.duration_s());
    EXPECT_EQ(201u + 21u + 5u, s.messages);
    EXPECT_NE(std::string::npos, s.compression.find("lz4")) << s.compression;
    EXPECT_GT(s.chunks, 1u);
    EXPECT_FALSE(s.recovered);
    ASSERT_EQ(4u, s.topics.size());  // /state once per type
    ASSERT_NE(nullptr, Find(s, "/imu", "lcm:imu"));
    EXPECT_EQ(201u, Find(s, "/imu", "lcm:imu")->messages);
    EXPECT_DOUBLE_EQ(100.0, Find(s, "/imu", "lcm:imu")->frequency());
    EXPECT_DOUBLE_EQ(10.0, Find(s, "/cam", "lcm:cam")->frequency());
    ASSERT_NE(nullptr, Find(s, "/state", "v2"));
    EXPECT_EQ(3u, Find(s, "/state", "v2")->messages);

    const std::string text = FormatSummary(s);
    for (const std::string& line : {"path:        " + path, std::string("messages:    227"),
                                    std::string("recovered:   no"), std::string("duration:    2.000 s")}) {
      EXPECT_NE(std::string::npos, text.find(line)) << line << "\n" << text;
    }
    const Json::Value json = SummaryJson(s);
    EXPECT_EQ(path, json["path"].asString());
    EXPECT_EQ(227u, json["messages"].asUInt64());
    EXPECT_EQ(kT0, json["start_ms"].asInt64());
    EXPECT_EQ(4u, json["topics"].size());
    EXPECT_EQ("/cam", json["topics"][0]["topic"].asString());
    EXPECT_DOUBLE_EQ(10.0, json["topics"][0]["frequency_hz"].asDouble());
  }
}

TEST(BagInfoTest, SummarizesAnUnfinishedBagAsRecoveredAndRefusesWhatIsNoBag) {
  TempDir dir;
  const std::string bytes = ReadWholeFile(WriteBag(dir, "a", 0));
  const std::string cut = dir.file("cut.kelobag.active");
  std::ofstream(cut, std::ios::binary)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size() * 2 / 3));
  BagSummary s;
  std::string error;
  ASSERT_TRUE(SummarizeBag(cut, false, &s, &error)) << error;
  EXPECT_TRUE(s.recovered);
  EXPECT_NE(std::string::npos, s.note.find("recovered")) << s.note;
  EXPECT_GT(s.messages, 0u);
  EXPECT_LT(s.messages, 227u);
  EXPECT_NE(std::string::npos, FormatSummary(s).find("recovered:   yes"));

  std::ofstream(dir.file("text.kelobag")) << "not a bag";
  for (const std::string& bad : {dir.file("text.kelobag"), dir.file("missing.kelobag")}) {
    EXPECT_FALSE(SummarizeBag(bad, false, &s, &error)) << bad;
    EXPECT_EQ(0u, error.find(bad + ": ")) << error;
  }
}

TEST(BagInfoTest, MergesBagsIntoOneRecording) {
  TempDir dir;
  std::vector<BagSummary> parts(2);
  std::string error;
  ASSERT_TRUE(SummarizeBag(WriteBag(dir, "a", 0), false, &parts[0], &error));
  ASSERT_TRUE(SummarizeBag(WriteBag(dir, "b", 2010), true, &parts[1], &error));
  parts[1].compression = "zstd";  // as if written with another setting
  const BagSummary all = MergeSummaries(parts);
  EXPECT_EQ("", all.path);
  EXPECT_EQ(2u, all.files);
  EXPECT_EQ(parts[0].size_bytes + parts[1].size_bytes, all.size_bytes);
  EXPECT_EQ(454u, all.messages);
  EXPECT_EQ(kT0, all.start_ms);
  EXPECT_EQ(kT0 + 4010, all.end_ms);
  EXPECT_EQ(parts[0].chunks + parts[1].chunks, all.chunks);
  EXPECT_EQ(parts[0].compression + "+zstd", all.compression);
  ASSERT_EQ(4u, all.topics.size());
  EXPECT_EQ(402u, Find(all, "/imu", "lcm:imu")->messages);
  EXPECT_NEAR(100.0, Find(all, "/imu", "lcm:imu")->frequency(), 0.3);  // 401 gaps over 4.01 s
  EXPECT_NE(std::string::npos, FormatSummary(all).find("all 2 files"));
  EXPECT_FALSE(SummaryJson(all).isMember("path"));
}

}  // namespace
}  // namespace cli
}  // namespace kelo
