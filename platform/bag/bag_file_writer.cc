#include "platform/bag/bag_file_writer.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/bag/mcap_crc32.h"
#include "platform/bag/mcap_summary.h"

#ifndef KELO_BAG_AA_VERSION
#define KELO_BAG_AA_VERSION "unknown"
#endif

namespace kelo {

const char BagFileWriter::kMessageEncoding[] = "kelo";

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kIds = 65536;
// Chunks smaller than this gain little from compression and cost a codec call each.
constexpr size_t kMinCompressedChunk = 1024;
// After a chunk that did not shrink by 2%, this many chunks are stored as they are before
// compression is tried again: recorded data that is already compressed (images, video)
// would otherwise pay for the codec on every chunk.
constexpr int kChunksWithoutGain = 16;
// Chunk buffers kept for reuse: fresh megabyte buffers cost the caller page faults on every
// chunk, which at full speed is as much as copying the messages in.
constexpr size_t kSpareBuffers = 2;
// How long a chunk that could not be written waits before the next try.
constexpr auto kRetryInterval = std::chrono::milliseconds(300);
// Room kept past what the summary is known to need.
constexpr uint64_t kTailSlack = 8192;

std::string ErrnoText(int err) {
  char buf[256];
  return std::string(strerror_r(err, buf, sizeof(buf)));
}

bool IsNoSpace(int err) { return err == ENOSPC || err == EDQUOT; }

// Cuts the file back to `size` after a failed write, or gives back room set aside past
// it. A failure is not reported: the reader stops at a partial record, and room that stays
// taken harms nothing the file holds.
void CutBack(int fd, uint64_t size) {
  const int ignored = ::ftruncate(fd, static_cast<off_t>(size));
  (void)ignored;
}

// What a schema and a channel record of `c` take in a file.
uint64_t DeclaredBytes(const BagChannel& c) {
  return 2 * mcap::kPrefixSize + 2 + 3 * 4 + c.type.size() + 2 + 2 + 3 * 4 + c.topic.size() +
         sizeof(BagFileWriter::kMessageEncoding);
}

}  // namespace

BagFileWriter::BagFileWriter(const BagFileName& name, const BagWriterOptions& options, BagErrorLog* log,
                             BagLossLedger* ledger)
    : name_(name),
      options_(options),
      log_(log),
      ledger_(ledger),
      max_queued_bytes_(std::max<size_t>(options.max_queued_bytes, 2 * options.chunk_size)),
      active_name_(name.Completed(0) + ".active"),  // what it will most likely be
      completed_name_(name.Completed(0)),
      compressor_(options.compression, options.zstd_level),
      slot_of_channel_() {
  thread_ = std::thread(&BagFileWriter::Run, this);
}

BagFileWriter::~BagFileWriter() { Complete(); }

std::string BagFileWriter::active_path() const {
  std::lock_guard<std::mutex> lock(mu_);
  return active_name_;
}

std::string BagFileWriter::completed_path() {
  std::unique_lock<std::mutex> lock(mu_);
  created_cv_.wait(lock, [this] { return creation_tried_; });
  return completed_name_;
}

uint64_t BagFileWriter::messages_lost() const { return lost_.load(); }

void BagFileWriter::AddChannel(const BagChannel& channel) {
  std::lock_guard<std::mutex> lock(mu_);
  if (channels_.emplace(channel.id, channel).second) declared_bytes_ += DeclaredBytes(channel);
}

