#include "platform/bag/bag_reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bag/bag_writer.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_index.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing_support::Noise;
using testing_support::ReadFile;
using testing_support::TempDir;
using testing_support::WriteFile;

BagMessage Message(const std::string& topic, long time, const std::string& type, const std::string& data) {
  BagMessage m;
  m.topic = topic;
  m.time = time;
  m.type = type;
  m.data = data;
  m.record_time = time + 7;
  return m;
}

std::string WriteBag(const std::string& path, const std::vector<BagMessage>& messages,
                     const BagWriterOptions& options = BagWriterOptions()) {
  BagWriter writer(fileio::FilePath(path + ".active"), options);
  for (const BagMessage& m : messages) writer.append_message(m.time, m.record_time, m.topic, m.data, m.type);
  return writer.close();
}

std::vector<BagMessage> ReadEverything(BagReader* reader) {
  std::vector<BagMessage> out;
  for (reader->seek(0); !reader->eof(); reader->next()) out.push_back(*reader->read());
  return out;
}

std::string Describe(const BagMessage& m) {
  return m.topic + "|" + m.type + "|" + std::to_string(m.time) + "|" + std::to_string(m.record_time) + "|" +
         std::to_string(m.data.size()) + "|" + m.data.substr(0, 16);
}

std::vector<std::string> Describe(const std::vector<BagMessage>& messages) {
  std::vector<std::string> out;
  for (const BagMessage& m : messages) out.push_back(Describe(m));
  return out;
}

// 200 small messages over three topics in many small chunks, and where each chunk begins
// and ends, with how many messages the file holds up to its end.
struct ChunkedBag {
  struct Chunk {
    uint64_t begin, end;
    size_t messages_so_far;
  };
  std::vector<BagMessage> messages;
  std::string bytes;
  std::vector<Chunk> chunks;
};

ChunkedBag MakeChunkedBag(const TempDir& dir, BagCompression compression) {
  ChunkedBag bag;
  for (int i = 0; i < 200; ++i) {
    bag.messages.push_back(Message(i % 3 ? "/a" : "/b", 100 + i, i % 3 ? "A" : "B", Noise(i % 40, i)));
  }
  BagWriterOptions options;
  options.compression = compression;
  options.chunk_size = 1500;
  bag.bytes = ReadFile(WriteBag(dir.file("chunked.kelobag"), bag.messages, options));
  mcap::RandomAccessFile file;
  std::string error;
  EXPECT_TRUE(file.Open(dir.file("chunked.kelobag"), &error));
  mcap::ChunkDecompressor decompressor;
  mcap::BagIndex index;
  EXPECT_TRUE(mcap::BuildIndex(file, &decompressor, &index, &error));
  std::vector<size_t> per_block(index.blocks.size());
  for (const auto& m : index.messages) ++per_block[m.block];
  size_t total = 0;
  for (size_t b = 0; b < index.blocks.size(); ++b) {
    total += per_block[b];
    bag.chunks.push_back({index.blocks[b].offset, index.blocks[b].offset + index.blocks[b].length, total});
  }
  return bag;
}

TEST(BagReaderTest, GivesBackWhatWasWrittenInTimeOrderWithTiesInWriteOrder) {
  // Messages from 0 bytes to 16 MB, a topic whose type changes, times that go back and repeat.
  std::vector<BagMessage> messages;
  long time = 1700000000000;
  unsigned seed = 1;
  for (size_t size : {0ul, 1ul, 100ul, 10240ul, 1ul << 20, 16ul << 20, 7ul}) {
    messages.push_back(Message("/camera", time, "kelo.Image", Noise(size, seed++)));
    messages.push_back(Message("/imu", time, "kelo.Imu", Noise(size % 500, seed++)));
    time += 10;
  }
  messages.push_back(Message("/imu", time - 55, "kelo.Imu", "late"));
  for (int i = 0; i < 300; ++i) {
    messages.push_back(Message("/state", time + i / 3, i < 150 ? "kelo.V1" : "kelo.V2", Noise(i, seed++)));
  }
  std::vector<BagMessage> expected = messages;
  std::stable_sort(expected.begin(), expected.end(),
                   [](const BagMessage& a, const BagMessage& b) { return a.time < b.time; });
  for (BagCompression c : {BagCompression::kZstd, BagCompression::kLz4, BagCompression::kNone}) {
    TempDir dir;
    BagWriterOptions options;
    options.compression = c;
    options.chunk_size = 4096;  // chunks overlap in time
    BagReader reader(WriteBag(dir.file("all.kelobag"), messages, options));
    EXPECT_EQ("", reader.get_error());
    EXPECT_EQ(Describe(expected), Describe(ReadEverything(&reader)));
    EXPECT_EQ(expected.front().time, reader.start_time());
    EXPECT_EQ(expected.back().time, reader.end_time());
    std::vector<std::string> topics;
    for (const auto& t : reader.topics()) topics.push_back(t->name + ":" + t->type);
    EXPECT_EQ(
        (std::vector<std::string>{"/camera:kelo.Image", "/imu:kelo.Imu", "/state:kelo.V1", "/state:kelo.V2"}),
        topics);
  }
}

