#include "platform/bag/bag_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/bag/bag_writer.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_index.h"
#include "tests/platform/bag/bag_test_util.h"

namespace kelo {
namespace {

using testing_util::Payload;
using testing_util::ReadAll;
using testing_util::ReadFile;
using testing_util::SameMessage;
using testing_util::TempDir;
using testing_util::WriteFile;

// Writes `messages` in order through a BagWriter and returns the completed file's name.
std::string WriteBag(const TempDir& dir, const std::vector<BagMessage>& messages,
                     const BagWriterOptions& options = BagWriterOptions()) {
  BagWriter writer(fileio::FilePath(dir / "bag_1.kelobag.active"), options);
  writer.open("");
  for (const BagMessage& m : messages) {
    writer.append_message(m.time, m.record_time, m.topic, m.data, m.type);
  }
  return writer.close();
}

BagMessage Message(const std::string& topic, long time, const std::string& type,
                   const std::string& data, long record_time) {
  BagMessage m;
  m.topic = topic;
  m.time = time;
  m.type = type;
  m.data = data;
  m.record_time = record_time;
  return m;
}

// The order a reader must give: by time, ties in the order written.
std::vector<BagMessage> InTimeOrder(std::vector<BagMessage> messages) {
  std::stable_sort(messages.begin(), messages.end(),
                   [](const BagMessage& a, const BagMessage& b) { return a.time < b.time; });
  return messages;
}

void ExpectSameMessages(const std::vector<BagMessage>& expected,
                        const std::vector<BagMessage>& actual) {
  ASSERT_EQ(expected.size(), actual.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_TRUE(SameMessage(expected[i], actual[i]))
        << "message " << i << ": " << actual[i].topic << " at " << actual[i].time;
  }
}

// Messages from 0 bytes to 16 MB on several topics, one of which changes type, with times
// that go backwards and repeat.
std::vector<BagMessage> VariedMessages() {
  std::vector<BagMessage> out;
  const size_t sizes[] = {0, 1, 100, 10 * 1024, 1 << 20, 16 << 20, 7, 0, 333};
  long time = 1700000000000;
  unsigned seed = 1;
  for (size_t size : sizes) {
    out.push_back(Message("/camera", time, "kelo.Image", Payload(size, seed++), time + 3));
    out.push_back(Message("/imu", time, "kelo.Imu", Payload(size % 500, seed++), time + 1));
    time += 10;
  }
  out.push_back(Message("/imu", time - 55, "kelo.Imu", "late", time));  // goes back in time
  for (int i = 0; i < 300; ++i) {
    out.push_back(Message("/state", time + i / 3, i < 150 ? "kelo.StateV1" : "kelo.StateV2",
                          Payload(i, seed++), time + i));
  }
  return out;
}

TEST(BagReaderTest, ReturnsExactlyWhatWasWrittenForEachCompression) {
  const std::vector<BagMessage> written = VariedMessages();
  const std::vector<BagMessage> expected = InTimeOrder(written);
  for (BagCompression c : {BagCompression::kZstd, BagCompression::kLz4, BagCompression::kNone}) {
    SCOPED_TRACE(static_cast<int>(c));
    TempDir dir;
    BagWriterOptions options;
    options.compression = c;
    const std::string name = WriteBag(dir, written, options);
    ASSERT_FALSE(name.empty());
    BagReader reader(name);
    EXPECT_EQ("", reader.get_error());
    ExpectSameMessages(expected, ReadAll(&reader));

    std::vector<std::pair<std::string, std::string>> topics;
    for (const auto& t : reader.topics()) topics.emplace_back(t->name, t->type);
    std::sort(topics.begin(), topics.end());
    const std::vector<std::pair<std::string, std::string>> want = {
        {"/camera", "kelo.Image"}, {"/imu", "kelo.Imu"},
        {"/state", "kelo.StateV1"}, {"/state", "kelo.StateV2"}};
    EXPECT_EQ(want, topics);
  }
}

TEST(BagReaderTest, OrdersByTimeAcrossOverlappingChunksWithTiesInWriteOrder) {
  std::vector<BagMessage> written;
  // Small chunks, so that times jump back and forth across many of them.
  for (int i = 0; i < 600; ++i) {
    long time = 1000 + (i * 37) % 101;  // every time repeats about six times
    written.push_back(Message(i % 2 ? "/a" : "/b", time, "T", std::to_string(i), i));
  }
  BagWriterOptions options;
  options.chunk_size = 512;
  TempDir dir;
  const std::string name = WriteBag(dir, written, options);
  ExpectSameMessages(InTimeOrder(written), ReadAll(name));
}

TEST(BagReaderTest, SeeksByIndexAndTime) {
  std::vector<BagMessage> written;
  for (long t : {10, 20, 20, 20, 30, 50}) written.push_back(Message("/t", t, "T", "x", t));
  TempDir dir;
  BagReader reader(WriteBag(dir, written));
  ASSERT_EQ(6u, reader.count());
  EXPECT_EQ(10, reader.start_time());
  EXPECT_EQ(50, reader.end_time());

  reader.seek(3);
  EXPECT_EQ(3u, reader.index());
  EXPECT_EQ(20, reader.read()->time);
  EXPECT_EQ(3u, reader.index()) << "read() must not move";
  reader.seek(reader.count());
  EXPECT_TRUE(reader.eof());
  EXPECT_EQ(nullptr, reader.read());
  reader.next();
  EXPECT_EQ(6u, reader.index()) << "next() at the end stays at the end";
  reader.seek(1000);
  EXPECT_TRUE(reader.eof());

  // seek_time: first message at or after t.
  const std::vector<std::pair<long, unsigned>> cases = {
      {-5, 0}, {0, 0}, {10, 0}, {11, 1}, {20, 1}, {21, 4}, {30, 4}, {31, 5}, {50, 5}, {51, 6}};
  for (const auto& c : cases) {
    reader.seek_time(c.first);
    EXPECT_EQ(c.second, reader.index()) << "seek_time(" << c.first << ")";
  }
}

TEST(BagReaderTest, EmptyAndUnreadableBagsHaveNoMessagesAndZeroTimes) {
  TempDir dir;
  {
    BagWriter writer(fileio::FilePath(dir / "empty.kelobag.active"));
    writer.open("");
    writer.append_topic("/declared", "kelo.Declared");
    ASSERT_EQ(dir / "empty.kelobag", writer.close());
  }
  BagReader empty(dir / "empty.kelobag");
  EXPECT_EQ("", empty.get_error());
  EXPECT_TRUE(empty.eof());
  EXPECT_EQ(0u, empty.count());
  EXPECT_EQ(0, empty.start_time());
  EXPECT_EQ(0, empty.end_time());
  ASSERT_EQ(1u, empty.topics().size());
  EXPECT_EQ("/declared", empty.topics()[0]->name);
  EXPECT_EQ("kelo.Declared", empty.topics()[0]->type);

  WriteFile(dir / "text.kelobag", "this is not a bag at all");
  const std::string missing = dir / "missing.kelobag";
  for (const std::string& path : {missing, dir / "text.kelobag", dir.path()}) {
    BagReader bad(path);
    const std::string error = bad.get_error();
    EXPECT_EQ(0u, error.find(path + ": ")) << error;
    EXPECT_EQ(std::string::npos, error.find('\n'));
    EXPECT_TRUE(bad.eof());
    EXPECT_EQ(0u, bad.count());
    EXPECT_EQ(nullptr, bad.read());
    EXPECT_EQ(0, bad.start_time());
    EXPECT_TRUE(bad.topics().empty());
  }
}

TEST(BagReaderTest, MessagesOutliveTheirReader) {
  TempDir dir;
  const std::string name = WriteBag(dir, {Message("/a", 5, "T", "payload", 6)});
  std::shared_ptr<BagMessage> kept;
  {
    BagReader reader(name);
    kept = reader.read();
  }
  ASSERT_NE(nullptr, kept);
  EXPECT_EQ("payload", kept->data);
  EXPECT_EQ(6, kept->record_time);
}

TEST(BagReaderTest, OpensFromTheSummaryWithoutScanning) {
  TempDir dir;
  std::vector<BagMessage> written;
  for (int i = 0; i < 2000; ++i) written.push_back(Message("/a", i, "T", Payload(50, i), i));
  BagWriterOptions options;
  options.chunk_size = 4096;
  const std::string name = WriteBag(dir, written, options);
  mcap::RandomAccessFile file;
  std::string error;
  ASSERT_TRUE(file.Open(name, &error));
  mcap::ChunkDecompressor decompressor;
  mcap::BagIndex index;
  ASSERT_TRUE(mcap::BuildIndex(file, &decompressor, &index, &error));
  EXPECT_TRUE(index.from_summary);
  EXPECT_EQ(2000u, index.messages.size());
  EXPECT_GT(index.blocks.size(), 10u);
}

// A bag of many small uncompressed chunks, with the file offset at which each chunk ends
// and the number of messages stored before that point.
struct ChunkedBag {
  std::string bytes;
  std::vector<BagMessage> messages;             // in time order
  std::vector<std::pair<uint64_t, size_t>> ends;  // (end of chunk, messages up to it)
};

ChunkedBag MakeChunkedBag(const TempDir& dir, BagCompression compression) {
  ChunkedBag bag;
  for (int i = 0; i < 240; ++i) {
    bag.messages.push_back(Message(i % 3 ? "/a" : "/b", 100 + i, i % 3 ? "A" : "B",
                                   Payload(i % 40, i), 200 + i));
  }
  BagWriterOptions options;
  options.compression = compression;
  options.chunk_size = 1500;
  const std::string name = WriteBag(dir, bag.messages, options);
  bag.bytes = ReadFile(name);
  mcap::RandomAccessFile file;
  std::string error;
  EXPECT_TRUE(file.Open(name, &error));
  mcap::ChunkDecompressor decompressor;
  mcap::BagIndex index;
  EXPECT_TRUE(mcap::BuildIndex(file, &decompressor, &index, &error));
  std::vector<size_t> per_block(index.blocks.size());
  for (const auto& m : index.messages) ++per_block[m.block];
  size_t total = 0;
  for (size_t b = 0; b < index.blocks.size(); ++b) {
    total += per_block[b];
    bag.ends.emplace_back(index.blocks[b].offset + index.blocks[b].length, total);
  }
  return bag;
}

TEST(BagReaderTest, ReadsFileCutAtAnyByteUpToLastChunk) {
  for (BagCompression c : {BagCompression::kNone, BagCompression::kZstd}) {
    TempDir dir;
    const ChunkedBag bag = MakeChunkedBag(dir, c);
    ASSERT_GT(bag.ends.size(), 5u);
    const std::string cut = dir / "cut.kelobag.active";
    for (size_t length = 0; length < bag.bytes.size(); length += 23) {
      WriteFile(cut, bag.bytes.substr(0, length));
      BagReader reader(cut);
      size_t expected = 0;
      for (const auto& end : bag.ends) {
        if (end.first <= length) expected = end.second;
      }
      const std::vector<BagMessage> got = ReadAll(&reader);
      ASSERT_EQ(expected, got.size()) << "cut at " << length;
      for (size_t i = 0; i < got.size(); ++i) {
        ASSERT_TRUE(SameMessage(bag.messages[i], got[i])) << "cut at " << length;
      }
      if (length >= 8) {
        const std::string error = reader.get_error();
        EXPECT_NE(std::string::npos, error.find("recovered unfinished bag: kept " +
                                                std::to_string(expected) + " messages"))
            << error;
      }
    }
  }
}

TEST(BagReaderTest, DescribesCompressionChunksAndRecoveryOfTheFile) {
  const std::pair<BagCompression, std::string> kinds[] = {
      {BagCompression::kZstd, "zstd"}, {BagCompression::kLz4, "lz4"}, {BagCompression::kNone, "none"}};
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.second);
    TempDir dir;
    BagWriterOptions options;
    options.compression = kind.first;
    // One chunk of text that compresses well: stored with the chosen compression.
    const std::string one = WriteBag(dir, {Message("/log", 5, "T", std::string(20000, 'z'), 5)}, options);
    const BagFileInfo one_info = BagReader(one).file_info();
    EXPECT_EQ(kind.second, one_info.compression);
    EXPECT_EQ(1u, one_info.chunks);
    EXPECT_TRUE(one_info.indexed);
    EXPECT_FALSE(one_info.recovered);
    EXPECT_EQ(0u, one_info.library.find("libkelo_bag_aa ")) << one_info.library;

