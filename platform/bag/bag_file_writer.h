#ifndef KELO_PLATFORM_BAG_BAG_FILE_WRITER_H_
#define KELO_PLATFORM_BAG_BAG_FILE_WRITER_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/bag/bag_channel_table.h"
#include "platform/bag/bag_error_log.h"
#include "platform/bag/bag_file_name.h"
#include "platform/bag/bag_loss_ledger.h"
#include "platform/bag/bag_writer_options.h"
#include "platform/bag/mcap_compression.h"
#include "platform/bag/mcap_records.h"
#include "platform/bag/mcap_summary.h"

struct iovec;

namespace kelo {

// Writes one bag file: an MCAP file with chunked messages, message indexes after every
// chunk and a full summary. Messages are encoded into the open chunk on the caller's
// thread; a thread of the writer's own creates the file, compresses closed chunks and writes
// them, so the caller never waits for the file system or a codec, only for the disk when it
// falls behind.
//
//   BagFileWriter file(BagFileName::ForPart(path, "0"), options, &log, &ledger);
//   file.AddChannel(channel);
//   file.AddMessage(channel.id, 1, log_time, publish_time, data.data(), data.size());
//   std::string done = file.Complete();
//
// I/O errors never throw and never damage what is already written. They are reported on
// `log` once per episode, and the writer keeps the chunks it could not write in memory,
// up to its queue's bound, trying again every few hundred milliseconds; when the queue
// would overflow meanwhile, its oldest chunks are dropped and their messages counted in
// `ledger` (disk full or write error). The file keeps room for its summary set aside as it
// grows, so that it can be completed even on a full disk. A file that cannot be created (or
// is deleted while being written) is created anew when writing works again.
//
// All members may be called from any thread; calls are serialised inside.
class BagFileWriter {
 public:
  // The message encoding written on every channel: payloads are opaque bytes as the
  // publisher serialized them; the schema name tells their type.
  static const char kMessageEncoding[];

  // Starts creating the active file on the writer's thread. `log` and `ledger` must outlive
  // the writer.
  BagFileWriter(const BagFileName& name, const BagWriterOptions& options, BagErrorLog* log,
                BagLossLedger* ledger);

  // Completes the file if Complete() was not called.
  ~BagFileWriter();

  BagFileWriter(const BagFileWriter&) = delete;
  BagFileWriter& operator=(const BagFileWriter&) = delete;

  // The active file's name, or "" while it does not exist (not created yet, or completed).
  std::string active_path() const;

  // The name the file gets once complete. Waits until the first attempt to create the file
  // is over (normally long done); when that failed, the name it will have if created later.
  std::string completed_path();

  // Declares a channel. It is written to the file before the first chunk that follows,
  // even when no message ever uses it. Declaring an id again is harmless.
  void AddChannel(const BagChannel& channel);

  // Appends a message on a declared channel. Times are nanoseconds. A message of the same
  // millisecond as the one before it, and not later, is logged a nanosecond after it, so
  // that readers which order by log time keep the order in which messages came.
  void AddMessage(uint16_t channel_id, uint32_t sequence, uint64_t log_time, uint64_t publish_time,
                  const char* data, size_t size);

  // Writes what is pending (one more try each for chunks that failed before), the losses
  // the ledger holds for a file, the summary and the footer, syncs the file to disk and
  // renames it to its completed name (never replacing an existing file). Returns that name,
  // or "" when the file could not be completed (it then stays behind as ".active", readable
  // as an unfinished bag) or never existed. Later calls return the same result; no message
  // may follow.
  std::string Complete();

  // Messages given to this writer that could not be stored because of I/O errors.
  uint64_t messages_lost() const;

 private:
  struct Chunk {
    std::string records;
    uint64_t start = 0;
    uint64_t end = 0;
    uint32_t messages = 0;
    bool has_crc = false;  // the caller's thread computed `crc` while it had time to spare
    uint32_t crc = 0;
  };

  // What the file on disk holds; touched only by the writing thread, or by Complete()
  // once that thread has ended.
  struct FileState {
    int fd = -1;
    std::string active_path;
    std::string completed_path;
    uint64_t offset = 0;    // bytes written and kept
    uint32_t data_crc = 0;  // CRC of those bytes
    std::vector<bool> channel_written;
    std::vector<bool> schema_written;
    std::vector<mcap::Schema> schemas;
    std::vector<mcap::Channel> channels;
    std::vector<mcap::ChunkIndex> chunk_indexes;
    uint64_t chunk_index_bytes = 0;  // their size in the summary
    std::vector<mcap::MetadataIndex> metadata_indexes;  // of the records written so far
    std::map<uint16_t, mcap::ChannelStats> channel_stats;
    uint64_t message_count = 0;
    uint64_t start_time = 0;
    uint64_t end_time = 0;
  };