TEST(BagReaderTest, SeeksByIndexAndByTimeAndMessagesOutliveTheReader) {
  TempDir dir;
  std::vector<BagMessage> messages;
  for (long t : {10, 20, 20, 30, 50}) messages.push_back(Message("/t", t, "T", std::to_string(t)));
  auto reader = std::make_unique<BagReader>(WriteBag(dir.file("seek.kelobag"), messages));
  const struct {
    long time;
    unsigned index;  // of the first message at or after `time`
  } cases[] = {{-5, 0}, {10, 0}, {11, 1}, {20, 1}, {21, 3}, {50, 4}, {51, 5}};
  for (const auto& c : cases) {
    reader->seek_time(c.time);
    EXPECT_EQ(c.index, reader->index()) << c.time;
    EXPECT_EQ(c.index == 5, reader->eof()) << c.time;
  }
  reader->seek(3);
  std::shared_ptr<BagMessage> kept = reader->read();
  reader->seek(99);
  EXPECT_TRUE(reader->eof());
  EXPECT_EQ(nullptr, reader->read());
  reader.reset();
  EXPECT_EQ("30", kept->data);
}

TEST(BagReaderTest, DescribesHowEachFileIsStored) {
  TempDir dir;
  for (const auto& [compression, name] :
       {std::make_pair(BagCompression::kZstd, "zstd"), std::make_pair(BagCompression::kLz4, "lz4"),
        std::make_pair(BagCompression::kNone, "none")}) {
    BagWriterOptions options;
    options.compression = compression;
    const BagFileInfo info = BagReader(WriteBag(dir.file(std::string(name) + ".kelobag"),
                                                {Message("/log", 5, "T", std::string(20000, 'z'))}, options))
                                 .file_info();
    EXPECT_EQ(name, info.compression);
    EXPECT_EQ(1u, info.chunks);
    EXPECT_TRUE(info.indexed);
    EXPECT_FALSE(info.recovered);
    EXPECT_EQ(0u, info.library.find("libkelo_bag_aa ")) << info.library;
  }
  // What is not a bag: no messages, nothing described, and one line that names it.
  WriteFile(dir.file("text.kelobag"), "this is not a bag at all");
  ASSERT_EQ(0, ::mkfifo(dir.file("pipe.kelobag").c_str(), 0600));  // opening it must not wait for a writer
  for (const std::string& path :
       {dir.file("missing.kelobag"), dir.file("text.kelobag"), dir.file("pipe.kelobag"), dir.path()}) {
    BagReader reader(path);
    EXPECT_EQ(0u, reader.get_error().find(path + ": ")) << reader.get_error();
    EXPECT_TRUE(reader.eof());
    EXPECT_EQ(0, reader.start_time());
    const BagFileInfo info = reader.file_info();
    EXPECT_EQ("", info.compression);
    EXPECT_EQ(0u, info.chunks);
    EXPECT_FALSE(info.recovered);
  }
}

TEST(BagReaderTest, ReadsAFileCutAnywhereUpToItsLastWholeChunkAndCountsTheRest) {
  for (BagCompression c : {BagCompression::kNone, BagCompression::kZstd}) {
    TempDir dir;
    const ChunkedBag bag = MakeChunkedBag(dir, c);
    ASSERT_GT(bag.chunks.size(), 5u);
    const std::string cut = dir.file("cut.kelobag.active");
    for (size_t length = 8; length < bag.bytes.size(); length += 23) {
      WriteFile(cut, bag.bytes.substr(0, length));
      BagReader reader(cut);
      size_t expected = 0;
      uint64_t whole = 8;
      for (const auto& chunk : bag.chunks) {
        if (chunk.end <= length) {
          expected = chunk.messages_so_far;
          whole = chunk.end;
        }
      }
      const std::vector<BagMessage> got = ReadEverything(&reader);
      ASSERT_EQ(expected, got.size()) << "cut at " << length;
      for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(Describe(bag.messages[i]), Describe(got[i]));
      const BagFileInfo info = reader.file_info();
      EXPECT_TRUE(info.recovered);
      EXPECT_FALSE(info.damaged);
      // At most what follows the last whole chunk was left unread.
      EXPECT_LE(info.unread_bytes, length - whole);
      EXPECT_EQ(0u, reader.get_error().find(cut + ": recovered unfinished bag: kept " +
                                            std::to_string(expected) + " messages"))
          << reader.get_error();
    }
  }
}

