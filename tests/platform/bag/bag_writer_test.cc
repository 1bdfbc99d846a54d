#include "platform/bag/bag_writer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/bag/bag_reader.h"
#include "platform/bag/mcap_compression.h"
#include "platform/bag/mcap_crc32.h"
#include "platform/bag/mcap_records.h"
#include "tests/platform/bag/bag_test_util.h"

namespace kelo {
namespace {

using testing_util::FileExists;
using testing_util::ListDir;
using testing_util::Payload;
using testing_util::ReadAll;
using testing_util::ReadFile;
using testing_util::TempDir;
using testing_util::WriteFile;

constexpr char kBase[] = "bag_20240305140709";

std::string ActivePath(const TempDir& dir) { return dir / (std::string(kBase) + ".kelobag.active"); }

TEST(BagWriterTest, NamesFilesAfterThePartIndexAndCompletesThemByRename) {
  TempDir dir;
  BagWriter writer{fileio::FilePath(ActivePath(dir))};
  ASSERT_TRUE(writer.open("0"));
  const std::string part0 = dir / "bag_20240305140709_0.kelobag";
  EXPECT_EQ(part0 + ".active", writer.active_file());
  EXPECT_TRUE(FileExists(part0 + ".active"));
  writer.append_message(1000, 1001, "/a", "zero", "T");

  EXPECT_EQ(part0, writer.save_file("1"));
  EXPECT_TRUE(FileExists(part0));
  EXPECT_FALSE(FileExists(part0 + ".active"));
  const std::string part1 = dir / "bag_20240305140709_1.kelobag";
  EXPECT_TRUE(FileExists(part1 + ".active"));
  writer.append_message(2000, 2001, "/a", "one", "T");

  EXPECT_EQ(part1, writer.close());
  EXPECT_EQ("", writer.active_file());
  EXPECT_EQ(std::vector<std::string>({"bag_20240305140709_0.kelobag",
                                      "bag_20240305140709_1.kelobag"}),
            ListDir(dir.path()));
  EXPECT_EQ("zero", ReadAll(part0).at(0).data);
  EXPECT_EQ("one", ReadAll(part1).at(0).data);
  EXPECT_EQ("", writer.close()) << "nothing left to complete";
}

TEST(BagWriterTest, OpenWithoutIndexUsesTheGivenName) {
  TempDir dir;
  BagWriter writer{fileio::FilePath(ActivePath(dir))};
  writer.open("");
  EXPECT_EQ(ActivePath(dir), writer.active_file());
  EXPECT_EQ(dir / "bag_20240305140709.kelobag", writer.close());
}

TEST(BagWriterTest, NeverReplacesOrTruncatesAnExistingFile) {
  TempDir dir;
  // Both the completed and the active name of the first part are taken, and so is the first
  // suffixed completed name.
  WriteFile(dir / "bag_20240305140709_0.kelobag", "completed earlier");
  WriteFile(dir / "bag_20240305140709_0-1.kelobag.active", "still being written by someone");
  WriteFile(dir / "bag_20240305140709_0-2.kelobag", "another one");
  std::string name;
  {
    BagWriter writer{fileio::FilePath(ActivePath(dir))};
    writer.open("0");
    writer.append_message(5, 5, "/a", "mine", "T");
    name = writer.close();
  }
  EXPECT_EQ(dir / "bag_20240305140709_0-3.kelobag", name);
  EXPECT_EQ("completed earlier", ReadFile(dir / "bag_20240305140709_0.kelobag"));
  EXPECT_EQ("still being written by someone",
            ReadFile(dir / "bag_20240305140709_0-1.kelobag.active"));
  EXPECT_EQ("another one", ReadFile(dir / "bag_20240305140709_0-2.kelobag"));
  EXPECT_EQ("mine", ReadAll(name).at(0).data);
}

TEST(BagWriterTest, CompletionDoesNotReplaceAFileThatAppearedMeanwhile) {
  TempDir dir;
  BagWriter writer{fileio::FilePath(ActivePath(dir))};
  writer.open("");
  writer.append_message(5, 5, "/a", "mine", "T");
  WriteFile(dir / "bag_20240305140709.kelobag", "appeared while recording");
  const std::string name = writer.close();
  EXPECT_EQ(dir / "bag_20240305140709-1.kelobag", name);
  EXPECT_EQ("appeared while recording", ReadFile(dir / "bag_20240305140709.kelobag"));
  EXPECT_EQ(1u, ReadAll(name).size());
}

TEST(BagWriterTest, MessagesAfterCloseBeginANewFile) {
  TempDir dir;
  BagWriter writer{fileio::FilePath(ActivePath(dir))};
  writer.open("3");
  writer.append_message(1, 1, "/a", "before", "T");
  const std::string first = writer.close();
  writer.append_message(2, 2, "/a", "after", "T");
  const std::string second = writer.close();
  ASSERT_FALSE(second.empty());
  EXPECT_NE(first, second);
  EXPECT_EQ("before", ReadAll(first).at(0).data);
  EXPECT_EQ("after", ReadAll(second).at(0).data);
  EXPECT_EQ(1u, BagReader(second).topics().size()) << "the topic is declared in the new file";
}

TEST(BagWriterTest, DestructionWithoutCloseCompletesTheFile) {
  TempDir dir;
  {
    BagWriter writer{fileio::FilePath(ActivePath(dir))};
    writer.open("");
    writer.append_message(1, 1, "/a", "kept", "T");
  }
  BagReader reader(dir / "bag_20240305140709.kelobag");
  EXPECT_EQ("", reader.get_error());
  EXPECT_EQ(1u, reader.count());
}

TEST(BagWriterTest, TimesThatCannotBeStoredAreReportedOncePerEpisodeAndSkipped) {
  TempDir dir;
  BagWriter writer{fileio::FilePath(ActivePath(dir))};
  writer.open("");
  testing::internal::CaptureStderr();
  writer.append_message(-1, 5, "/a", "negative time", "T");
  writer.append_message(5, -7, "/a", "negative record time", "T");
  writer.append_message(-3, 5, "/a", "negative again", "T");
  writer.append_message(10, 10, "/a", "fine", "T");
  writer.append_message(-4, 5, "/a", "second episode", "T");
  writer.append_message(9223372036854775807L, 5, "/a", "too far", "T");
  writer.append_message(11, 11, "/a", "fine again", "T");
  const std::string err = testing::internal::GetCapturedStderr();
  const std::vector<BagMessage> got = ReadAll(writer.close());
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ("fine", got[0].data);
  EXPECT_EQ("fine again", got[1].data);
  size_t reports = 0;
  for (size_t at = err.find("outside the times"); at != std::string::npos;
       at = err.find("outside the times", at + 1)) {
    ++reports;
  }
  EXPECT_EQ(2u, reports) << err;
  EXPECT_NE(std::string::npos, err.find("-1 ms")) << err;
}

TEST(BagWriterTest, SmallChunkReachesTheDiskWithoutCloseOrMoreMessages) {
  TempDir dir;
  BagWriter writer{fileio::FilePath(ActivePath(dir))};
  writer.open("");
  const auto start = std::chrono::steady_clock::now();
  writer.append_message(7, 8, "/a", "lonely", "T");
  // A crash loses at most about one chunk duration; poll generously for slow machines.
  size_t seen = 0;
  while (seen == 0 && std::chrono::steady_clock::now() - start < std::chrono::seconds(30)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    seen = BagReader(ActivePath(dir)).count();
  }
  EXPECT_EQ(1u, seen);
  BagReader unfinished(ActivePath(dir));
  EXPECT_NE(std::string::npos,
            unfinished.get_error().find("recovered unfinished bag: kept 1 messages"));
  EXPECT_EQ("lonely", ReadAll(&unfinished).at(0).data);
}

TEST(BagWriterTest, TopicsDeclaredWhileMessagesArriveOnAnotherThread) {
  TempDir dir;
  BagWriter writer{fileio::FilePath(ActivePath(dir))};
  writer.open("");
  constexpr int kMessages = 20000;
  constexpr int kTopics = 300;
  std::thread producer([&] {
    for (int i = 0; i < kMessages; ++i) {
      writer.append_message(i, i, "/data", Payload(64, i), "kelo.Data");
    }
  });
  for (int t = 0; t < kTopics; ++t) writer.append_topic("/t" + std::to_string(t), "kelo.T");
  producer.join();
  BagReader reader(writer.close());
  EXPECT_EQ("", reader.get_error());
  EXPECT_EQ(static_cast<unsigned>(kMessages), reader.count());
  EXPECT_EQ(static_cast<size_t>(kTopics + 1), reader.topics().size());
}

TEST(BagWriterTest, PartsSplitWhileMessagesArriveLoseAndDuplicateNothing) {
  TempDir dir;
  BagWriterOptions options;
  options.chunk_size = 2048;
  BagWriter writer(fileio::FilePath(ActivePath(dir)), options);
  writer.open("0");
  constexpr int kMessages = 30000;
  std::atomic<bool> done{false};
  std::thread producer([&] {
    for (int i = 0; i < kMessages; ++i) {
      writer.append_message(i, i, i % 2 ? "/odd" : "/even", std::to_string(i), "T");
    }
    done = true;
  });
  std::vector<std::string> parts;
  for (int part = 1; !done; ++part) {
    const std::string name = writer.save_file(std::to_string(part));
    ASSERT_FALSE(name.empty());
    parts.push_back(name);
  }
  producer.join();
  parts.push_back(writer.close());

  std::set<int> seen;
  for (const std::string& part : parts) {
    EXPECT_EQ(std::string::npos, part.find(".active"));
    BagReader reader(part);
    EXPECT_EQ("", reader.get_error()) << part;
    for (const BagMessage& m : ReadAll(&reader)) {
      EXPECT_TRUE(seen.insert(std::stoi(m.data)).second) << "duplicate " << m.data;
    }
  }
  EXPECT_EQ(static_cast<size_t>(kMessages), seen.size());
  for (const std::string& name : ListDir(dir.path())) {
    EXPECT_EQ(std::string::npos, name.find(".active")) << name;
  }
}

// The file size limit of the process stands in for a full disk: writes past it fail with
// EFBIG just as they would with ENOSPC.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    old_handler_ = ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &old_);
    struct rlimit limit = old_;
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    ::signal(SIGXFSZ, old_handler_);
  }