void BagFileWriter::AddMessage(uint16_t channel_id, uint32_t sequence, uint64_t log_time,
                               uint64_t publish_time, const char* data, size_t size) {
  std::lock_guard<std::mutex> chunk_lock(chunk_mu_);
  constexpr uint64_t kNanosPerMilli = 1000000;
  const uint64_t millisecond = log_time / kNanosPerMilli;
  if (log_time <= last_log_time_ && last_log_time_ / kNanosPerMilli == millisecond &&
      (last_log_time_ + 1) / kNanosPerMilli == millisecond) {
    log_time = last_log_time_ + 1;
  }
  last_log_time_ = log_time;
  if (closed_) {
    std::string record;
    mcap::AppendMessageHeader(&record, {channel_id, sequence, log_time, publish_time}, 0);
    std::lock_guard<std::mutex> lock(mu_);
    LoseLocked(record, 1, BagLossReason::kWriteError);
    return;
  }
  const size_t record = mcap::kPrefixSize + mcap::kMessageHeaderSize + size;
  if (open_.messages > 0 && open_.records.size() + record > options_.chunk_size) {
    CloseChunk(false);
    WaitForSpace();
  }
  if (open_.messages == 0) {
    if (open_.records.capacity() < options_.chunk_size) open_.records.reserve(options_.chunk_size);
    open_.start = open_.end = log_time;
    std::lock_guard<std::mutex> lock(mu_);
    chunk_deadline_ = Clock::now() + std::chrono::milliseconds(options_.chunk_duration_ms);
    work_cv_.notify_one();  // arms the writing thread's chunk timer
  }
  mcap::MessageHeader header{channel_id, sequence, log_time, publish_time};
  mcap::AppendMessageHeader(&open_.records, header, size);
  open_.records.append(data, size);
  open_.start = std::min(open_.start, log_time);
  open_.end = std::max(open_.end, log_time);
  ++open_.messages;
  if (open_.records.size() >= options_.chunk_size) {
    // The caller checksums the chunk it filled: the writing thread has the disk to wait
    // for, and the caller would otherwise often wait for it.
    CloseChunk(true);
    WaitForSpace();
  }
}

void BagFileWriter::CloseChunk(bool with_crc) {
  if (open_.messages == 0) return;
  if (with_crc) {
    open_.crc = mcap::Crc32(open_.records.data(), open_.records.size());
    open_.has_crc = true;
  }
  std::lock_guard<std::mutex> lock(mu_);
  queued_bytes_ += open_.records.size();
  queue_.push_back(std::move(open_));
  open_ = Chunk();
  chunk_deadline_ = Clock::time_point::max();
  if (!spare_buffers_.empty()) {
    open_.records = std::move(spare_buffers_.back());
    spare_buffers_.pop_back();
    open_.records.clear();
  }
  work_cv_.notify_one();
}

void BagFileWriter::WaitForSpace() {
  std::unique_lock<std::mutex> lock(mu_);
  // A slow disk holds the caller back; a failing one does not: waiting would not make room,
  // so the oldest chunks give way instead, and are counted.
  space_cv_.wait(lock, [this] { return queued_bytes_ <= max_queued_bytes_ || failing_; });
  TrimLocked();
}

void BagFileWriter::TrimLocked() {
  while (failing_ && queued_bytes_ > max_queued_bytes_ && !queue_.empty()) {
    Chunk& oldest = queue_.front();
    LoseLocked(oldest.records, oldest.messages, failure_reason_);
    queued_bytes_ -= oldest.records.size();
    queue_.pop_front();
  }
}

void BagFileWriter::LoseLocked(const std::string& records, uint32_t messages, BagLossReason reason) {
  lost_.fetch_add(messages);
  lost_since_failure_ += messages;
  std::map<uint16_t, uint64_t> per_channel;
  for (size_t pos = 0; pos + mcap::kPrefixSize + mcap::kMessageHeaderSize <= records.size();) {
    const char* r = records.data() + pos;
    if (static_cast<uint8_t>(r[0]) == mcap::kOpMessage) ++per_channel[mcap::LoadU16(r + mcap::kPrefixSize)];
    pos += mcap::kPrefixSize + mcap::LoadU64(r + 1);
  }
  for (const auto& [id, n] : per_channel) {
    auto channel = channels_.find(id);
    ledger_->Add(channel == channels_.end() ? "" : channel->second.topic, reason, n);
  }
}

