#ifndef KELO_RECORD_BAG_RECORD_WRITER_H_
#define KELO_RECORD_BAG_RECORD_WRITER_H_

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kelo {

class BagLossLedger;
class BagRecordOpt;
class BagWriter;
class FileSpaceManager;
class TriggerRecordNodeApi;
namespace fileio {
class FilePath;
}

// The sink into which the recorder's save thread pours messages. It owns one bag file
// writer; each concrete writer decides what a message does to the file (BagRecordActual
// splits by message time, BagRecordTrigger saves windows around trigger events), and every
// completed file is reported to the on-save callback.
//
//   BagRecordActual writer(opt, fileio::FilePath(opt.output));
//   writer.set_on_save([](const std::string& done) { ... });
//   writer.save_message(message);   // save thread only
//   writer.close();
class BagRecordWriter {
 public:
  // One queued message. Times are milliseconds: `time` is the message's own stamp (the split
  // rule runs on it), `record_time` the wall-clock time at which the recorder accepted it.
  struct Message {
    long time = 0;
    long record_time = 0;
    std::string topic;
    std::string type;
    std::string data;
  };

  BagRecordWriter();
  // Deletes the bag file writer without completing its file (call close() for that).
  virtual ~BagRecordWriter();

  BagRecordWriter(const BagRecordWriter&) = delete;
  BagRecordWriter& operator=(const BagRecordWriter&) = delete;

  // Installs the callback that receives the name of each completed file (not of the file
  // completed by close()). It runs on the thread that completed the file. May be called
  // from any thread, also while files are being completed.
  void set_on_save(std::function<void(const std::string&)> on_save);

  // Declares a topic to the bag file. May be called from any thread, also while
  // save_message runs on another.
  void append_topic(const std::string& name, const std::string& type);

  // Writes one message. Only from one thread at a time (the recorder's save thread).
  virtual void save_message(const Message& msg) = 0;

  // Completes the current file without reporting it to the on-save callback.
  void close();

  // From now on, every completed file also prints "save time: <ms>ms" on standard output.
  // There is no way back. May be called from any thread.
  void debug_save_time();

  // Where the recording's lost messages are counted, per topic and reason; the recorder
  // counts its own there too. Belongs to the writer. May be called from any thread.
  BagLossLedger* losses();

  // The file being written now ("" between files), what fails now ("" while all is well),
  // and the files that could not be completed. May be called from any thread.
  std::string active_file() const;
  std::string problems() const;
  std::vector<std::string> incomplete_files() const;

 protected:
  // Completes the current file through the bag writer's save_file(name); when that returns
  // a file name, prints the time it took (when asked to) and reports the name. Returns the
  // completed file's name, "" when none was completed.
  std::string save(const std::string& name);

  // Created by the concrete writer's constructor; owned.
  BagWriter* writer_;

 private:
  // Read on the thread that completes a file (the trigger service's, in trigger mode) while
  // the embedding tool may set them: guarded.
  std::mutex on_save_mutex_;
  std::function<void(const std::string&)> on_save_;
  std::atomic<bool> debug_save_time_;
};

// Continuous recording: every message goes into the current file at once, and when a split
// period is set, the file is completed and the next part begun as soon as message time has
// moved more than the period past the first message of the part. A split size works the
// same way: a part ends before the message that would take its payloads past that size.
class BagRecordActual : public BagRecordWriter {
 public:
  // Opens the first file at `path`: part "0" when opt.split_time or opt.split_size >= 1,
  // otherwise a single file with no part index.
  BagRecordActual(const BagRecordOpt& opt, const fileio::FilePath& path);
  ~BagRecordActual() override;

  // Splits when split_time >= 1 and time − start of part > split_time × 1000 (strictly), so
  // the message that splits is the first of the new part; time going backwards never splits.
  void save_message(const Message& msg) override;

 private:
  const long split_time_;
  const long split_size_;
  long split_start_time_;  // time of the part's first message; 0 before any message
  uint64_t part_bytes_;    // payload bytes in the current part
  int split_index_;        // parts completed so far
};

// Trigger recording: messages stay in a bounded cache (BagCacheWriter), and each trigger
// event that reaches this node through the trigger service completes a file holding the
// window around the trigger. Before each such file, the folder is brought within its budget
// (opt.folder_size; 0 = no limit) unless opt.nospacelimit is set or the path is not usable.
//
//   BagRecordTrigger writer(opt, fileio::FilePath(opt.output));   // opt after load_opts()
//   writer.set_on_save([](const std::string& saved) { ... });      // before messages arrive
//   writer.save_message(message);                                   // feeding thread
//
// Files are completed on the trigger service's thread while save_message runs on the
// feeding thread.
class BagRecordTrigger : public BagRecordWriter {
 public:
  // Prints "opt.nospacelimit:<0|1>" (twice when the folder budget is managed), then joins
  // the trigger service as node opt.node_name. The node is told to wait duration − reserve
  // seconds after a trigger (0 when reserve >= duration), so that the cache holds the end of
  // the window by then.
  BagRecordTrigger(const BagRecordOpt& opt, const fileio::FilePath& path);
  // Leaves the trigger service first (waiting for a notice being handled), so that no file
  // is completed during destruction.
  ~BagRecordTrigger() override;

  // Caches the message; nothing else.
  void save_message(const Message& msg) override;

  // The keeper of the folder budget, or null when the folder is not managed. It manages
  // only the files this writer saves. Belongs to the writer.
  const FileSpaceManager* space_manager() const { return space_manager_; }

  // Makes `on_report` receive, on the trigger service's thread, one line for each file the
  // folder budget deletes: "deleted <path> (<n> bytes) to keep <dir> within its <m> MB
  // budget", and one when a flood of triggers begins to be turned away. Without one, the
  // lines go to standard output. May be called from any thread.
  void set_on_report(std::function<void(const std::string& line)> on_report);

  // Takes only triggers signed with `key` from now on ("": any). May be called from any thread.
  void set_trigger_key(const std::string& key);

  // At most this many files are saved in any minute; beyond, a trigger saves nothing, so
  // that a flood of triggers never makes the folder budget delete bags.
  static constexpr size_t kMaxSavesPerMinute = 30;

 private:
  void Report(const std::string& line);
  void OnNotice(const std::string& notice);

  FileSpaceManager* space_manager_;    // owned; null when the folder is not managed
  TriggerRecordNodeApi* trigger_api_;  // owned
  std::mutex report_mutex_;
  std::function<void(const std::string&)> on_report_;
  std::deque<std::chrono::steady_clock::time_point> saves_;  // notice thread only
  bool flooded_ = false;                                     // notice thread only
  // The window of the file saved last, and its name: a trigger that happened inside that
  // window is the same event told again (by another sender, or a flood), and gets that file.
  const long reserve_ms_, duration_ms_;
  long last_start_ms_ = 0, last_end_ms_ = -1;  // notice thread only
  std::string last_saved_;                     // notice thread only
};

}  // namespace kelo

#endif  // KELO_RECORD_BAG_RECORD_WRITER_H_
