// The MCAP building blocks: record encoding, CRCs, chunk compression and file reads.
#include <unistd.h>

#include <gtest/gtest.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>

#include "platform/bag/mcap_compression.h"
#include "platform/bag/mcap_crc32.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_records.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace mcap {
namespace {

// Byte layouts of whole files are checked by the interop test, which reads our bags with another reader.
// The CRC a bit at a time, as the standard defines it.
uint32_t BitwiseCrc(const char* data, size_t size) {
  uint32_t crc = ~0u;
  for (size_t i = 0; i < size; ++i) {
    crc ^= static_cast<unsigned char>(data[i]);
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  return ~crc;
}

// Every length and alignment around the 16- and 64-byte steps of the fast CRC, a large
// buffer, and a CRC extended from any split.
TEST(McapCodecTest, CrcsAreTheStandardCrc32AndCombineLikeOneRun) {
  EXPECT_EQ(0xCBF43926u, Crc32("123456789", 9));
  std::string data((1 << 20) + 45, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 2654435761u) >> 13);
  for (size_t offset : {0, 1, 7}) {
    for (size_t size = 0; size <= 300; ++size) {
      ASSERT_EQ(BitwiseCrc(&data[offset], size), Crc32(&data[offset], size)) << offset << " " << size;
    }
  }
  const uint32_t whole = Crc32(data.data(), data.size());
  EXPECT_EQ(BitwiseCrc(data.data(), data.size()), whole);
  for (size_t split : {size_t{0}, size_t{63}, size_t{64}, size_t{1000}, data.size() - 17}) {
    EXPECT_EQ(whole, Crc32Extend(Crc32(data.data(), split), &data[split], data.size() - split)) << split;
    EXPECT_EQ(whole, Crc32Combine(Crc32(data.data(), split), Crc32(&data[split], data.size() - split),
                                  data.size() - split));
  }
}

TEST(McapCodecTest, ParsersRoundTripRejectEveryTruncationAndIgnoreAppendedFields) {
  std::string channel, chunk_index, stats, metadata;
  AppendChannel(&channel, {7, 3, "/topic", "kelo", {{"key", "value"}, {"k2", ""}}});
  AppendMetadata(&metadata, {"kelo_losses", {{"/a", "queue_full=3"}}});
  AppendChunkIndex(&chunk_index, {0, 0, 0, 0, {{1, 100}, {2, 200}}, 0, "zstd", 0, 0});
  Statistics st;
  st.channel_message_counts = {{1, 5}, {7, 9}};
  AppendStatistics(&stats, st);
  Metadata m;
  ChunkIndex ci;
  Channel c;
  for (size_t cut = 0; cut < 200; ++cut) {  // longer than any of them
    EXPECT_FALSE(cut + kPrefixSize < metadata.size() && ParseMetadata(metadata.data() + kPrefixSize, cut, &m)) << cut;
    EXPECT_FALSE(cut + kPrefixSize < stats.size() && ParseStatistics(stats.data() + kPrefixSize, cut, &st)) << cut;
    EXPECT_FALSE(cut + kPrefixSize < chunk_index.size() && ParseChunkIndex(chunk_index.data() + kPrefixSize, cut, &ci)) << cut;
    EXPECT_FALSE(cut + kPrefixSize < channel.size() && ParseChannel(channel.data() + kPrefixSize, cut, &c)) << cut;
  }
  m = {};
  ASSERT_TRUE(ParseMetadata(metadata.data() + kPrefixSize, metadata.size() - kPrefixSize, &m));
  EXPECT_EQ((KeyValues{{"/a", "queue_full=3"}}), m.metadata);
  EXPECT_EQ("kelo_losses", m.name);
  const std::string padded = channel.substr(kPrefixSize) + "\x01\xff\xff";
  ASSERT_TRUE(ParseChannel(padded.data(), padded.size(), &c));
  EXPECT_EQ("7 3 /topic", std::to_string(c.id) + " " + std::to_string(c.schema_id) + " " + c.topic);
  EXPECT_EQ((KeyValues{{"key", "value"}, {"k2", ""}}), c.metadata);
  std::string lying = channel.substr(kPrefixSize);  // a string whose length runs past the record
  lying[4] = '\x7f';
  EXPECT_FALSE(ParseChannel(lying.data(), lying.size(), &c));
}

TEST(McapCodecTest, ChunksSurviveCompressionAndLiesAreCaught) {
  const std::string records = testing_support::Noise(100000, 3) + std::string(100000, 'r');
  ChunkDecompressor decompressor;
  for (BagCompression c : {BagCompression::kZstd, BagCompression::kLz4, BagCompression::kNone}) {
    SCOPED_TRACE(CompressionName(c));
    std::string stored, back, error;
    ASSERT_TRUE(ChunkCompressor(c, 1).Compress(records.data(), records.size(), &stored));
    ASSERT_TRUE(decompressor.Decompress(CompressionName(c), stored.data(), stored.size(), records.size(),
                                        &back, &error))
        << error;
    EXPECT_EQ(records, back);
    for (uint64_t claimed : {uint64_t{0}, records.size() - 1, records.size() + 1, uint64_t{1} << 40}) {
      EXPECT_FALSE(
          decompressor.Decompress(CompressionName(c), stored.data(), stored.size(), claimed, &back, &error));
      // Memory follows what the stored bytes can really produce, not the claim.
      EXPECT_LE(back.capacity(), std::max<size_t>(2 << 20, 128 * stored.size())) << claimed;
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

// Catches a zstd frame (another writer's, with a checksum) cut inside its checksum taken as whole,
// a second frame left out, and a skippable frame after the data refused.
TEST(McapCodecTest, AZstdChunkCutInsideItsChecksumIsTruncated) {
  const std::string records = testing_support::Noise(5000, 9);
  ZSTD_CCtx* cctx = ZSTD_createCCtx();
  ZSTD_CCtx_setParameter(cctx, ZSTD_c_checksumFlag, 1);
  std::string stored(ZSTD_compressBound(records.size()), '\0');
  stored.resize(ZSTD_compress2(cctx, &stored[0], stored.size(), records.data(), records.size()));
  ZSTD_freeCCtx(cctx);
  ChunkDecompressor decompressor;
  std::string back, error;
  ASSERT_TRUE(decompressor.Decompress("zstd", stored.data(), stored.size(), records.size(), &back, &error)) << error;
  EXPECT_FALSE(decompressor.Decompress("zstd", stored.data(), stored.size() - 2, records.size(), &back, &error));
  EXPECT_NE(error.find("truncated"), std::string::npos) << error;
  // Two frames one after the other (a streaming writer's) are one chunk.
  const std::string twice = stored + stored;
  ASSERT_TRUE(decompressor.Decompress("zstd", twice.data(), twice.size(), 2 * records.size(), &back, &error)) << error;
  EXPECT_EQ(records + records, back);
  // A frame followed by a skippable one (another writer's padding) is whole at its announced size.
  const std::string padded = stored + std::string("\x50\x2a\x4d\x18\x04\0\0\0pads", 12);
  EXPECT_TRUE(decompressor.Decompress("zstd", padded.data(), padded.size(), records.size(), &back, &error)) << error;
}

TEST(RandomAccessFileTest, AFileThatShrinksAfterOpeningFailsTheRead) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir.file("f"), std::string(4096, 'x'));
  RandomAccessFile file;
  std::string error, out;
  ASSERT_TRUE(file.Open(dir.file("f"), &error)) << error;
  ASSERT_EQ(0, truncate(dir.file("f").c_str(), 100));
  errno = EINTR;  // left by an earlier call: no reason to read again (a read that loops hangs here)
  EXPECT_TRUE(file.Read(0, 100, &out));
  EXPECT_FALSE(file.Read(0, 4096, &out));
  EXPECT_FALSE(file.Read(1, uint64_t{1} << 50, &out));  // a length read from a damaged file: no allocation
}

}  // namespace
}  // namespace mcap
}  // namespace kelo