    // Many chunks; a writer that falls behind stores some as they are, so only the kinds
    // are known in advance, not which chunk has which.
    const ChunkedBag bag = MakeChunkedBag(dir, kind.first);
    const std::string whole = dir / "whole.kelobag";
    WriteFile(whole, bag.bytes);
    const BagFileInfo info = BagReader(whole).file_info();
    EXPECT_EQ(bag.ends.size(), info.chunks);
    EXPECT_TRUE(info.compression == kind.second || info.compression == "none" ||
                info.compression == "none+" + kind.second || info.compression == kind.second + "+none")
        << info.compression;
    EXPECT_TRUE(info.indexed);
    EXPECT_FALSE(info.recovered);

    // Cut inside the third chunk: the first two are kept, and the file says it was recovered.
    const std::string cut = dir / "cut.kelobag.active";
    WriteFile(cut, bag.bytes.substr(0, bag.ends[2].first - 1));
    const BagFileInfo cut_info = BagReader(cut).file_info();
    EXPECT_EQ(2u, cut_info.chunks);
    EXPECT_FALSE(cut_info.indexed);
    EXPECT_TRUE(cut_info.recovered);
  }
}

TEST(BagReaderTest, NamesEveryCompressionFoundInFileOrder) {
  TempDir dir;
  // A chunk too small to be worth compressing is stored as it is, and a message larger than
  // the chunk size gets a chunk of its own: this file holds one chunk of each kind.
  BagWriterOptions options;
  options.chunk_size = 8000;
  const std::string name = WriteBag(dir, {Message("/a", 1, "T", "tiny", 1),
                                          Message("/a", 2, "T", std::string(20000, 'a'), 2)},
                                    options);
  const BagFileInfo info = BagReader(name).file_info();
  EXPECT_EQ(2u, info.chunks);
  EXPECT_EQ("none+zstd", info.compression);
}

