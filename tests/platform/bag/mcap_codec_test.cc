// The MCAP building blocks: record encoding, CRCs and chunk compression.

#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "platform/bag/bag_channel_table.h"
#include "platform/bag/mcap_compression.h"
#include "platform/bag/mcap_crc32.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_records.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace mcap {
namespace {

TEST(McapCodecTest, CrcMatchesTheStandardCheckValues) {
  EXPECT_EQ(0xCBF43926u, Crc32("123456789", 9));
  // A footer with no summary always has this CRC.
  std::string footer;
  AppendFooter(&footer, {0, 0, 0});
  EXPECT_EQ(0x6FC4C9B0u, Crc32(footer.data(), footer.size() - 4));
  const std::string a = "first part", b = "and the second";
  EXPECT_EQ(Crc32((a + b).data(), a.size() + b.size()),
            Crc32Combine(Crc32(a.data(), a.size()), Crc32(b.data(), b.size()), b.size()));
}

TEST(McapCodecTest, EncodesTheSmallestValidFileByteForByte) {
  std::string file(kMagic, kMagicSize);
  AppendHeader(&file, {"", ""});
  AppendDataEnd(&file, Crc32(file.data(), file.size()));
  AppendFooter(&file, {0, 0, 0x6FC4C9B0u});
  file.append(kMagic, kMagicSize);
  const unsigned char want[] = {
      0x89, 'M', 'C', 'A', 'P', '0', '\r', '\n', 0x01, 8,    0,    0,   0,   0,   0,   0,    0,    0,    0,
      0,    0,   0,   0,   0,   0,   0x0f, 4,    0,    0,    0,    0,   0,   0,   0,   0x73, 0xc3, 0xfa, 0xeb,
      0x02, 20,  0,   0,   0,   0,   0,    0,    0,    0,    0,    0,   0,   0,   0,   0,    0,    0,    0,
      0,    0,   0,   0,   0,   0,   0xb0, 0xc9, 0xc4, 0x6f, 0x89, 'M', 'C', 'A', 'P', '0',  '\r', '\n'};
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(want), sizeof(want)), file);
}

TEST(McapCodecTest, ParsersRejectEveryTruncationAndIgnoreAppendedFields) {
  std::string channel, chunk_index, stats, metadata;
  AppendChannel(&channel, {7, 3, "/topic", "kelo", {{"key", "value"}, {"k2", ""}}});
  AppendMetadata(&metadata, {"kelo_losses", {{"/a", "queue_full=3"}}});
  for (size_t cut = 0; cut < metadata.size() - kPrefixSize; ++cut) {
    Metadata m;
    EXPECT_FALSE(ParseMetadata(metadata.data() + kPrefixSize, cut, &m)) << cut;
  }
  Metadata m;
  ASSERT_TRUE(ParseMetadata(metadata.data() + kPrefixSize, metadata.size() - kPrefixSize, &m));
  EXPECT_EQ("kelo_losses", m.name);
  EXPECT_EQ((KeyValues{{"/a", "queue_full=3"}}), m.metadata);
  ChunkIndex ci;
  ci.message_index_offsets = {{1, 100}, {2, 200}};
  ci.compression = "zstd";
  AppendChunkIndex(&chunk_index, ci);
  Statistics st;
  st.channel_message_counts = {{1, 5}, {7, 9}};
  AppendStatistics(&stats, st);
  for (size_t cut = 0; cut < channel.size() - kPrefixSize; ++cut) {
    Channel c;
    EXPECT_FALSE(ParseChannel(channel.data() + kPrefixSize, cut, &c)) << cut;
  }
  for (size_t cut = 0; cut < chunk_index.size() - kPrefixSize; ++cut) {
    ChunkIndex c;
    EXPECT_FALSE(ParseChunkIndex(chunk_index.data() + kPrefixSize, cut, &c)) << cut;
  }
  for (size_t cut = 0; cut < stats.size() - kPrefixSize; ++cut) {
    Statistics s;
    EXPECT_FALSE(ParseStatistics(stats.data() + kPrefixSize, cut, &s)) << cut;
  }
  const std::string padded = channel.substr(kPrefixSize) + "\x01\xff\xff";
  Channel c;
  ASSERT_TRUE(ParseChannel(padded.data(), padded.size(), &c));
  EXPECT_EQ(7, c.id);
  EXPECT_EQ(3, c.schema_id);
  EXPECT_EQ("/topic", c.topic);
  EXPECT_EQ((KeyValues{{"key", "value"}, {"k2", ""}}), c.metadata);

  // A string whose length runs past the record.
  std::string lying = channel.substr(kPrefixSize);
  lying[4] = '\x7f';
  EXPECT_FALSE(ParseChannel(lying.data(), lying.size(), &c));
}

