#include "platform/bag/bag_writer.h"

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

BagWriter::~BagWriter() { CloseFile(); }

std::unique_ptr<BagFileWriter> BagWriter::CreateFileLocked(const std::string& part) {
  auto file = std::make_unique<BagFileWriter>(BagFileName::ForPart(path_.GetFullPath(), part),
                                              options_, &log_);
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
    log_.Fail("channels", "no channel id left for " + topic + " (" + type +
                              "); its messages are not stored");
    return nullptr;
  }
  if (created && file_) file_->AddChannel(*c);
  return c;
}

BagChannel* BagWriter::channel(const std::string& topic, const std::string& type) {
  std::lock_guard<std::mutex> lock(mu_);
  return ChannelLocked(topic, type);
}

bool BagWriter::open(const std::string& index) {
  std::lock_guard<std::mutex> save_lock(save_mu_);
  CloseFile();
  std::lock_guard<std::mutex> lock(mu_);
  part_ = index;
  file_ = CreateFileLocked(index);
  return !file_->active_path().empty();
}

void BagWriter::append_topic(const std::string& name, const std::string& type) {
  std::lock_guard<std::mutex> lock(mu_);
  ChannelLocked(name, type);
}

void BagWriter::append_message(long time, long record_time, const std::string& topic,
                               const std::string& data, const std::string& type) {
  if (time < 0 || record_time < 0 || time > kMaxTimeMs || record_time > kMaxTimeMs) {
    std::lock_guard<std::mutex> lock(mu_);
    time_failing_ = true;
    log_.Fail("time", "message on " + topic + " at time " + std::to_string(time) +
                          " ms (recorded at " + std::to_string(record_time) +
                          " ms) is outside the times a bag can hold; such messages are not stored");
    return;
  }
  std::lock_guard<std::mutex> lock(mu_);
  if (time_failing_) {
    time_failing_ = false;
    log_.Recover("time", "storing messages again from " + topic);
  }
  BagChannel* c = ChannelLocked(topic, type);
  if (c == nullptr) return;
  if (!file_) file_ = CreateFileLocked(part_);
  file_->AddMessage(c->id, ++c->sequence, static_cast<uint64_t>(time) * kNanosPerMilli,
                    static_cast<uint64_t>(record_time) * kNanosPerMilli, data.data(), data.size());
}

std::string BagWriter::save_file(const std::string& index) {
  std::lock_guard<std::mutex> save_lock(save_mu_);
  std::unique_ptr<BagFileWriter> done;
  {
    // Messages go to the next part at once; completing this one happens outside the lock.
    std::lock_guard<std::mutex> lock(mu_);
    done = std::move(file_);
    part_ = index;
    file_ = CreateFileLocked(index);
  }
  return done ? done->Complete() : std::string();
}

std::string BagWriter::close() {
  std::lock_guard<std::mutex> save_lock(save_mu_);
  return CloseFile();
}

std::string BagWriter::CloseFile() {
  std::unique_ptr<BagFileWriter> done;
  {
    std::lock_guard<std::mutex> lock(mu_);
    done = std::move(file_);
  }
  return done ? done->Complete() : std::string();
}

std::string BagWriter::active_file() const {
  std::lock_guard<std::mutex> lock(mu_);
  return file_ ? file_->active_path() : std::string();
}

}  // namespace kelo