 private:
  struct rlimit old_;
  void (*old_handler_)(int);
};

TEST(BagWriterTest, FullDiskIsReportedOnceKeepsTheFileReadableAndWritingResumes) {
  TempDir dir;
  BagWriterOptions options;
  options.compression = BagCompression::kNone;
  options.chunk_size = 4096;
  BagWriter writer(fileio::FilePath(ActivePath(dir)), options);
  writer.open("");
  for (int i = 0; i < 100; ++i) writer.append_message(i, i, "/a", Payload(100, i), "T");
  std::string err;
  {
    // Wait for the first chunks to be on disk, then let nothing more fit.
    while (BagReader(ActivePath(dir)).count() < 60) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const std::string before = ReadFile(ActivePath(dir));
    FileSizeLimit limit(before.size() + 100);
    testing::internal::CaptureStderr();
    for (int i = 100; i < 400; ++i) writer.append_message(i, i, "/a", Payload(100, i), "T");
    // Messages are written by the writer's own thread; wait until it has tried them all.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    err = testing::internal::GetCapturedStderr();
    BagReader during(ActivePath(dir));
    EXPECT_GE(during.count(), 60u) << "what was written before stays readable";
  }
  EXPECT_NE(std::string::npos, err.find("File too large")) << err;
  EXPECT_NE(std::string::npos, err.find(ActivePath(dir))) << err;
  EXPECT_EQ(err.find("bag: "), err.rfind("bag: ")) << "reported once: " << err;

  testing::internal::CaptureStderr();
  for (int i = 400; i < 500; ++i) writer.append_message(i, i, "/a", Payload(100, i), "T");
  const std::string name = writer.close();
  err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, err.find("again")) << err;
  BagReader reader(name);
  EXPECT_EQ("", reader.get_error());
  const std::vector<BagMessage> got = ReadAll(&reader);
  ASSERT_GE(got.size(), 160u);
  EXPECT_EQ(499, got.back().time) << "messages after the episode are stored";
  for (size_t i = 1; i < got.size(); ++i) EXPECT_LT(got[i - 1].time, got[i].time);
}

