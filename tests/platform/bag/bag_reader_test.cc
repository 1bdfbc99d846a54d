#include "platform/bag/bag_reader.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>
#include <memory>

#include "platform/bag/bag_writer.h"
#include "platform/bag/mcap_file.h"
#include "platform/bag/mcap_index.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using namespace testing_support;  // NOLINT

BagMessage Message(const std::string& topic, long time, const std::string& type, const std::string& data) {
  return BagMessage{topic, time, type, data, time + 7};
}

std::string WriteBag(const std::string& path, const std::vector<BagMessage>& messages,
                     BagCompression compression = BagCompression::kZstd, size_t chunk_size = 0) {
  BagWriterOptions options;
  options.compression = compression;
  if (chunk_size) options.chunk_size = chunk_size;
  BagWriter writer(fileio::FilePath(path + ".active"), options);
  for (const BagMessage& m : messages) writer.append_message(m.time, m.record_time, m.topic, m.data, m.type);
  return writer.close();
}

std::vector<std::string> Describe(const std::vector<BagMessage>& messages) {
  std::vector<std::string> out;
  for (const BagMessage& m : messages) {
    out.push_back(m.topic + "|" + m.type + "|" + std::to_string(m.time) + "|" + std::to_string(m.record_time) +
                  "|" + std::to_string(m.data.size()) + "|" + m.data.substr(0, 16));
  }
  return out;
}

std::vector<std::string> ReadEverything(BagReader* reader) {
  std::vector<BagMessage> out;
  for (reader->seek(0); !reader->eof(); reader->next()) out.push_back(*reader->read());
  return Describe(out);
}

// 200 small messages in many small chunks; for each chunk its bounds and the messages up to its end.
struct ChunkedBag {
  struct Chunk { uint64_t begin, end; size_t messages_so_far; };
  std::vector<BagMessage> messages;
  std::string bytes;
  std::vector<Chunk> chunks;
};

ChunkedBag MakeChunkedBag(const TempDir& dir, BagCompression compression) {
  ChunkedBag bag;
  for (int i = 0; i < 200; ++i) {
    bag.messages.push_back(Message(i % 3 ? "/a" : "/b", 100 + i, i % 3 ? "A" : "B", Noise(i % 40, i)));
  }
  bag.bytes = ReadFile(WriteBag(dir.file("chunked.kelobag"), bag.messages, compression, 1500));
  mcap::RandomAccessFile file;
  mcap::ChunkDecompressor decompressor;
  mcap::BagIndex index;
  std::string error;
  EXPECT_TRUE(file.Open(dir.file("chunked.kelobag"), &error) && BuildIndex(file, &decompressor, &index, &error));
  auto& chunks = bag.chunks;
  for (const mcap::Block& block : index.blocks) chunks.push_back({block.offset, block.offset + block.length, 0});
  for (const auto& m : index.messages) ++chunks[m.block].messages_so_far;  // then summed up to each chunk
  for (size_t b = 1; b < chunks.size(); ++b) chunks[b].messages_so_far += chunks[b - 1].messages_so_far;
  return bag;
}

// The offset of the first record of kind `op` at or after `at` (a record's start).
size_t Find(const std::string& bytes, uint8_t op, size_t at = 8) {
  while (static_cast<uint8_t>(bytes.at(at)) != op) at += mcap::kPrefixSize + mcap::LoadU64(bytes.data() + at + 1);
  return at;
}

