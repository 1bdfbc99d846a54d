#include "record/bag_record_writer.h"

#include <sys/time.h>

#include <cstdint>
#include <iostream>
#include <sstream>
#include <utility>

#include "platform/bag/bag_cache_writer.h"
#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "platform/trigger/trigger_notice.h"
#include "platform/space/file_space_manager.h"
#include "platform/trigger/trigger_key.h"
#include "platform/trigger/trigger_record_node_api.h"
#include "record/bag_record_options.h"
#include "record/wall_clock.h"

namespace kelo {

BagRecordWriter::BagRecordWriter() : writer_(nullptr), debug_save_time_(false) {}

BagRecordWriter::~BagRecordWriter() { delete writer_; }

void BagRecordWriter::set_on_save(std::function<void(const std::string&)> on_save) {
  {
    std::lock_guard<std::mutex> hold(on_save_mutex_);
    on_save_.swap(on_save);
  }
  // The previous callable is destroyed here, outside the lock.
}

void BagRecordWriter::append_topic(const std::string& name, const std::string& type) {
  writer_->append_topic(name, type);
}

void BagRecordWriter::close() { writer_->close(); }

void BagRecordWriter::debug_save_time() { debug_save_time_ = true; }

BagLossLedger* BagRecordWriter::losses() { return writer_->losses(); }

std::string BagRecordWriter::active_file() const { return writer_->active_file(); }

std::string BagRecordWriter::problems() const { return writer_->problems(); }

std::vector<std::string> BagRecordWriter::incomplete_files() const { return writer_->incomplete_files(); }

std::string BagRecordWriter::save(const std::string& name) {
  int64_t start_ms = WallClockMs();
  std::string saved = writer_->save_file(name);
  if (saved.empty()) return saved;
  if (debug_save_time_) {
    std::cout << "save time: " << (WallClockMs() - start_ms) << "ms" << std::endl;
  }
  std::function<void(const std::string&)> on_save;
  {
    std::lock_guard<std::mutex> hold(on_save_mutex_);
    on_save = on_save_;
  }
  if (on_save) on_save(saved);
  return saved;
}

BagRecordActual::BagRecordActual(const BagRecordOpt& opt, const fileio::FilePath& path)
    : split_time_(opt.split_time),
      split_size_(opt.split_size),
      split_start_time_(0),
      part_bytes_(0),
      split_index_(0) {
  writer_ = new BagWriter(path);
  writer_->open(split_time_ >= 1 || split_size_ >= 1 ? "0" : "");
}

BagRecordActual::~BagRecordActual() = default;

void BagRecordActual::save_message(const Message& msg) {
  const long t = msg.time;
  if (split_start_time_ == 0) {
    split_start_time_ = t;
  } else if ((split_time_ >= 1 &&
              static_cast<int64_t>(static_cast<uint64_t>(t) - static_cast<uint64_t>(split_start_time_)) >
                  static_cast<int64_t>(static_cast<uint64_t>(split_time_) * 1000u)) ||
             (split_size_ >= 1 && part_bytes_ > 0 &&
              part_bytes_ + msg.data.size() > static_cast<uint64_t>(split_size_))) {
    ++split_index_;
    std::ostringstream index;
    index << split_index_;
    save(index.str());
    split_start_time_ = t;
    part_bytes_ = 0;
  }
  part_bytes_ += msg.data.size();
  writer_->append_message(t, msg.record_time, msg.topic, msg.data, msg.type);
}

namespace {

// Folders up to this size are measured afresh before every file; larger ones are indexed.
constexpr long kSmallFolderBytes = 2147483648L;  // 2048 MB

// duration − reserve on the low 32 bits, or 0 when the window ends before the trigger.
unsigned int NoticeDelaySeconds(long reserve, long duration) {
  if (duration <= reserve) return 0;
  return static_cast<unsigned int>(static_cast<uint64_t>(duration) - static_cast<uint64_t>(reserve));
}

}  // namespace

BagRecordTrigger::BagRecordTrigger(const BagRecordOpt& opt, const fileio::FilePath& path)
    : space_manager_(nullptr),
      trigger_api_(nullptr),
      reserve_ms_(opt.reserve_time * 1000L),
      duration_ms_(opt.duration_time * 1000L) {
  const unsigned int delay = NoticeDelaySeconds(opt.reserve_time, opt.duration_time);
  std::cout << "opt.nospacelimit:" << opt.nospacelimit << std::endl;
  if (path.IsNormal() && !opt.nospacelimit) {
    std::cout << "opt.nospacelimit:" << opt.nospacelimit << std::endl;
    // A negative folder size becomes a limit too large to ever reach.
    space_manager_ = new FileSpaceManager(
        path.GetPath(), "", ".kelobag", static_cast<unsigned long>(opt.folder_size),
        static_cast<FileSpaceManager::Mode>(opt.folder_size <= kSmallFolderBytes ? 1 : 0));
  }
  auto* cache = new BagCacheWriter(path, opt.reserve_time, opt.duration_time, opt.cache_size);
  writer_ = cache;
  if (space_manager_ != nullptr) {
    // The budget is this recorder's: other files in the folder are not its to delete.
    space_manager_->set_filter([cache](const std::string& name) { return cache->IsSavedName(name); });
    const std::string budget = " to keep " + path.GetPath() + " within its " +
                               std::to_string(static_cast<unsigned long>(opt.folder_size) >> 20) +
                               " MB budget";
    space_manager_->set_on_delete([this, budget](const std::string& deleted, uint64_t size) {
      Report("deleted " + deleted + " (" + std::to_string(size) + " bytes)" + budget);
    });
  }
  trigger_api_ = new TriggerRecordNodeApi("bag_record", opt.node_name, path, delay);
  // A trigger whose window the cache no longer reaches is refused at once, with the reason.
  trigger_api_->SetTriggerCheck([cache](long time_ms) { return cache->WhyNothingToSave(time_ms); });
  trigger_api_->SetNotifyCallback([this](const std::string& notice) { OnNotice(notice); });
}

void BagRecordTrigger::OnNotice(const std::string& notice) {
  TriggerNotice trigger;
  const bool parsed = TriggerNotice::Parse(notice, &trigger);
  if (parsed && !last_saved_.empty() && trigger.time_ms >= last_start_ms_ && trigger.time_ms <= last_end_ms_) {
    trigger_api_->ReportSaved(notice, last_saved_, "");
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  while (!saves_.empty() && now - saves_.front() > std::chrono::minutes(1)) saves_.pop_front();
  if (saves_.size() >= kMaxSavesPerMinute) {
    if (!flooded_) {
      Report(
          "more than " + std::to_string(kMaxSavesPerMinute) +
          " triggers in a minute: saving nothing more for now, so that the folder budget deletes no bag for "
          "them");
    }
    flooded_ = true;
    trigger_api_->ReportSaved(notice, "", "too many triggers in the last minute");
    return;
  }
  flooded_ = false;
  saves_.push_back(now);
  if (space_manager_ != nullptr) space_manager_->free(std::function<bool(const std::vector<std::string>&)>());
  const std::string saved = save(notice);
  if (parsed && !saved.empty()) {
    last_start_ms_ = trigger.time_ms - reserve_ms_;
    last_end_ms_ = last_start_ms_ + duration_ms_;
    last_saved_ = saved;
  }
  trigger_api_->ReportSaved(
      notice, saved, saved.empty() ? "no message in the window, or the file could not be completed" : "");
}

void BagRecordTrigger::set_trigger_key(const std::string& key) { trigger_api_->SetKey(TriggerKey(key)); }

BagRecordTrigger::~BagRecordTrigger() {
  delete trigger_api_;
  delete space_manager_;
}

void BagRecordTrigger::save_message(const Message& msg) {
  writer_->append_message(msg.time, msg.record_time, msg.topic, msg.data, msg.type);
}

void BagRecordTrigger::set_on_report(std::function<void(const std::string& line)> on_report) {
  std::lock_guard<std::mutex> hold(report_mutex_);
  on_report_.swap(on_report);
}

void BagRecordTrigger::Report(const std::string& line) {
  std::function<void(const std::string&)> on_report;
  {
    std::lock_guard<std::mutex> hold(report_mutex_);
    on_report = on_report_;
  }
  if (on_report) {
    on_report(line);
  } else {
    std::cout << line << std::endl;
  }
}

}  // namespace kelo