void BagFileWriter::CloseChunkIfDue() {
  // Never wait for the chunk lock: its holder may be waiting for this thread to make room.
  std::unique_lock<std::mutex> chunk_lock(chunk_mu_, std::try_to_lock);
  if (!chunk_lock.owns_lock()) return;
  bool due;
  {
    std::lock_guard<std::mutex> lock(mu_);
    due = Clock::now() >= chunk_deadline_;
  }
  if (due) CloseChunk(false);
}

void BagFileWriter::Run() {
  // The file exists as soon as the writer does, created here, off the caller's path.
  const int created = OpenFile();
  std::unique_lock<std::mutex> lock(mu_);
  creation_tried_ = true;
  if (created != 0) {
    failing_ = true;
    failure_reason_ = IsNoSpace(created) ? BagLossReason::kDiskFull : BagLossReason::kWriteError;
  }
  created_cv_.notify_all();
  bool yielding = false;
  for (;;) {
    if (stopping_ && !yielding) {
      // Completing a file can wait; the thread that takes messages must not. Splitting a
      // recording then costs it nothing but the swap of files.
      yielding = true;
      if (setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 10) != 0) {
        // It completes at the normal priority.
      }
    }
    if (!queue_.empty()) {
      // A chunk that failed waits for its next try; any chunk waits for the write limit.
      const Clock::time_point not_before = failing_ ? std::max(retry_at_, next_write_at_) : next_write_at_;
      if (!stopping_ && Clock::now() < not_before) {
        work_cv_.wait_until(lock, not_before);
        continue;
      }
      Chunk chunk = std::move(queue_.front());
      queue_.pop_front();
      queued_bytes_ -= chunk.records.size();
      // With two more chunks waiting, compression is not keeping up with the caller:
      // store this one as it is rather than let the queue fill and block the caller.
      const bool hurry = queued_bytes_ >= 2 * options_.chunk_size;
      space_cv_.notify_all();
      lock.unlock();
      const int err = WriteChunk(&chunk, hurry);
      lock.lock();
      if (err != 0) {
        failing_ = true;
        failure_reason_ = IsNoSpace(err) ? BagLossReason::kDiskFull : BagLossReason::kWriteError;
        if (stopping_) {
          LoseLocked(chunk.records, chunk.messages, failure_reason_);  // its last try
        } else {
          queued_bytes_ += chunk.records.size();
          queue_.push_front(std::move(chunk));
          retry_at_ = Clock::now() + kRetryInterval;
          TrimLocked();
        }
        space_cv_.notify_all();
        continue;
      }
      failing_ = false;
      if (options_.max_write_bytes_per_second > 0) {
        next_write_at_ =
            std::max(next_write_at_, Clock::now()) +
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                static_cast<double>(chunk.records.size()) / options_.max_write_bytes_per_second));
      }
      if (chunk.records.capacity() <= 2 * options_.chunk_size && spare_buffers_.size() < kSpareBuffers) {
        spare_buffers_.push_back(std::move(chunk.records));
      }
      continue;
    }
    if (stopping_) break;
    if (chunk_deadline_ == Clock::time_point::max()) {
      work_cv_.wait(lock);
    } else if (Clock::now() < chunk_deadline_) {
      work_cv_.wait_until(lock, chunk_deadline_);
    } else {
      lock.unlock();
      CloseChunkIfDue();
      lock.lock();
      if (queue_.empty() && !stopping_ && Clock::now() >= chunk_deadline_) {
        // A caller is busy with the chunk; look again shortly.
        work_cv_.wait_for(lock, std::chrono::milliseconds(5));
      }
    }
  }
}

void BagFileWriter::IoFailed(const std::string& what, int err) {
  const bool no_space = IsNoSpace(err);
  log_->Fail(no_space ? "disk_full" : "write_error",
             std::string(no_space ? "disk full: " : "write error: ") + what + ": " + ErrnoText(err) +
                 "; keeping what fits in memory until writing works again");
}