  void Run();
  // Hands the open chunk to the writing thread; the caller holds chunk_mu_.
  void CloseChunk(bool with_crc);
  void CloseChunkIfDue();
  // 0 when the chunk is in the file; otherwise the errno of what failed, with nothing of
  // the chunk left in the file.
  int WriteChunk(Chunk* chunk, bool hurry);
  int EnsureFile();
  int OpenFile();
  void DropFile();
  void ForgetActiveName();
  // Sets aside the disk space for `length` bytes at `offset`: 0, or the errno that says
  // there is none.
  int Reserve(uint64_t offset, uint64_t length);
  // An upper bound of what completing the file still writes after `pending` more bytes.
  uint64_t TailBound(uint64_t pending) const;
  void AppendPendingChannels(std::string* out, std::vector<uint16_t>* written,
                             std::vector<mcap::Schema>* schemas, std::vector<mcap::Channel>* channels);
  void WaitForSpace();
  // Counts the messages of `records` as lost for `reason`, per topic; mu_ held.
  void LoseLocked(const std::string& records, uint32_t messages, BagLossReason reason);
  // While writing fails, drops the oldest queued chunks the queue cannot hold; mu_ held.
  void TrimLocked();
  // Writes `total` bytes of `iov` at the end of the file. The whole 4 KB blocks of a large
  // write go past the page cache (O_DIRECT): copying them into it costs more CPU than the
  // rest of recording on a virtual machine, and the receiving thread needs that CPU. The
  // partial blocks at either end go through the page cache, so the file on disk always
  // ends at the last byte written.
  bool WriteAt(const ::iovec* iov, int count, size_t total);
  bool WriteDirect(const char* data, size_t size, uint64_t at);
  void IoFailed(const std::string& what, int err);
  void IoSucceeded();
  std::string Finish();

  const BagFileName name_;
  const BagWriterOptions options_;
  BagErrorLog* const log_;
  BagLossLedger* const ledger_;
  const size_t max_queued_bytes_;

  // The open chunk has a lock of its own, so that the writing thread never waits while a
  // caller copies a message in. Lock order: chunk_mu_, then mu_.
  std::mutex chunk_mu_;
  Chunk open_;           // guarded by chunk_mu_
  uint64_t last_log_time_ = 0;  // guarded by chunk_mu_
  bool closed_ = false;  // guarded by chunk_mu_: Complete() has begun

  mutable std::mutex mu_;
  std::condition_variable work_cv_;     // the writing thread waits here
  std::condition_variable space_cv_;    // callers wait here while the queue is full
  std::condition_variable created_cv_;  // completed_path() waits here for the first try
  // When the open chunk must be closed; max() while it is empty.
  std::chrono::steady_clock::time_point chunk_deadline_ = std::chrono::steady_clock::time_point::max();
  std::deque<Chunk> queue_;
  size_t queued_bytes_ = 0;
  std::vector<std::string> spare_buffers_;
  std::map<uint16_t, BagChannel> channels_;
  uint64_t declared_bytes_ = 0;  // what the declared channels take in the file, once
  bool stopping_ = false;
  bool completed_ = false;
  bool creation_tried_ = false;
  // Writing fails: chunks wait in the queue for the next try at `retry_at_`.
  bool failing_ = false;
  BagLossReason failure_reason_ = BagLossReason::kWriteError;
  std::chrono::steady_clock::time_point retry_at_;
  // The write limit holds the next chunk back until then.
  std::chrono::steady_clock::time_point next_write_at_;
  std::string result_;
  std::string active_name_;     // what active_path() reports
  std::string completed_name_;  // what completed_path() reports
  std::atomic<uint64_t> lost_{0};
  std::mutex complete_mu_;  // one Complete() at a time

  // Owned by the writing thread.
  FileState file_;
  mcap::ChunkCompressor compressor_;
  std::string compressed_;
  std::string head_;
  std::string indexes_;
  std::vector<int> slot_of_channel_;
  std::vector<std::pair<uint16_t, std::vector<mcap::IndexEntry>>> index_slots_;
  int skip_compression_ = 0;
  uint64_t lost_since_failure_ = 0;
  bool reserve_supported_ = true;
  bool reserved_ = false;  // space was set aside past the end of the file
  bool direct_supported_ = true;  // the file system takes O_DIRECT writes
  std::unique_ptr<char, void (*)(void*)> staging_{nullptr, std::free};  // aligned, for those
  size_t staging_size_ = 0;

  std::thread thread_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_FILE_WRITER_H_
