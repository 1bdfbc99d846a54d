#ifndef KELO_PLATFORM_BAG_BAG_READER_H_
#define KELO_PLATFORM_BAG_BAG_READER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/bag/bag_message.h"
#include "platform/bag/bag_topic.h"

namespace kelo {

// How a bag file is stored, for tools that describe files rather than read messages.
struct BagFileInfo {
  std::string library;      // the writing library named in the file's header; "" when none
  std::string compression;  // chunk compression as indexed: "zstd", "lz4", "none"; several
                            // are joined by "+" in file order; "" when the file has no chunk
  unsigned chunks = 0;      // chunks indexed (for a recovered file, those read soundly)
  bool indexed = false;     // opened from the file's summary, without a scan
  bool recovered = false;   // unfinished, cut, or damaged: read up to what was sound
  bool damaged = false;     // something in it could not be read (more than an unfinished end)
  // What could not be read, as found so far: chunks left out, the messages they were
  // indexed to hold (a lower bound when `messages_unknown`), and bytes skipped or unread.
  unsigned damaged_chunks = 0;
  uint64_t lost_messages = 0;
  bool messages_unknown = false;
  uint64_t unread_bytes = 0;
};

// Named key-value sets stored in a bag beside its messages (MCAP metadata records).
struct BagMetadata {
  std::string name;
  std::vector<std::pair<std::string, std::string>> values;
};

// Reads a bag (any MCAP file) as a sequence of messages in time order; messages with equal
// times come in the order they were written. The reader is a cursor over that sequence:
// positions run from 0 to count(), and count() means "at the end".
//
//   BagReader reader("rec/bag_20240305140709_0.kelobag");
//   for (reader.seek_time(t); !reader.eof(); reader.next()) Use(*reader.read());
//
// Opening a complete bag uses its summary and message indexes, without reading the data.
// An unfinished (".active") or cut file is read up to its last complete chunk, and a
// damaged one up to the damage; get_error() then says so and how many messages were kept.
// Nothing here throws, and no input, however corrupt, makes the reader crash, hang, or set
// aside more memory than the file's content could fill.
//
// A reader serves one thread at a time; distinct readers are independent.
class BagReader {
 public:
  explicit BagReader(const std::string& path);
  // For describing a file: with `summary_only`, a complete bag of ours is opened from its
  // summary alone. Its messages then cannot be read (the reader stands at the end), but
  // count(), the times, topics(), file_info() and metadata() are as they would be. Any
  // other file is opened as the constructor above opens it.
  BagReader(const std::string& path, bool summary_only);
  virtual ~BagReader();

  BagReader(const BagReader&) = delete;
  BagReader& operator=(const BagReader&) = delete;

  // "" when the file was read as written. Otherwise one line naming the file and saying
  // what went wrong: it could not be opened or is not a bag (then the reader holds no
  // message), or it was recovered, with what was kept and what could not be read:
  //   "<path>: recovered unfinished bag: kept 120 messages; the last 4096 bytes could not be read"
  //   "<path>: recovered damaged bag: kept 80 messages; 2 chunks (40 messages) could not be read
  //    (first: chunk CRC mismatch at byte 1234)"
  // A chunk found damaged while reading counts too: its messages are then dropped from the
  // sequence, and count() shrinks accordingly.
  std::string get_error() const;

  // True when the position is at the end. When it is false, read() returns a message:
  // a chunk found damaged on the way is left out here (see get_error()).
  bool eof() const;

  // The message at the position, without moving; null only at the end. The message
  // belongs to the caller and outlives the reader.
  std::shared_ptr<BagMessage> read();

  // Moves one message forward; nothing at the end.
  void next();

  // Moves to position `index`; seek(count()) and anything beyond puts the reader at the end.
  void seek(unsigned index);

  // Moves to the first message whose time is at or after `time` (ms); to the end when
  // there is none.
  void seek_time(long time);

  unsigned index() const;
  unsigned count() const;

  // Times (ms) of the first and last messages; 0 for a bag without messages. Times of
  // bags written with sub-millisecond precision are rounded down to the millisecond.
  long start_time() const;
  long end_time() const;

  // Every (topic, type) pair the bag declares, whether or not it has messages, in the
  // order the bag defines them, with the count and times of its messages as the index has
  // them (a chunk found damaged later is still counted). A topic recorded with two types
  // appears twice.
  std::vector<std::shared_ptr<BagTopic>> topics() const;

  // How the file is stored (see BagFileInfo); all empty, 0 and false for a file that could
  // not be opened as a bag.
  BagFileInfo file_info() const;

  // The metadata records of the bag, in file order.
  std::vector<BagMetadata> metadata() const;

 private:
  struct Rep;
  std::unique_ptr<Rep> rep_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_READER_H_