void BagFileWriter::IoSucceeded() {
  // The episode may have begun in an earlier file of the same recording.
  if (log_->failures("disk_full") == 0 && log_->failures("write_error") == 0) return;
  std::string line = "writing works again (" + file_.active_path + ")";
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (lost_since_failure_ > 0)
      line += "; " + std::to_string(lost_since_failure_) + " messages were lost meanwhile";
    lost_since_failure_ = 0;
  }
  log_->Recover("disk_full", line);
  log_->Recover("write_error", line);
}

int BagFileWriter::Reserve(uint64_t offset, uint64_t length) {
  while (reserve_supported_) {
    if (::fallocate(file_.fd, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset), static_cast<off_t>(length)) ==
        0) {
      reserved_ = true;
      return 0;
    }
    if (errno == EINTR) continue;
    // A file system without it: completing on a full disk may then fail, leaving the
    // file readable as unfinished.
    if (errno == EOPNOTSUPP || errno == ENOSYS) break;
    return errno;
  }
  reserve_supported_ = false;
  return 0;
}

uint64_t BagFileWriter::TailBound(uint64_t pending) const {
  uint64_t declared, channels;
  {
    std::lock_guard<std::mutex> lock(mu_);
    declared = declared_bytes_;
    channels = channels_.size();
  }
  // The channels go into the data and into the summary; each may have a line of losses,
  // a line of times and a count in the statistics; the next chunk adds an index entry per
  // channel. A metadata record already written has its index entry in the summary.
  return pending + kTailSlack + 2 * declared + channels * 192 + file_.chunk_index_bytes + 256 + channels * 10 +
         file_.metadata_indexes.size() * 64;
}

int BagFileWriter::OpenFile() {
  std::string active, completed;
  int fd = CreateActiveFile(name_, &active, &completed);
  if (fd < 0) {
    const int err = errno;
    ForgetActiveName();
    IoFailed("cannot create " + name_.Completed(0) + ".active", err);
    return err;
  }
  FileState fresh;
  fresh.fd = fd;
  fresh.active_path = active;
  fresh.completed_path = completed;
  fresh.channel_written.assign(kIds, false);
  fresh.schema_written.assign(kIds, false);
  std::string head(mcap::kMagic, mcap::kMagicSize);
  mcap::AppendHeader(&head, {"", std::string("libkelo_bag_aa ") + KELO_BAG_AA_VERSION});
  if (!options_.recording_info.empty()) {
    mcap::MetadataIndex at;
    at.offset = head.size();
    at.name = BagWriterOptions::kRecordingMetadataName;
    mcap::AppendMetadata(&head, {at.name, options_.recording_info});
    at.length = head.size() - at.offset;
    fresh.metadata_indexes.push_back(at);
  }
  file_ = std::move(fresh);
  reserved_ = false;
  struct iovec iov {
    &head[0], head.size()
  };
  int err = Reserve(0, TailBound(head.size()));
  if (err == 0 && !WriteAt(&iov, 1, head.size())) err = errno;
  if (err != 0) {
    ::close(fd);
    ::unlink(active.c_str());  // ours, and holds nothing yet
    file_ = FileState();
    ForgetActiveName();
    IoFailed("cannot write " + active, err);
    return err;
  }
  file_.offset = head.size();
  file_.data_crc = mcap::Crc32(head.data(), head.size());
  std::lock_guard<std::mutex> lock(mu_);
  active_name_ = active;
  completed_name_ = completed;
  return 0;
}

void BagFileWriter::ForgetActiveName() {
  std::lock_guard<std::mutex> lock(mu_);
  active_name_.clear();
}