// Catches damage that no CRC tells taken as sound: a zero opcode in a scanned chunk, a message index or the
// summary, and a chunk index pointing outside the data (the file is then read by scanning instead).
TEST(BagReaderTest, AZeroOpcodeOrAChunkIndexPointingOutsideTheDataIsNotTrusted) {
  TempDir dir;
  const ChunkedBag bag = MakeChunkedBag(dir, BagCompression::kNone);
  std::string unchecked = bag.bytes;
  std::fill_n(&unchecked[unchecked.size() - 12], 4, '\0');  // no summary CRC
  for (uint8_t target : {mcap::kOpChunk, mcap::kOpMessageIndex, mcap::kOpChunkIndex}) {
    std::string bytes = unchecked;
    size_t at = Find(bytes, target);
    if (target == mcap::kOpChunk) {  // its first message, the chunk's CRC cleared, no summary
      bytes.resize(Find(bytes, mcap::kOpDataEnd));
      std::fill_n(&bytes[at + mcap::kPrefixSize + 24], 4, '\0');
      at = Find(bytes, mcap::kOpMessage, at + mcap::kPrefixSize + 40);
    }
    bytes[at] = 0;
    WriteFile(dir.file("zero.kelobag"), bytes);
    BagReader reader(dir.file("zero.kelobag"));
    EXPECT_TRUE(reader.count() == bag.messages.size() || reader.file_info().damaged) << int{target};
    if (target == mcap::kOpChunkIndex) {
      EXPECT_THAT(reader.get_error(), testing::HasSubstr("summary damaged (broken record in the summary)"));
    }
  }
  const size_t at = Find(bag.bytes, mcap::kOpChunkIndex);
  // Its chunk at the file's magic, or longer than the file.
  for (const auto& [field, value] : std::vector<std::pair<size_t, uint64_t>>{{16, 0}, {24, uint64_t{1} << 40}}) {
    std::string bytes = unchecked, stored;
    mcap::PutU64(&stored, value);
    bytes.replace(at + mcap::kPrefixSize + field, 8, stored);
    WriteFile(dir.file("outside.kelobag"), bytes);
    BagReader reader(dir.file("outside.kelobag"));
    EXPECT_EQ(bag.messages.size(), reader.count()) << field;
    EXPECT_THAT(reader.get_error(), testing::HasSubstr("chunk index points outside the data")) << field;
  }
  // The last of a chunk's two message indexes one byte longer than the indexes: not trusted, and the
  // scan that reads the file instead must not take the next chunk's length byte for the file's end.
  std::string overrun = unchecked, longer;
  const size_t first_index = Find(overrun, mcap::kOpMessageIndex);
  const size_t last_index = first_index + mcap::kPrefixSize + mcap::LoadU64(&overrun[first_index + 1]);
  const uint64_t length = mcap::LoadU64(&overrun[last_index + 1]);
  mcap::PutU64(&longer, length + 1);
  WriteFile(dir.file("overrun.kelobag"), overrun.replace(last_index + 1, 8, longer));
  EXPECT_THAT(BagReader(dir.file("overrun.kelobag")).get_error(),
              testing::EndsWith(": kept 200 messages; " + std::to_string(mcap::kPrefixSize + length) +
                                " bytes could not be read (first: broken record length at byte " +
                                std::to_string(last_index) + ")"));
  // A message index entry that points at another record of its chunk: the chunk is left out, the rest read.
  std::string moved = unchecked, offset;
  const size_t entry = Find(moved, mcap::kOpMessageIndex) + mcap::kPrefixSize + 2 + 4 + 8;  // the first one's offset
  mcap::PutU64(&offset, mcap::LoadU64(&moved[entry]) + 1);
  WriteFile(dir.file("moved.kelobag"), moved.replace(entry, 8, offset));
  BagReader misled(dir.file("moved.kelobag"));
  const std::vector<std::string> all = Describe(bag.messages), read = ReadEverything(&misled);
  EXPECT_TRUE(misled.file_info().damaged && read.size() < all.size());
  for (const std::string& m : read) EXPECT_THAT(all, testing::Contains(m));
  // A message on a channel the file never declared cannot be read: it is counted, not dropped unsaid.
  std::string orphan = bag.bytes.substr(0, Find(bag.bytes, mcap::kOpDataEnd));
  const size_t in_chunk = Find(orphan, mcap::kOpChunk);
  std::fill_n(&orphan[in_chunk + mcap::kPrefixSize + 24], 4, '\0');
  const size_t first = Find(orphan, mcap::kOpMessage, in_chunk + mcap::kPrefixSize + 40);
  std::string last_ms;  // and the next one in the last millisecond a time can name (another writer's)
  mcap::PutU64(&last_ms, std::numeric_limits<uint64_t>::max() - 1);
  const size_t next = Find(orphan, mcap::kOpMessage, first + mcap::kPrefixSize + mcap::LoadU64(&orphan[first + 1]));
  orphan.replace(next + mcap::kPrefixSize + 6, 8, last_ms);
  WriteFile(dir.file("orphan.kelobag.active"), orphan.replace(first + mcap::kPrefixSize, 2, "ww"));
  BagReader orphaned(dir.file("orphan.kelobag.active"));
  EXPECT_THAT(orphaned.get_error(),
              testing::EndsWith(": recovered damaged bag: kept 199 messages; 1 messages could not be read (first: "
                                "message on undeclared channel 30583 at byte " + std::to_string(in_chunk) + ")"));
  orphaned.seek_time(orphaned.end_time());  // seeking to its time finds it
  EXPECT_FALSE(orphaned.eof());
  // An empty record of a kind we do not know (another writer's) closing a chunk is sound.
  std::string bytes = bag.bytes.substr(0, Find(bag.bytes, mcap::kOpDataEnd));
  const size_t chunk = Find(bytes, mcap::kOpChunk), body = chunk + mcap::kPrefixSize;
  bytes.insert(body + 40 + mcap::LoadU64(&bytes[body + 32]), std::string("\x80", 1) + std::string(8, '\0'));
  for (size_t field : {chunk + 1, body + 16, body + 32}) {  // the record's, the records' and the uncompressed size
    std::string grown;
    mcap::PutU64(&grown, mcap::LoadU64(&bytes[field]) + 9);
    bytes.replace(field, 8, grown);
  }
  std::fill_n(&bytes[body + 24], 4, '\0');  // no CRC
  WriteFile(dir.file("empty.kelobag"), bytes);
  EXPECT_EQ(bag.messages.size(), BagReader(dir.file("empty.kelobag")).count());
}