TEST(BagReaderTest, LeavesOutDamagedChunksCountsWhatTheyHeldAndReadsTheRest) {
  TempDir dir;
  const ChunkedBag bag = MakeChunkedBag(dir, BagCompression::kNone);
  ASSERT_GT(bag.chunks.size(), 6u);
  // The records of the third chunk, its framing left whole.
  const ChunkedBag::Chunk& third = bag.chunks[2];
  const size_t third_messages = third.messages_so_far - bag.chunks[1].messages_so_far;
  std::string damaged = bag.bytes;
  damaged[third.end - 100] ^= 0x5A;
  // Indexed from its summary, or scanned as an unfinished file: the same messages come out.
  for (const std::string& name : {"damaged.kelobag", "damaged.kelobag.active"}) {
    const std::string path = dir.file(name);
    WriteFile(path,
              name == std::string("damaged.kelobag") ? damaged : damaged.substr(0, bag.chunks.back().end));
    BagReader reader(path);
    std::vector<BagMessage> expected = bag.messages;
    expected.erase(expected.begin() + static_cast<long>(bag.chunks[1].messages_so_far),
                   expected.begin() + static_cast<long>(third.messages_so_far));
    EXPECT_EQ(Describe(expected), Describe(ReadEverything(&reader))) << name;
    const BagFileInfo info = reader.file_info();
    EXPECT_TRUE(info.damaged) << name;
    EXPECT_EQ(1u, info.damaged_chunks) << name;
    EXPECT_EQ(third_messages, info.lost_messages) << name;
    EXPECT_NE(std::string::npos, reader.get_error().find("1 chunk (" + std::to_string(third_messages) +
                                                         " messages) could not be read"))
        << reader.get_error();
  }

  // Garbage over a chunk's framing: from the next sound chunk on, all is read again.
  std::string zeroed = bag.bytes.substr(0, bag.chunks.back().end);
  std::fill(zeroed.begin() + static_cast<long>(third.begin),
            zeroed.begin() + static_cast<long>(third.begin) + 40, 0);
  WriteFile(dir.file("zeroed.kelobag.active"), zeroed);
  BagReader reader(dir.file("zeroed.kelobag.active"));
  const std::vector<BagMessage> got = ReadEverything(&reader);
  EXPECT_EQ(bag.messages.size() - third_messages, got.size());
  EXPECT_EQ(Describe(bag.messages.back()), Describe(got.back()));
  EXPECT_GE(reader.file_info().unread_bytes, third.end - third.begin);
  EXPECT_TRUE(reader.file_info().damaged);
}

TEST(BagReaderTest, SurvivesBytesFlippedAnywhere) {
  for (BagCompression c : {BagCompression::kNone, BagCompression::kLz4}) {
    TempDir dir;
    const ChunkedBag bag = MakeChunkedBag(dir, c);
    const std::string damaged = dir.file("damaged.kelobag");
    for (size_t at = 0; at < bag.bytes.size(); at += 29) {
      for (unsigned char mask : {0x01, 0x80, 0xFF}) {
        std::string bytes = bag.bytes;
        bytes[at] = static_cast<char>(bytes[at] ^ mask);
        WriteFile(damaged, bytes);
        BagReader reader(damaged);
        unsigned steps = 0;
        for (reader.seek(0); !reader.eof(); reader.next()) {
          ASSERT_NE(nullptr, reader.read()) << "flip at " << at;
          ASSERT_LE(++steps, bag.messages.size()) << "flip at " << at;
        }
        reader.seek_time(150);
        if (!reader.eof()) ASSERT_NE(nullptr, reader.read());
      }
    }
  }
}

TEST(BagReaderTest, ReadsTheLossesAWriterRecordedFromTheSummaryAndByScanning) {
  TempDir dir;
  const std::string path = dir.file("lossy.kelobag");
  {
    BagWriter writer(fileio::FilePath(path + ".active"));
    writer.losses()->Add("/imu", BagLossReason::kQueueFull, 3);
    writer.losses()->Add("/gps", BagLossReason::kDiskFull, 2);
    writer.append_message(5, 5, "/imu", "x", "T");
    ASSERT_EQ(path, writer.close());
  }
  const std::string bytes = ReadFile(path);
  WriteFile(dir.file("scanned.kelobag.active"), bytes.substr(0, bytes.size() - 40));  // no summary
  for (const std::string& file : {path, dir.file("scanned.kelobag.active")}) {
    const BagLosses losses = testing_support::LossesIn(file);
    EXPECT_EQ(5u, losses.total()) << file;
    EXPECT_EQ(3u, losses.total(BagLossReason::kQueueFull)) << file;
    EXPECT_EQ(2u, losses.topic_total("/gps")) << file;
  }
}

}  // namespace
}  // namespace kelo