void BagFileWriter::DropFile() {
  if (file_.fd >= 0) ::close(file_.fd);
  {
    std::lock_guard<std::mutex> lock(mu_);
    lost_.fetch_add(file_.message_count);
    lost_since_failure_ += file_.message_count;
    for (const auto& [id, stats] : file_.channel_stats) {
      auto channel = channels_.find(id);
      ledger_->Add(channel == channels_.end() ? "" : channel->second.topic, BagLossReason::kWriteError,
                   stats.messages);
    }
    active_name_.clear();
  }
  file_ = FileState();
}

int BagFileWriter::EnsureFile() {
  if (file_.fd >= 0) {
    struct stat st;
    if (::fstat(file_.fd, &st) != 0 || st.st_nlink > 0) return 0;
    // Deleted under us (its directory removed, say): what it held is gone, and writing on
    // would only fill an invisible file.
    IoFailed(file_.active_path + " was deleted while being written", ENOENT);
    DropFile();
  }
  return OpenFile();
}

namespace {

constexpr uint64_t kDirectBlock = 4096;  // the largest logical block of common devices

// Writes `parts` in full at `at`.
bool WriteAll(int fd, std::vector<struct iovec> parts, uint64_t at) {
  size_t first = 0;
  while (first < parts.size()) {
    ssize_t n = ::pwritev(fd, parts.data() + first, static_cast<int>(parts.size() - first), static_cast<off_t>(at));
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) {
      errno = EIO;
      return false;
    }
    at += static_cast<uint64_t>(n);
    size_t skip = static_cast<size_t>(n);
    while (first < parts.size() && skip >= parts[first].iov_len) skip -= parts[first++].iov_len;
    if (first < parts.size()) {
      parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + skip;
      parts[first].iov_len -= skip;
    }
  }
  return true;
}

// The `size` bytes of `iov` that begin `from` bytes into it.
std::vector<struct iovec> Slice(const struct iovec* iov, int count, size_t from, size_t size) {
  std::vector<struct iovec> out;
  for (int i = 0; i < count && size > 0; ++i) {
    if (from >= iov[i].iov_len) {
      from -= iov[i].iov_len;
      continue;
    }
    const size_t take = std::min(size, iov[i].iov_len - from);
    out.push_back({static_cast<char*>(iov[i].iov_base) + from, take});
    size -= take;
    from = 0;
  }
  return out;
}

}  // namespace

bool BagFileWriter::WriteAt(const struct iovec* iov, int count, size_t total) {
  const uint64_t begin = file_.offset;
  const uint64_t end = begin + total;
  const uint64_t first_block = (begin + kDirectBlock - 1) / kDirectBlock * kDirectBlock;
  const uint64_t last_block = end / kDirectBlock * kDirectBlock;
  const size_t middle = last_block > first_block ? last_block - first_block : 0;
  if (direct_supported_ && middle > 0 && staging_size_ < middle) {
    void* block = nullptr;
    if (::posix_memalign(&block, kDirectBlock, middle) == 0) {
      staging_.reset(static_cast<char*>(block));
      staging_size_ = middle;
    }
  }
  if (!direct_supported_ || middle == 0 || staging_size_ < middle) {
    return WriteAll(file_.fd, Slice(iov, count, 0, total), begin);
  }
  char* to = staging_.get();
  for (const struct iovec& part : Slice(iov, count, first_block - begin, middle)) {
    std::memcpy(to, part.iov_base, part.iov_len);
    to += part.iov_len;
  }
  return WriteAll(file_.fd, Slice(iov, count, 0, first_block - begin), begin) &&
         WriteDirect(staging_.get(), middle, first_block) &&
         WriteAll(file_.fd, Slice(iov, count, last_block - begin, end - last_block), last_block);
}

bool BagFileWriter::WriteDirect(const char* data, size_t size, uint64_t at) {
  const std::vector<struct iovec> whole{{const_cast<char*>(data), size}};
  const int flags = ::fcntl(file_.fd, F_GETFL);
  if (flags >= 0 && ::fcntl(file_.fd, F_SETFL, flags | O_DIRECT) == 0) {
    const bool ok = WriteAll(file_.fd, whole, at);
    const int err = errno;
    ::fcntl(file_.fd, F_SETFL, flags);
    errno = err;
    if (ok || err != EINVAL) return ok;
  }
  // Refused by the file system, at open or at this alignment: the page cache from here on.
  direct_supported_ = false;
  return WriteAll(file_.fd, whole, at);
}