TEST(BagWriterTest, RemovedDirectoryIsReportedAndANewFileBegunWhenItReturns) {
  TempDir dir;
  const std::string sub = dir / "rec";
  ASSERT_EQ(0, ::mkdir(sub.c_str(), 0755));
  BagWriterOptions options;
  options.chunk_size = 1024;
  BagWriter writer(fileio::FilePath(sub + "/bag.kelobag.active"), options);
  writer.open("");
  writer.append_message(1, 1, "/a", Payload(2000, 1), "T");
  TempDir::RemoveTree(sub);
  testing::internal::CaptureStderr();
  writer.append_message(2, 2, "/a", Payload(2000, 2), "T");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  ASSERT_EQ(0, ::mkdir(sub.c_str(), 0755));
  writer.append_message(3, 3, "/a", Payload(2000, 3), "T");
  const std::string name = writer.close();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, err.find("bag: ")) << err;
  ASSERT_FALSE(name.empty()) << err;
  const std::vector<BagMessage> got = ReadAll(name);
  ASSERT_FALSE(got.empty());
  EXPECT_EQ(3, got.back().time);
}

// Walks a file record by record and checks the CRCs the writer filled in.
TEST(BagWriterTest, WritesWellFormedMcapWithEveryCrcFilled) {
  for (BagCompression c : {BagCompression::kZstd, BagCompression::kLz4, BagCompression::kNone}) {
    TempDir dir;
    BagWriterOptions options;
    options.compression = c;
    options.chunk_size = 8192;
    BagWriter writer(fileio::FilePath(ActivePath(dir)), options);
    writer.open("");
    writer.append_topic("/quiet", "kelo.Quiet");
    for (int i = 0; i < 500; ++i) {
      writer.append_message(1000 + i, 2000 + i, i % 2 ? "/a" : "/b", Payload(100, i),
                            i % 2 ? "kelo.A" : "kelo.B");
    }
    const std::string bytes = ReadFile(writer.close());
    ASSERT_EQ(0, bytes.compare(0, 8, std::string(mcap::kMagic, 8)));
    ASSERT_EQ(0, bytes.compare(bytes.size() - 8, 8, std::string(mcap::kMagic, 8)));
    mcap::Header header;
    ASSERT_TRUE(mcap::ParseHeader(bytes.data() + 17, mcap::LoadU64(bytes.data() + 9), &header));
    EXPECT_EQ("", header.profile);
    EXPECT_EQ(std::string("libkelo_bag_aa ") + KELO_BAG_AA_VERSION, header.library);

    size_t pos = 8 + 9 + mcap::LoadU64(bytes.data() + 9);  // after the header
    int chunks = 0, channels = 0, indexes = 0;
    std::set<std::string> compressions;
    while (static_cast<uint8_t>(bytes[pos]) != mcap::kOpDataEnd) {
      const uint8_t op = static_cast<uint8_t>(bytes[pos]);
      const uint64_t len = mcap::LoadU64(bytes.data() + pos + 1);
      const char* content = bytes.data() + pos + 9;
      ASSERT_LE(pos + 9 + len, bytes.size());
      if (op == mcap::kOpChunk) {
        ++chunks;
        mcap::ChunkHeader h;
        ASSERT_TRUE(mcap::ParseChunkHeader(content, len, &h));
        compressions.insert(h.compression);
        EXPECT_NE(0u, h.uncompressed_crc);
        EXPECT_LE(h.message_start_time, h.message_end_time);
      } else if (op == mcap::kOpChannel) {
        ++channels;
        mcap::Channel ch;
        ASSERT_TRUE(mcap::ParseChannel(content, len, &ch));
        EXPECT_EQ("kelo", ch.message_encoding);
        EXPECT_NE(0, ch.schema_id);
      } else if (op == mcap::kOpSchema) {
        mcap::Schema s;
        ASSERT_TRUE(mcap::ParseSchema(content, len, &s));
        EXPECT_EQ("", s.encoding);
        EXPECT_EQ("", s.data);
      } else if (op == mcap::kOpMessageIndex) {
        ++indexes;
      } else {
        ADD_FAILURE() << "unexpected record " << int(op) << " in the data section";
      }
      pos += 9 + len;
    }
    EXPECT_GT(chunks, 3);
    EXPECT_EQ(3, channels);
    EXPECT_EQ(2 * chunks, indexes) << "one message index per channel with messages";
    // Chunks go uncompressed only when small or when compression falls behind.
    EXPECT_EQ(1u, compressions.count(mcap::CompressionName(c)));
    compressions.insert("");
    EXPECT_LE(compressions.size(), 2u);

    uint32_t data_crc = 0;
    ASSERT_TRUE(mcap::ParseDataEnd(bytes.data() + pos + 9, 4, &data_crc));
    EXPECT_EQ(mcap::Crc32(bytes.data(), pos), data_crc);
    const size_t footer = bytes.size() - 8 - 29;
    mcap::Footer f;
    ASSERT_TRUE(mcap::ParseFooter(bytes.data() + footer + 9, 20, &f));
    EXPECT_EQ(pos + 13, f.summary_start);
    EXPECT_EQ(mcap::Crc32(bytes.data() + f.summary_start, footer + 25 - f.summary_start),
              f.summary_crc);
    BagReader reader(ActivePath(dir).substr(0, ActivePath(dir).size() - 7));
    EXPECT_EQ(500u, reader.count());
  }
}