TEST(BagReaderTest, DescribesFilesWithoutChunksAndFilesThatAreNoBags) {
  TempDir dir;
  {
    BagWriter writer(fileio::FilePath(dir / "empty.kelobag.active"));
    writer.open("");
    writer.append_topic("/declared", "kelo.Declared");
    ASSERT_EQ(dir / "empty.kelobag", writer.close());
  }
  const BagFileInfo empty = BagReader(dir / "empty.kelobag").file_info();
  EXPECT_EQ("", empty.compression);
  EXPECT_EQ(0u, empty.chunks);
  EXPECT_FALSE(empty.recovered);

  WriteFile(dir / "text.kelobag", "this is not a bag at all");
  for (const std::string& path : {dir / "missing.kelobag", dir / "text.kelobag"}) {
    const BagFileInfo bad = BagReader(path).file_info();
    EXPECT_EQ("", bad.compression) << path;
    EXPECT_EQ("", bad.library) << path;
    EXPECT_EQ(0u, bad.chunks) << path;
    EXPECT_FALSE(bad.indexed) << path;
    EXPECT_FALSE(bad.recovered) << path;
  }
}

TEST(BagReaderTest, SurvivesBytesFlippedAnywhere) {
  for (BagCompression c : {BagCompression::kNone, BagCompression::kLz4}) {
    TempDir dir;
    const ChunkedBag bag = MakeChunkedBag(dir, c);
    const std::string damaged = dir / "damaged.kelobag";
    for (size_t at = 0; at < bag.bytes.size(); at += 29) {
      for (unsigned char mask : {0x01, 0x80, 0xFF}) {
        std::string bytes = bag.bytes;
        bytes[at] = static_cast<char>(bytes[at] ^ mask);
        WriteFile(damaged, bytes);
        BagReader reader(damaged);
        unsigned steps = 0;
        for (reader.seek(0); !reader.eof(); reader.next()) {
          ASSERT_NE(nullptr, reader.read()) << "flip at " << at;
          ASSERT_LE(++steps, bag.messages.size() + 1) << "flip at " << at;
        }
        reader.seek_time(150);
        if (!reader.eof()) {
          ASSERT_NE(nullptr, reader.read());
        }
      }
    }
  }
}

}  // namespace
}  // namespace kelo