void BagFileWriter::AppendPendingChannels(std::string* out, std::vector<uint16_t>* written,
                                          std::vector<mcap::Schema>* schemas,
                                          std::vector<mcap::Channel>* channels) {
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto& entry : channels_) {
    const BagChannel& c = entry.second;
    if (file_.channel_written[c.id]) continue;
    bool schema_done = file_.schema_written[c.schema_id];
    for (const mcap::Schema& s : *schemas) schema_done = schema_done || s.id == c.schema_id;
    if (!schema_done) {
      mcap::Schema s{c.schema_id, c.type, "", ""};
      mcap::AppendSchema(out, s);
      schemas->push_back(std::move(s));
    }
    mcap::Channel ch{c.id, c.schema_id, c.topic, kMessageEncoding, {}};
    mcap::AppendChannel(out, ch);
    channels->push_back(std::move(ch));
    written->push_back(c.id);
  }
}

int BagFileWriter::WriteChunk(Chunk* chunk, bool hurry) {
  if (const int err = EnsureFile()) return err;
  const char* records = chunk->records.data();
  const size_t size = chunk->records.size();

  // Index the chunk here rather than while the caller appends, to keep its path short.
  index_slots_.clear();
  for (size_t pos = 0; pos + mcap::kPrefixSize + mcap::kMessageHeaderSize <= size;) {
    const char* r = records + pos;
    const uint64_t length = mcap::LoadU64(r + 1);
    if (static_cast<uint8_t>(r[0]) == mcap::kOpMessage) {
      const uint16_t channel = mcap::LoadU16(r + 9);
      // Grown to the largest channel id seen: a table of every possible id would take a
      // quarter of a megabyte a file, which splitting every few seconds fragments the heap with.
      if (channel >= slot_of_channel_.size()) slot_of_channel_.resize(channel + size_t{1}, -1);
      int& slot = slot_of_channel_[channel];
      if (slot < 0) {
        slot = static_cast<int>(index_slots_.size());
        index_slots_.emplace_back(channel, std::vector<mcap::IndexEntry>());
      }
      index_slots_[slot].second.push_back({mcap::LoadU64(r + 15), pos});
    }
    pos += mcap::kPrefixSize + length;
  }
  for (const auto& slot : index_slots_) slot_of_channel_[slot.first] = -1;
  std::sort(index_slots_.begin(), index_slots_.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });

  head_.clear();
  std::vector<uint16_t> written;
  std::vector<mcap::Schema> schemas;
  std::vector<mcap::Channel> channels;
  AppendPendingChannels(&head_, &written, &schemas, &channels);

  const uint32_t crc = chunk->has_crc ? chunk->crc : mcap::Crc32(records, size);
  bool compress = options_.compression != BagCompression::kNone && !hurry && size >= kMinCompressedChunk;
  if (compress && skip_compression_ > 0) {
    --skip_compression_;
    compress = false;
  }
  const char* body = records;
  size_t body_size = size;
  const char* compression = "";
  if (compress && compressor_.Compress(records, size, &compressed_)) {
    if (compressed_.size() < size - size / 50) {
      body = compressed_.data();
      body_size = compressed_.size();
      compression = mcap::CompressionName(options_.compression);
    } else {
      skip_compression_ = kChunksWithoutGain;
    }
  }

  mcap::ChunkIndex index;
  index.message_start_time = chunk->start;
  index.message_end_time = chunk->end;
  index.chunk_start_offset = file_.offset + head_.size();
  const size_t header_begin = head_.size();
  mcap::ChunkHeader header;
  header.message_start_time = chunk->start;
  header.message_end_time = chunk->end;
  header.uncompressed_size = size;
  header.uncompressed_crc = crc;
  header.compression = compression;
  header.records_size = body_size;
  mcap::AppendChunkHeader(&head_, header);
  index.chunk_length = head_.size() - header_begin + body_size;
  index.compression = compression;
  index.compressed_size = body_size;
  index.uncompressed_size = size;

  indexes_.clear();
  const uint64_t indexes_at = index.chunk_start_offset + index.chunk_length;
  for (const auto& slot : index_slots_) {
    index.message_index_offsets.emplace_back(slot.first, indexes_at + indexes_.size());
    mcap::AppendMessageIndex(&indexes_, slot.first, slot.second);
  }
  index.message_index_length = indexes_.size();

  struct iovec iov[3] = {
      {&head_[0], head_.size()}, {const_cast<char*>(body), body_size}, {&indexes_[0], indexes_.size()}};
  const size_t total = head_.size() + body_size + indexes_.size();
  // The chunk and everything completing the file would still need, or nothing: the room
  // set aside before stays, so the file can always be completed without this chunk.
  if (const int err = Reserve(file_.offset, TailBound(total))) {
    IoFailed("cannot write " + file_.active_path, err);
    return err;
  }
  if (!WriteAt(iov, 3, total)) {
    const int err = errno;
    // Cut back to the last complete record, so the file stays readable up to there.
    CutBack(file_.fd, file_.offset);
    IoFailed("cannot write " + file_.active_path, err);
    return err;
  }

  uint32_t data_crc = mcap::Crc32Extend(file_.data_crc, head_.data(), head_.size());
  data_crc = body == records ? mcap::Crc32Combine(data_crc, crc, size)
                             : mcap::Crc32Extend(data_crc, body, body_size);
  file_.data_crc = mcap::Crc32Extend(data_crc, indexes_.data(), indexes_.size());
  file_.offset += total;
  for (uint16_t id : written) file_.channel_written[id] = true;
  for (mcap::Schema& s : schemas) {
    file_.schema_written[s.id] = true;
    file_.schemas.push_back(std::move(s));
  }
  for (mcap::Channel& c : channels) file_.channels.push_back(std::move(c));
  for (const auto& slot : index_slots_) {
    mcap::ChannelStats& stats = file_.channel_stats[slot.first];
    for (const mcap::IndexEntry& entry : slot.second) stats.Add(entry.log_time);
  }
  if (file_.message_count == 0) {
    file_.start_time = chunk->start;
    file_.end_time = chunk->end;
  } else {
    file_.start_time = std::min(file_.start_time, chunk->start);
    file_.end_time = std::max(file_.end_time, chunk->end);
  }
  file_.message_count += chunk->messages;
  std::string index_record;
  mcap::AppendChunkIndex(&index_record, index);
  file_.chunk_index_bytes += index_record.size();
  file_.chunk_indexes.push_back(std::move(index));
  IoSucceeded();
  return 0;
}