TEST(McapCodecTest, ChunksSurviveCompressionAndLiesAreCaught) {
  const std::string records = testing_support::Noise(100000, 3) + std::string(100000, 'r');
  ChunkDecompressor decompressor;
  for (BagCompression c : {BagCompression::kZstd, BagCompression::kLz4, BagCompression::kNone}) {
    SCOPED_TRACE(CompressionName(c));
    ChunkCompressor compressor(c, 1);
    std::string stored, back, error;
    ASSERT_TRUE(compressor.Compress(records.data(), records.size(), &stored));
    ASSERT_TRUE(decompressor.Decompress(CompressionName(c), stored.data(), stored.size(), records.size(),
                                        &back, &error))
        << error;
    EXPECT_EQ(records, back);
    for (uint64_t claimed :
         {uint64_t{0}, uint64_t{records.size() - 1}, uint64_t{records.size() + 1}, uint64_t{1} << 40}) {
      EXPECT_FALSE(
          decompressor.Decompress(CompressionName(c), stored.data(), stored.size(), claimed, &back, &error))
          << claimed;
      // Memory follows what the stored bytes can really produce, not the claim.
      EXPECT_LE(back.capacity(), std::max<size_t>(2 << 20, 128 * stored.size()));
    }
    for (size_t cut = 0; cut < stored.size(); cut += 1 + stored.size() / 97) {
      EXPECT_FALSE(
          decompressor.Decompress(CompressionName(c), stored.data(), cut, records.size(), &back, &error))
          << "cut at " << cut;
    }
  }
  std::string out, error;
  EXPECT_FALSE(decompressor.Decompress("bz2", "x", 1, 1, &out, &error));
  EXPECT_NE(std::string::npos, error.find("bz2"));
}

// Ids run from 1 to 65535, one per (topic, type), one schema per type; then no more.
TEST(BagChannelTableTest, NumbersChannelsAndSchemasUntilTheIdsRunOut) {
  BagChannelTable table;
  bool created = false;
  BagChannel* a = table.Get("/a", "T1", &created);
  ASSERT_TRUE(a != nullptr && created);
  BagChannel* b = table.Get("/a", "T2", &created);
  EXPECT_EQ(b->id, 2);
  EXPECT_EQ(table.Get("/b", "T1", &created)->schema_id, a->schema_id);
  EXPECT_EQ(table.Get("/a", "T1", &created), a);
  EXPECT_FALSE(created);
  for (int i = 3; i < 65534; ++i) ASSERT_NE(table.Get("/t" + std::to_string(i), "T1", &created), nullptr) << i;
  BagChannel* last = table.Get("/last", "T1", &created);
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->id, 65535);
  EXPECT_EQ(table.Get("/one/too/many", "T1", &created), nullptr);
  EXPECT_EQ(table.Get("/a", "T2", &created), b) << "known channels are still found";
}

// A file that shrinks under a reader gives a failed read, never a hang.
TEST(RandomAccessFileTest, AFileThatShrinksAfterOpeningFailsTheRead) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.file("f"), std::string(4096, 'x'));
  RandomAccessFile file;
  std::string error, out;
  ASSERT_TRUE(file.Open(dir.file("f"), &error)) << error;
  ASSERT_EQ(0, truncate(dir.file("f").c_str(), 100));
  EXPECT_TRUE(file.Read(0, 100, &out));
  EXPECT_FALSE(file.Read(0, 4096, &out));
  EXPECT_FALSE(file.Read(4000, 200, &out));
}

}  // namespace
}  // namespace mcap
}  // namespace kelo
