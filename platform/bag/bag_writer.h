#ifndef KELO_PLATFORM_BAG_BAG_WRITER_H_
#define KELO_PLATFORM_BAG_BAG_WRITER_H_

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/bag/bag_channel_table.h"
#include "platform/bag/bag_error_log.h"
#include "platform/bag/bag_file_name.h"
#include "platform/bag/bag_loss_ledger.h"
#include "platform/bag/bag_writer_options.h"
#include "platform/fileio/file_path.h"

namespace kelo {

class BagFileWriter;

// Records messages into bag files (MCAP files named ".kelobag"), split into parts on
// request. A file is written as "<name>.active" and renamed to "<name>" once complete, so
// a completed name always holds a whole bag. Existing files are never replaced.
//
//   BagWriter writer(fileio::FilePath("rec/bag_20240305140709.kelobag.active"));
//   writer.open("0");                                   // rec/bag_20240305140709_0.kelobag.active
//   writer.append_message(time_ms, record_time_ms, "/imu", payload, "kelo.Imu");
//   std::string part0 = writer.save_file("1");          // rec/bag_20240305140709_0.kelobag
//   std::string part1 = writer.close();                 // rec/bag_20240305140709_1.kelobag
//
// Nothing throws, and no call waits for the file system except when the disk falls behind
// the messages (append_message then waits for room) and close(). A file is created by a
// thread of its own as it begins, and completed (summary, sync, rename) by another.
// I/O errors (disk full, directory removed) and messages that cannot be stored (negative
// times) are reported on stderr once per episode; writing resumes as soon as it can, and
// completed files are never touched again. Every message that does not reach a file is
// counted in losses().
//
// Every member may be called from any thread; append_topic() never waits for a call of
// another member, so a new topic can always be declared, however slow the disk.
class BagWriter {
 public:
  // `path` is the active name of the recording, "<dir>/<base>.kelobag.active"; part files
  // are named after it. Nothing is created before the first message. Without options, the
  // writer takes DefaultBagWriterOptions().
  explicit BagWriter(const fileio::FilePath& path);
  BagWriter(const fileio::FilePath& path, const BagWriterOptions& options);

  // Completes the current file, as close() does.
  virtual ~BagWriter();

  BagWriter(const BagWriter&) = delete;
  BagWriter& operator=(const BagWriter&) = delete;

  // Begins part `index` of the recording: "<base>_<index>.kelobag.active", or
  // "<base>.kelobag.active" for "". A file already open is completed first. The file is
  // created with the part's first message, so a writer that never gets one leaves nothing
  // behind; creation problems are reported then. Returns true.
  virtual bool open(const std::string& index);

  // Declares a topic with its type. The topic appears in every file written from now on,
  // with or without messages.
  virtual void append_topic(const std::string& name, const std::string& type);

  // Appends a message; times are milliseconds and must not be negative. A message whose
  // type differs from its topic's earlier type is kept with its own type. When no file is
  // open (before open(), after close()), a new one is begun for the last part index, so
  // that messages of a restarted recording are never lost.
  virtual void append_message(long time, long record_time, const std::string& topic, const std::string& data,
                              const std::string& type);

  // Hands the current file over to be completed (summary written, synced to disk, renamed
  // without ".active") on a thread of the writer's own, and begins part `index` as open()
  // does; the caller does not wait for the completion. Returns the name the completed file
  // gets, or "" when no file was open. A file that then cannot be completed is reported on
  // stderr and stays behind as ".active", readable as unfinished (see incomplete_files()).
  // Subclasses may give it another meaning (the trigger writer writes a file of its cached
  // messages instead).
  virtual std::string save_file(const std::string& index);

  // Completes the current file and every file handed over before, and returns the current
  // file's name ("" when none was open or it could not be completed). Messages that arrive
  // afterwards begin a new file.
  virtual std::string close();

  // The name of the file being written, or "" when none is open.
  std::string active_file() const;

  // Where the recording's lost messages are counted, per topic and reason. Belongs to the
  // writer; others that lose messages of this recording (the recorder's queue) count there
  // too, and each completed file stores what was counted while it was written.
  BagLossLedger* losses() { return &ledger_; }

  // What fails now, one line per kind of problem ("disk full: ..."), "" while all is well.
  std::string problems() const { return log_.problems(); }

  // The files that could not be completed and stay behind as ".active", oldest first.
  std::vector<std::string> incomplete_files() const;

 protected:
  // For subclasses that write files of their own from the same machinery: a writer for a
  // new file named like part `part`, with this writer's options, its error log, its ledger
  // and every channel declared so far. The caller completes it with Complete().
  std::unique_ptr<BagFileWriter> create_file(const std::string& part);

  // The channel of (topic, type), created when new. Null when the bag has no more channel
  // ids (reported on stderr).
  BagChannel* channel(const std::string& topic, const std::string& type);

  // Whether a message's times can be stored; when not, it is reported and counted lost.
  bool CheckTimes(long time, long record_time, const std::string& topic);

  const fileio::FilePath& path() const { return path_; }
  const BagWriterOptions& options() const { return options_; }
  BagErrorLog* error_log() { return &log_; }

 private:
  BagChannel* ChannelLocked(const std::string& topic, const std::string& type);
  std::unique_ptr<BagFileWriter> CreateFileLocked(const std::string& part);
  // Completes `file`, noting it when it stays unfinished.
  std::string CompleteFile(std::unique_ptr<BagFileWriter> file);
  void CompleteInBackground(std::unique_ptr<BagFileWriter> file, const std::string& announced);
  void WaitForBackground();
  void RunCompleter();
  std::string CloseFile();

  const fileio::FilePath path_;
  const BagWriterOptions options_;
  BagErrorLog log_;
  BagLossLedger ledger_;

  // Serialises what writes and swaps files: append_message, open, save_file and close.
  std::mutex write_mu_;
  // Guards the members below; held only briefly, never while waiting for the disk.
  mutable std::mutex mu_;
  BagChannelTable channels_;
  std::unique_ptr<BagFileWriter> file_;
  std::string part_;
  bool time_failing_ = false;
  std::vector<std::string> incomplete_;

  // Files handed over by save_file(), completed in order on completer_.
  std::condition_variable completer_cv_;
  std::deque<std::pair<std::unique_ptr<BagFileWriter>, std::string>> to_complete_;
  bool completing_ = false;  // the completer is busy with a file taken from the queue
  bool completer_stop_ = false;
  std::thread completer_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_WRITER_H_