std::string BagFileWriter::Complete() {
  std::lock_guard<std::mutex> complete_lock(complete_mu_);
  {
    std::lock_guard<std::mutex> chunk_lock(chunk_mu_);
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (completed_) return result_;
    }
    CloseChunk(false);
    closed_ = true;
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
    work_cv_.notify_one();
  }
  if (thread_.joinable()) thread_.join();
  std::string result = Finish();
  std::lock_guard<std::mutex> lock(mu_);
  completed_ = true;
  result_ = result;
  active_name_.clear();
  return result;
}

std::string BagFileWriter::Finish() {
  if (EnsureFile() != 0) return "";
  std::string tail;
  std::vector<uint16_t> written;
  std::vector<mcap::Schema> schemas;
  std::vector<mcap::Channel> channels;
  AppendPendingChannels(&tail, &written, &schemas, &channels);
  for (mcap::Schema& s : schemas) file_.schemas.push_back(std::move(s));
  for (mcap::Channel& c : channels) file_.channels.push_back(std::move(c));

  mcap::SummaryContent summary;
  summary.metadata_indexes = file_.metadata_indexes;
  // What the recording lost while this file was the one being written is kept in it.
  const BagLosses losses = ledger_->TakeUnfiled();
  if (!losses.empty()) {
    mcap::MetadataIndex at;
    at.offset = file_.offset + tail.size();
    at.name = BagLosses::kMetadataName;
    mcap::AppendMetadata(&tail, {at.name, losses.ToMetadata()});
    at.length = file_.offset + tail.size() - at.offset;
    summary.metadata_indexes.push_back(at);
  }
  if (file_.message_count > 0) {
    mcap::MetadataIndex at;
    at.offset = file_.offset + tail.size();
    at.name = mcap::kChannelTimesMetadataName;
    mcap::AppendMetadata(&tail, mcap::ChannelTimesMetadata(file_.channel_stats));
    at.length = file_.offset + tail.size() - at.offset;
    summary.metadata_indexes.push_back(at);
  }

  summary.schemas = file_.schemas;
  summary.channels = file_.channels;
  std::sort(summary.schemas.begin(), summary.schemas.end(),
            [](const mcap::Schema& a, const mcap::Schema& b) { return a.id < b.id; });
  std::sort(summary.channels.begin(), summary.channels.end(),
            [](const mcap::Channel& a, const mcap::Channel& b) { return a.id < b.id; });
  mcap::Statistics& stats = summary.statistics;
  stats.message_count = file_.message_count;
  stats.schema_count = static_cast<uint16_t>(summary.schemas.size());
  stats.channel_count = static_cast<uint32_t>(summary.channels.size());
  stats.metadata_count = static_cast<uint32_t>(summary.metadata_indexes.size());
  stats.chunk_count = static_cast<uint32_t>(file_.chunk_indexes.size());
  stats.message_start_time = file_.start_time;
  stats.message_end_time = file_.end_time;
  for (const mcap::Channel& c : summary.channels) {
    auto it = file_.channel_stats.find(c.id);
    stats.channel_message_counts.emplace_back(c.id, it == file_.channel_stats.end() ? 0 : it->second.messages);
  }
  summary.chunk_indexes = std::move(file_.chunk_indexes);

  const uint32_t data_crc = mcap::Crc32Extend(file_.data_crc, tail.data(), tail.size());
  const uint64_t data_end = file_.offset + tail.size();
  mcap::AppendFileTail(&tail, data_end, data_crc, summary);

  struct iovec iov {
    &tail[0], tail.size()
  };
  if (!WriteAt(&iov, 1, tail.size())) {
    int err = errno;
    CutBack(file_.fd, file_.offset);
    ledger_->ReturnUnfiled(losses);
    IoFailed("cannot complete " + file_.active_path + " (it stays readable as unfinished)", err);
    ::close(file_.fd);
    file_.fd = -1;
    return "";
  }
  // Space set aside past the end is given back.
  if (reserved_) CutBack(file_.fd, file_.offset + tail.size());
  if (::fsync(file_.fd) != 0) {
    ledger_->ReturnUnfiled(losses);
    IoFailed("cannot sync " + file_.active_path + " (it stays unfinished)", errno);
    ::close(file_.fd);
    file_.fd = -1;
    return "";
  }
  ::close(file_.fd);
  file_.fd = -1;
  std::string completed = file_.completed_path;
  if (!RenameCompleted(file_.active_path, name_, &completed)) {
    ledger_->ReturnUnfiled(losses);
    IoFailed("cannot rename " + file_.active_path + " to " + completed, errno);
    return "";
  }
  // No IoSucceeded() here: the summary went into room set aside before, which says nothing
  // of whether writing works again.
  SyncDirectoryOf(completed);
  return completed;
}

}  // namespace kelo