TEST(BagWriterTest, ChunksThatDoNotShrinkAreStoredUncompressed) {
  TempDir dir;
  BagWriterOptions options;
  options.chunk_size = 4096;
  BagWriter writer(fileio::FilePath(ActivePath(dir)), options);
  writer.open("");
  unsigned x = 12345;
  for (int i = 0; i < 40; ++i) {
    std::string noise(3000, '\0');
    for (char& ch : noise) ch = static_cast<char>((x = x * 1103515245u + 12345u) >> 23);
    writer.append_message(i, i, "/noise", noise, "T");
  }
  const std::string bytes = ReadFile(writer.close());
  size_t pos = 8 + 9 + mcap::LoadU64(bytes.data() + 9);
  int stored = 0;
  while (static_cast<uint8_t>(bytes[pos]) != mcap::kOpDataEnd) {
    const uint64_t len = mcap::LoadU64(bytes.data() + pos + 1);
    if (static_cast<uint8_t>(bytes[pos]) == mcap::kOpChunk) {
      mcap::ChunkHeader h;
      ASSERT_TRUE(mcap::ParseChunkHeader(bytes.data() + pos + 9, len, &h));
      EXPECT_EQ("", h.compression);
      ++stored;
    }
    pos += 9 + len;
  }
  EXPECT_EQ(40, stored);
}

}  // namespace
}  // namespace kelo

namespace kelo {
namespace {

// The tool's compression choice reaches writers made without options (the recorder's).
TEST(BagWriterTest, DefaultOptionsApplyToWritersMadeWithoutOptions) {
  const BagWriterOptions saved = DefaultBagWriterOptions();
  auto written_size = [](BagCompression compression) {
    TempDir dir;
    BagWriterOptions options;
    options.compression = compression;
    SetDefaultBagWriterOptions(options);
    BagWriter writer{fileio::FilePath(ActivePath(dir))};
    writer.open("");
    for (int i = 0; i < 1000; ++i) writer.append_message(i, i, "/a", std::string(1000, 'a'), "T");
    std::string name = writer.close();
    EXPECT_EQ(ReadAll(name).size(), 1000u);
    return ReadFile(name).size();
  };
  EXPECT_GT(written_size(BagCompression::kNone), 1000u * 1000u);
  EXPECT_LT(written_size(BagCompression::kZstd), 100u * 1000u);
  SetDefaultBagWriterOptions(saved);
}

}  // namespace
}  // namespace kelo
