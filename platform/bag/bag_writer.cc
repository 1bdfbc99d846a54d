#include "platform/bag/bag_writer.h"

#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <limits>

#include "platform/bag/bag_file_writer.h"

namespace kelo {

namespace {

constexpr long kNanosPerMilli = 1000000;
// The largest millisecond time whose nanoseconds still fit the format's uint64 and our
// signed arithmetic.
constexpr long kMaxTimeMs = std::numeric_limits<long>::max() / kNanosPerMilli;

}  // namespace

BagWriter::BagWriter(const fileio::FilePath& path) : BagWriter(path, DefaultBagWriterOptions()) {}

BagWriter::BagWriter(const fileio::FilePath& path, const BagWriterOptions& options)
    : path_(path), options_(options) {}

BagWriter::~BagWriter() {
  CloseFile();
  WaitForBackground();
  if (completer_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      completer_stop_ = true;
    }
    completer_cv_.notify_all();
    completer_.join();
  }
}

std::unique_ptr<BagFileWriter> BagWriter::CreateFileLocked(const std::string& part) {
  auto file = std::make_unique<BagFileWriter>(BagFileName::ForPart(path_.GetFullPath(), part), options_,
                                              &log_, &ledger_);
  for (const BagChannel& c : channels_.all()) file->AddChannel(c);
  return file;
}

std::unique_ptr<BagFileWriter> BagWriter::create_file(const std::string& part) {
  std::lock_guard<std::mutex> lock(mu_);
  return CreateFileLocked(part);
}

BagChannel* BagWriter::ChannelLocked(const std::string& topic, const std::string& type) {
  bool created = false;
  BagChannel* c = channels_.Get(topic, type, &created);
  if (c == nullptr) {
    log_.Fail("channels", "no channel id left for " + topic + " (" + type + "); its messages are not stored");
    return nullptr;
  }
  if (created && file_) file_->AddChannel(*c);
  return c;
}

BagChannel* BagWriter::channel(const std::string& topic, const std::string& type) {
  std::lock_guard<std::mutex> lock(mu_);
  return ChannelLocked(topic, type);
}

bool BagWriter::CheckTimes(long time, long record_time, const std::string& topic) {
  std::lock_guard<std::mutex> lock(mu_);
  if (time < 0 || record_time < 0 || time > kMaxTimeMs || record_time > kMaxTimeMs) {
    time_failing_ = true;
    log_.Fail("time", "message on " + topic + " at time " + std::to_string(time) + " ms (recorded at " +
                          std::to_string(record_time) +
                          " ms) is outside the times a bag can hold; such messages are not stored");
    ledger_.Add(topic, BagLossReason::kBadTime);
    return false;
  }
  if (time_failing_) {
    time_failing_ = false;
    log_.Recover("time", "storing messages again from " + topic);
  }
  return true;
}

bool BagWriter::open(const std::string& index) {
  std::lock_guard<std::mutex> write_lock(write_mu_);
  CloseFile();
  std::lock_guard<std::mutex> lock(mu_);
  part_ = index;
  return true;
}

void BagWriter::append_topic(const std::string& name, const std::string& type) {
  std::lock_guard<std::mutex> lock(mu_);
  ChannelLocked(name, type);
}

void BagWriter::append_message(long time, long record_time, const std::string& topic, const std::string& data,
                               const std::string& type) {
  if (!CheckTimes(time, record_time, topic)) return;
  std::lock_guard<std::mutex> write_lock(write_mu_);
  BagFileWriter* file;
  uint16_t id;
  uint32_t sequence;
  {
    std::lock_guard<std::mutex> lock(mu_);
    BagChannel* c = ChannelLocked(topic, type);
    if (c == nullptr) {
      ledger_.Add(topic, BagLossReason::kWriteError);
      return;
    }
    if (!file_) file_ = CreateFileLocked(part_);
    file = file_.get();
    id = c->id;
    sequence = ++c->sequence;
  }
  // Outside mu_: this may wait for the disk, and append_topic() must not wait with it.
  file->AddMessage(id, sequence, static_cast<uint64_t>(time) * kNanosPerMilli,
                   static_cast<uint64_t>(record_time) * kNanosPerMilli, data.data(), data.size());
}

std::string BagWriter::save_file(const std::string& index) {
  std::lock_guard<std::mutex> write_lock(write_mu_);
  std::unique_ptr<BagFileWriter> done;
  {
    std::lock_guard<std::mutex> lock(mu_);
    done = std::move(file_);
    part_ = index;
    // The next part's file is created (on its own thread) at once, ready for the message
    // that usually follows a split without delay.
    file_ = CreateFileLocked(index);
  }
  if (!done) return "";
  const std::string name = done->completed_path();
  CompleteInBackground(std::move(done), name);
  return name;
}

std::string BagWriter::close() {
  std::string name;
  {
    std::lock_guard<std::mutex> write_lock(write_mu_);
    name = CloseFile();
  }
  WaitForBackground();
  return name;
}

std::string BagWriter::CloseFile() {
  std::unique_ptr<BagFileWriter> done;
  {
    std::lock_guard<std::mutex> lock(mu_);
    done = std::move(file_);
  }
  return done ? CompleteFile(std::move(done)) : std::string();
}

std::string BagWriter::CompleteFile(std::unique_ptr<BagFileWriter> file) {
  const std::string active = file->active_path();
  const std::string done = file->Complete();
  if (done.empty() && !active.empty()) {
    std::lock_guard<std::mutex> lock(mu_);
    incomplete_.push_back(active);
  }
  return done;
}

void BagWriter::CompleteInBackground(std::unique_ptr<BagFileWriter> file, const std::string& announced) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!completer_.joinable()) completer_ = std::thread(&BagWriter::RunCompleter, this);
  to_complete_.emplace_back(std::move(file), announced);
  completer_cv_.notify_all();
}

void BagWriter::WaitForBackground() {
  std::unique_lock<std::mutex> lock(mu_);
  completer_cv_.wait(lock, [this] { return to_complete_.empty() && !completing_; });
}

void BagWriter::RunCompleter() {
  pthread_setname_np(pthread_self(), "bag_complete");
  // Completing a part can wait: it yields to those that take and write messages, which must
  // not fall behind while it runs.
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 10) != 0) {
    // Left at the normal priority; only the order of work changes.
  }
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    completer_cv_.wait(lock, [this] { return completer_stop_ || !to_complete_.empty(); });
    if (to_complete_.empty()) return;
    auto job = std::move(to_complete_.front());
    to_complete_.pop_front();
    completing_ = true;
    lock.unlock();
    const std::string done = CompleteFile(std::move(job.first));
    if (!done.empty() && done != job.second) {
      std::fprintf(stderr, "bag: %s was completed as %s, a file of that name having appeared meanwhile\n",
                   job.second.c_str(), done.c_str());
    }
    // The part's chunk buffers and indexes are freed now. Give the free pages back, or a
    // recording split for hours creeps up in memory as the allocator's arenas fragment.
    malloc_trim(0);
    lock.lock();
    completing_ = false;
    completer_cv_.notify_all();
  }
}

std::string BagWriter::active_file() const {
  std::lock_guard<std::mutex> lock(mu_);
  return file_ ? file_->active_path() : std::string();
}

std::vector<std::string> BagWriter::incomplete_files() const {
  std::lock_guard<std::mutex> lock(mu_);
  return incomplete_;
}

}  // namespace kelo
