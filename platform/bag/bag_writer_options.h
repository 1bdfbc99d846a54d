#ifndef KELO_PLATFORM_BAG_BAG_WRITER_OPTIONS_H_
#define KELO_PLATFORM_BAG_BAG_WRITER_OPTIONS_H_

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kelo {

// How the records of a chunk are stored.
enum class BagCompression {
  kNone,  // as they are
  kZstd,  // a Zstandard frame
  kLz4,   // an LZ4 frame
};

// Settings of a BagWriter. The defaults are what the recorder uses.
struct BagWriterOptions {
  BagCompression compression = BagCompression::kZstd;
  int zstd_level = 1;

  // A chunk is closed once its records reach this many bytes; a bigger message still gets
  // a chunk of its own.
  size_t chunk_size = 1 << 20;

  // A chunk is closed this long after its first message arrived, even if it is small, so
  // that a crash (kill -9) loses at most 100 ms of data: this, the recorder's 10 ms idle
  // tick and the write, with room for a busy machine. Under heavy traffic chunks fill up
  // long before; light traffic pays some bytes a chunk for it (docs/performance.md).
  long chunk_duration_ms = 70;

  // Bytes of closed chunks a file writer may hold while the disk is behind (at least two
  // chunks): beyond it the caller waits for room, and while writing fails the oldest
  // chunks give way instead and are counted lost.
  size_t max_queued_bytes = size_t{32} << 20;

  // At most this many bytes a second go to the disk (0: no limit), for a disk shared with
  // others; the caller then waits as it would for a slow disk. Completing a file is not
  // held back.
  size_t max_write_bytes_per_second = 0;

  // What every file says about the recording it belongs to (the command line, the host,
  // ...): a metadata record named kRecordingMetadataName right after the file's header, so
  // that an unfinished file has it too. Nothing when empty.
  std::vector<std::pair<std::string, std::string>> recording_info;
  static constexpr char kRecordingMetadataName[] = "kelo_recording";
};

namespace internal {
inline std::mutex& DefaultOptionsMutex() {
  static std::mutex mutex;
  return mutex;
}
inline BagWriterOptions& DefaultOptions() {
  static BagWriterOptions options;
  return options;
}
}  // namespace internal

// The options of writers made without options of their own, such as the recorder's. A tool
// sets them once (its compression choice, say) before it creates writers; writers made
// earlier keep what they had. May be called from any thread.
inline void SetDefaultBagWriterOptions(const BagWriterOptions& options) {
  std::lock_guard<std::mutex> hold(internal::DefaultOptionsMutex());
  internal::DefaultOptions() = options;
}
inline BagWriterOptions DefaultBagWriterOptions() {
  std::lock_guard<std::mutex> hold(internal::DefaultOptionsMutex());
  return internal::DefaultOptions();
}

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_WRITER_OPTIONS_H_