// Catches time order lost across chunks that overlap in time, ties taken out of write order, and
// the indexes of an odd number of channels in one chunk merged out of order.
TEST(BagReaderTest, GivesMessagesInTimeOrderAcrossOverlappingChunksWithTiesInWriteOrder) {
  TempDir dir;
  std::vector<BagMessage> written;
  for (long t : {30, 10, 20, 50, 20, 10, 40, 20}) {
    written.push_back(Message("/t" + std::to_string(written.size() % 3), t, "T", std::to_string(written.size())));
  }
  std::vector<BagMessage> expected = written;
  std::stable_sort(expected.begin(), expected.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
  for (size_t chunk : {size_t{1}, size_t{1} << 20}) {  // a chunk a message, and one for all
    BagReader reader(WriteBag(dir.file("order" + std::to_string(chunk) + ".kelobag"), written, BagCompression::kZstd,
                              chunk));
    EXPECT_EQ(Describe(expected), ReadEverything(&reader)) << chunk;
  }
}

TEST(BagReaderTest, SeeksByIndexAndByTimeAndMessagesOutliveTheReaderButNotItsFile) {
  TempDir dir;
  std::vector<BagMessage> messages;
  for (long t : {0, 1, 20, 20, 30, 50}) messages.push_back(Message("/t", t, "T", std::to_string(t)));
  const std::string path = WriteBag(dir.file("seek.kelobag"), messages);
  const long before = OpenFiles();
  auto reader = std::make_unique<BagReader>(path);
  EXPECT_EQ(std::make_pair(0L, 50L), std::make_pair(reader->start_time(), reader->end_time()));
  // {time, index of the first message at or after it}
  for (const auto& [time, index] : std::vector<std::pair<long, size_t>>{
           {-5, 0}, {1, 1}, {2, 2}, {20, 2}, {21, 4}, {50, 5}, {51, 6}}) {
    reader->seek_time(time);
    EXPECT_EQ(index, reader->index()) << time;
    EXPECT_EQ(index == 6, reader->eof()) << time;
  }
  reader->seek(4);
  std::shared_ptr<BagMessage> kept = reader->read();
  EXPECT_EQ(kept, reader->read());
  reader->seek(99);
  EXPECT_TRUE(reader->eof() && reader->read() == nullptr);
  reader.reset();
  EXPECT_EQ(before, OpenFiles()) << "the file is closed with its reader";
  EXPECT_EQ("30", kept->data);
}

TEST(BagReaderTest, DescribesHowEachFileIsStoredAndWhatIsNotABag) {
  TempDir dir;
  for (const auto& [name, c] : std::vector<std::pair<std::string, BagCompression>>{
           {"zstd", BagCompression::kZstd}, {"lz4", BagCompression::kLz4}, {"none", BagCompression::kNone}}) {
    const std::vector<BagMessage> written = {Message("/l", 5, "T", std::string(20000, 'z'))};
    BagReader reader(WriteBag(dir.file(name + ".kelobag"), written, c));
    EXPECT_EQ(Describe(written), ReadEverything(&reader));
    const BagFileInfo info = reader.file_info();
    EXPECT_EQ(name + " 1 indexed", info.compression + " " + std::to_string(info.chunks) +
                                                     (info.indexed && !info.recovered ? " indexed" : ""));
  }
  // What is not a bag: no messages, nothing described, and one line that names it.
  WriteFile(dir.file("text.kelobag"), "this is not a bag at all");
  ASSERT_EQ(0, ::mkfifo(dir.file("pipe.kelobag").c_str(), 0600));  // opening it must not wait for a writer
  for (const std::string& path :
       {dir.file("missing.kelobag"), dir.file("text.kelobag"), dir.file("pipe.kelobag"), dir.path()}) {
    BagReader reader(path);
    EXPECT_EQ(0u, reader.get_error().find(path + ": ")) << reader.get_error();
    EXPECT_TRUE(reader.eof() && reader.start_time() == 0 && reader.file_info().compression.empty() &&
                reader.file_info().chunks == 0);
  }
}

// Catches a description from the summary alone that differs from the one the messages give,
// and channel times that do not hold taken on trust rather than read from the indexes.
TEST(BagReaderTest, DescribesOurBagFromItsSummaryAloneAsItsMessagesDo) {
  TempDir dir;
  const ChunkedBag bag = MakeChunkedBag(dir, BagCompression::kLz4);
  const auto description = [](const BagReader& r) {
    std::string text = std::to_string(r.count()) + " " + std::to_string(r.start_time()) + "-" +
                       std::to_string(r.end_time()) + " " + r.file_info().compression + " " +
                       std::to_string(r.file_info().chunks);
    for (const auto& t : r.topics()) {
      text += " " + t->name + ":" + t->type + ":" + std::to_string(t->messages) + ":" +
              std::to_string(t->first_time) + "-" + std::to_string(t->last_time);
    }
    return text + " " + std::to_string(r.metadata().size());
  };
  const std::string path = dir.file("chunked.kelobag");
  const std::string full = description(BagReader(path));
  // Which chunks the writer compresses depends on how fast it runs (a slow one stores some as
  // they are), and the kinds are named in the order of the chunks.
  const std::string chunks = std::to_string(bag.chunks.size());
  EXPECT_THAT(full, testing::MatchesRegex("200 100-299 (lz4|none|none\\+lz4|lz4\\+none) " + chunks +
                                          " /b:B:67:100-298 /a:A:133:101-299 1"));
  BagReader summary(path, true);
  EXPECT_EQ(full, description(summary));
  EXPECT_TRUE(summary.eof());
  // Times that do not parse: the message indexes tell instead.
  std::string bytes = bag.bytes;
  const size_t name = bytes.find("kelo_channel_times");
  ASSERT_NE(std::string::npos, name);
  const size_t key = static_cast<uint8_t>(bytes[name + 22]);  // a short key: one byte of its length
  bytes[name + 30 + key] = 'x';
  WriteFile(path, bytes);
  BagReader fallback(path, true);
  EXPECT_EQ(full, description(fallback));
  EXPECT_FALSE(fallback.eof());
}

TEST(BagReaderTest, ReadsAFileCutAnywhereUpToItsLastWholeChunkAndCountsTheRest) {
  for (BagCompression c : {BagCompression::kNone, BagCompression::kZstd}) {
    TempDir dir;
    const ChunkedBag bag = MakeChunkedBag(dir, c);
    const std::string cut = dir.file("cut.kelobag.active");
    for (size_t length = 8; length < bag.bytes.size(); length += 23) {
      WriteFile(cut, bag.bytes.substr(0, length));
      BagReader reader(cut);
      size_t expected = 0;
      uint64_t whole = 8;
      for (const auto& chunk : bag.chunks) {
        if (chunk.end <= length) expected = chunk.messages_so_far, whole = chunk.end;
      }
      ASSERT_EQ(Describe({bag.messages.begin(), bag.messages.begin() + static_cast<long>(expected)}),
                ReadEverything(&reader))
          << "cut at " << length;
      const BagFileInfo info = reader.file_info();
      EXPECT_TRUE(info.recovered && !info.damaged);
      EXPECT_LE(info.unread_bytes, length - whole);  // at most what follows the last whole chunk
      EXPECT_THAT(reader.get_error(), testing::StartsWith(cut + ": recovered unfinished bag: kept " +
                                                          std::to_string(expected) + " messages"));
    }
  }
}

TEST(BagReaderTest, LeavesOutDamagedChunksCountsWhatTheyHeldAndReadsTheRest) {
  TempDir dir;
  const ChunkedBag bag = MakeChunkedBag(dir, BagCompression::kNone);
  const ChunkedBag::Chunk& third = bag.chunks[2];
  const unsigned first_lost = static_cast<unsigned>(bag.chunks[1].messages_so_far);
  const size_t lost = third.messages_so_far - first_lost;
  std::vector<BagMessage> expected = bag.messages;
  expected.erase(expected.begin() + first_lost, expected.begin() + static_cast<long>(third.messages_so_far));
  std::string damaged = bag.bytes;
  damaged[third.end - 100] ^= 0x5A;  // in the third chunk's records, its framing left whole
  WriteFile(dir.file("damaged.kelobag"), damaged);
  WriteFile(dir.file("damaged.kelobag.active"), damaged.substr(0, bag.chunks.back().end));
  BagReader lazy(dir.file("damaged.kelobag"));  // from the index: the damage shows on reading the chunk
  lazy.seek(first_lost + 1);  // inside the damaged chunk: on to the next sound message
  EXPECT_EQ(Describe({expected[first_lost]}), Describe({*lazy.read()}));
  EXPECT_EQ(first_lost, lazy.index());
  // Indexed from its summary, or scanned as an unfinished file: the same messages come out.
  for (const std::string& path : {dir.file("damaged.kelobag"), dir.file("damaged.kelobag.active")}) {
    BagReader reader(path);
    EXPECT_EQ(Describe(expected), ReadEverything(&reader)) << path;
    const BagFileInfo info = reader.file_info();
    EXPECT_TRUE(info.damaged && info.damaged_chunks == 1 && info.lost_messages == lost) << path;
    EXPECT_THAT(reader.get_error(),
                testing::HasSubstr("1 chunk (" + std::to_string(lost) + " messages) could not be read"));
  }
  // The last chunk damaged, the file cut before the indexes that would count its messages.
  std::string uncounted = bag.bytes.substr(0, bag.chunks.back().end);
  uncounted[bag.chunks.back().end - 10] ^= 0x5A;
  WriteFile(dir.file("uncounted.kelobag.active"), uncounted);
  EXPECT_THAT(BagReader(dir.file("uncounted.kelobag.active")).get_error(),
              testing::HasSubstr("; 1 chunk (at least 0 messages) could not be read"));
  // Garbage over a chunk's framing: from the next sound chunk on, all is read again.
  std::string zeroed = bag.bytes.substr(0, bag.chunks.back().end);
  std::fill_n(zeroed.begin() + static_cast<long>(third.begin), 40, 0);
  WriteFile(dir.file("zeroed.kelobag.active"), zeroed);
  BagReader reader(dir.file("zeroed.kelobag.active"));
  EXPECT_EQ(Describe(expected), ReadEverything(&reader));
  EXPECT_TRUE(reader.file_info().damaged && reader.file_info().unread_bytes >= third.end - third.begin);
  // Over the last chunk of a file without its trailing magic: unread at most to the end of the data.
  std::string last = bag.bytes.substr(0, bag.bytes.size() - 8) + std::string(8, '\0');
  std::fill_n(last.begin() + static_cast<long>(bag.chunks.back().begin), 40, 0);
  WriteFile(dir.file("last.kelobag"), last);
  EXPECT_LE(BagReader(dir.file("last.kelobag")).file_info().unread_bytes,
            Find(bag.bytes, mcap::kOpDataEnd) - bag.chunks[bag.chunks.size() - 2].end);
}

// Large payloads are handed out without a copy when their record ends their chunk; the
// ones followed by other records in the chunk, and every message read a second time, must
// come out the same, and a damaged payload read that way is caught as any other.
TEST(BagReaderTest, LargeMessagesComeWholeReadAgainAndDamaged) {
  TempDir dir;
  std::vector<BagMessage> messages;
  const size_t sizes[] = {100, 40 << 10, 300 << 10, (1 << 20) + 5, 50 << 10, 200 << 10, (1 << 20) + 9};
  for (unsigned i = 0; i < 14; ++i) {  // each payload marked in its middle
    const std::string mark = "mark" + std::to_string(10 + i);
    messages.push_back(Message("/big", 1000 + i, "t", Noise(sizes[i % 7], i).replace(sizes[i % 7] / 2, 6, mark)));
  }
  const std::string path = WriteBag(dir.file("big.kelobag"), messages, BagCompression::kNone);
  BagReader reader(path);
  size_t skipped = 0;  // walked without reading: nothing held back is handed out late
  for (reader.seek(0); !reader.eof(); reader.next()) ++skipped;
  EXPECT_EQ(messages.size(), skipped);
  std::vector<std::shared_ptr<BagMessage>> kept;  // the memory of the others is reused
  for (const unsigned from : {0u, 3u}) {  // again from the start, then back into the file
    reader.seek(from);
    for (size_t i = from; i < messages.size(); ++i, reader.next()) {
      const std::shared_ptr<BagMessage> m = reader.read();
      ASSERT_TRUE(m && m->data == messages[i].data) << "message " << i << " from " << from;
      EXPECT_EQ(m, reader.read());
      if (i % 3 == 0) kept.push_back(m);
    }
    EXPECT_TRUE(reader.eof());
  }
  reader.seek(3), reader.read(), reader.seek(4), reader.read(), reader.seek(3);  // its chunk still cached
  EXPECT_EQ(messages[3].data, reader.read()->data);
  std::string damaged = ReadFile(path);
  damaged[damaged.find("mark20") + 7] ^= 0x20;  // message 10's payload
  WriteFile(dir.file("damaged.kelobag"), damaged);
  BagReader broken(dir.file("damaged.kelobag"));
  std::vector<size_t> sizes_read;
  for (broken.seek(0); !broken.eof(); broken.next()) sizes_read.push_back(broken.read()->data.size());
  EXPECT_EQ(messages.size() - 1, sizes_read.size());
  EXPECT_EQ(sizes[4], sizes_read[10]);
  EXPECT_THAT(broken.get_error(), testing::HasSubstr("chunk CRC mismatch"));
  for (const auto& m : kept) EXPECT_EQ(messages[m->time - 1000].data, m->data);
}

}  // namespace
}  // namespace kelo
