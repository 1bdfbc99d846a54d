#ifndef KELO_PLATFORM_BAG_BAG_CACHE_WRITER_H_
#define KELO_PLATFORM_BAG_BAG_CACHE_WRITER_H_

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/bag/bag_writer.h"
#include "platform/bag/bag_writer_options.h"
#include "platform/fileio/file_path.h"

namespace kelo {

// The writer of trigger recording: keeps the most recent messages in memory and writes a
// bag file only when told about a trigger, holding the messages of the window around it:
//
//   BagCacheWriter writer(fileio::FilePath("rec/drive1.kelobag.active"), 60, 65, 2048l << 20);
//   writer.append_message(time_ms, record_time_ms, "/imu", payload, "kelo.Imu");   // cached
//   std::string file = writer.save_file("trigger 1709647629000 brake_event");
//   // rec/drive1_20240305140709_brake_event.kelobag: messages of [T - 60 s, T + 5 s]
//
// Nothing is written to disk except by save_file(): open() and close() create no file,
// so a writer in trigger mode never leaves an active or empty file behind.
//
// Every member may be called from any thread: save_file() may run (on a trigger thread)
// while append_message() runs on another, and two saves may follow each other at once.
class BagCacheWriter : public BagWriter {
 public:
  // What a cached message costs beyond its payload, counted against the cache size: its
  // times, channel and bookkeeping.
  static constexpr long kMessageOverheadBytes = 64;

  // `path` is the writer's active name, "<dir>/<base>.kelobag.active"; saved files are
  // named after it. A saved window starts `reserve` seconds before the trigger and lasts
  // `duration` seconds (either may be negative; a negative duration saves nothing). The
  // cache holds at most `cache_size` bytes (payloads plus kMessageOverheadBytes each),
  // dropping the oldest messages first; a cache_size of 0 or less keeps nothing, so no
  // trigger ever saves a file. Without options, the files are written as
  // DefaultBagWriterOptions() says when the writer is made.
  BagCacheWriter(const fileio::FilePath& path, long reserve, long duration, long cache_size);
  BagCacheWriter(const fileio::FilePath& path, long reserve, long duration, long cache_size,
                 const BagWriterOptions& options);

  // Discards the cache; writes nothing.
  ~BagCacheWriter() override;

  // Creates no file: files exist only for triggers. Always true.
  bool open(const std::string& index) override;

  // Caches the message (in the order of the calls) and drops the oldest ones the cache can
  // no longer hold; a message larger than the whole cache is not kept. Times are
  // milliseconds; a message with a time a bag cannot hold (negative) is reported on stderr,
  // counted lost and not kept. The topic is declared as append_topic() does.
  void append_message(long time, long record_time, const std::string& topic, const std::string& data,
                      const std::string& type) override;

  // `notice` is a trigger notice text (TriggerNotice). Writes the cached messages whose time
  // lies in [T - reserve s, T - reserve s + duration s] (T the trigger time, bounds
  // included), in time order (ties in the order they were appended), with every topic
  // declared so far, to a completed file "<dir>/<base>_<T as local time
  // %Y%m%d%H%M%S>_<label>.kelobag" ("<dir>/<base>_<time>.kelobag" without a label; a name
  // that is taken gets a "-1", "-2", ... suffix, nothing is replaced). Returns its name.
  // Returns "" and writes nothing when the notice does not parse or no cached message lies
  // in the window; returns "" when the file could not be completed (reported on stderr;
  // what was written stays behind as "<name>.active"). The cache is left as it was: a
  // later trigger whose window overlaps gets the same messages again. Messages of the
  // window that the cache had to drop before the trigger came are counted lost (window
  // cut), per window.
  std::string save_file(const std::string& notice) override;

  // Writes nothing and returns "". The cache is kept, so a notice still due after the
  // recording stopped saves its window.
  std::string close() override;

  // "" when the cache may still hold messages of the window of a trigger at `trigger_ms`;
  // otherwise why it cannot: the window ended before the oldest message cached.
  std::string WhyNothingToSave(long trigger_ms);

  // Whether `name`, a file name without its folder, is a name save_file() gives its files
  // ("<base>_<14 digits>[_<label>][-<n>].kelobag"), so that nothing else is taken for one.
  bool IsSavedName(const std::string& name) const;

 private:
  struct Cached {
    uint16_t channel;
    uint32_t sequence;
    long time;
    long record_time;
    std::shared_ptr<const std::string> data;  // shared with windows being written
  };

  // A run of messages of one channel and time that the cache dropped.
  struct Dropped {
    long time;
    uint16_t channel;
    uint64_t count;
  };

  void NoteDroppedLocked(const Cached& message);

  const long reserve_;
  const long duration_;
  const long cache_size_;

  std::mutex mu_;  // guards the members below; never held while writing a file
  std::deque<Cached> cache_;
  long cached_bytes_ = 0;
  std::map<uint16_t, uint32_t> sequences_;  // per channel: messages cached so far
  // What the cache dropped, as long as a window could still reach back to it.
  std::deque<Dropped> dropped_;
  std::map<uint16_t, std::string> topics_;  // of the channels cached

  std::mutex save_mu_;  // one file written at a time
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_CACHE_WRITER_H_
