#ifndef KELO_PLATFORM_BAG_BAG_WRITER_H_
#define KELO_PLATFORM_BAG_BAG_WRITER_H_

#include <memory>
#include <mutex>
#include <string>

#include "platform/bag/bag_channel_table.h"
#include "platform/bag/bag_error_log.h"
#include "platform/bag/bag_file_name.h"
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
// Nothing throws. I/O errors (disk full, directory removed) and messages that cannot be
// stored (negative times) are reported on stderr once per episode; writing resumes as soon
// as it can, and completed files are never touched again.
//
// Every member may be called from any thread: append_topic and save_file may run while
// append_message runs on another thread.
class BagWriter {
 public:
  // `path` is the active name of the recording, "<dir>/<base>.kelobag.active"; part files
  // are named after it. Nothing is created before open() or the first message. Without
  // options, the writer takes DefaultBagWriterOptions().
  explicit BagWriter(const fileio::FilePath& path);
  BagWriter(const fileio::FilePath& path, const BagWriterOptions& options);

  // Completes the current file, as close() does.
  virtual ~BagWriter();

  BagWriter(const BagWriter&) = delete;
  BagWriter& operator=(const BagWriter&) = delete;

  // Begins part `index` of the recording: "<base>_<index>.kelobag.active", or
  // "<base>.kelobag.active" for "". A file already open is completed first. Returns false
  // when the file could not be created now (reported on stderr; it is created as soon as
  // writing works again).
  virtual bool open(const std::string& index);

  // Declares a topic with its type. The topic appears in every file written from now on,
  // with or without messages.
  virtual void append_topic(const std::string& name, const std::string& type);

  // Appends a message; times are milliseconds and must not be negative. A message whose
  // type differs from its topic's earlier type is kept with its own type. When no file is
  // open (before open(), after close()), a new one is begun for the last part index, so
  // that messages of a restarted recording are never lost.
  virtual void append_message(long time, long record_time, const std::string& topic,
                              const std::string& data, const std::string& type);

  // Completes the current file (summary written, synced to disk, renamed without
  // ".active") and begins part `index` as open() does. Returns the completed file's name,
  // or "" when no file was open or it could not be completed (reported on stderr; its data
  // then stays in the ".active" file). Subclasses may give it another meaning (the trigger
  // writer writes a file of its cached messages instead).
  virtual std::string save_file(const std::string& index);

  // Completes the current file and returns its name ("" as for save_file). Messages that
  // arrive afterwards begin a new file.
  virtual std::string close();

  // The name of the file being written, or "" when none is open.
  std::string active_file() const;

 protected:
  // For subclasses that write files of their own from the same machinery: a writer for a
  // new file named like part `part`, with this writer's options, its error log and every
  // channel declared so far. The caller completes it with Complete().
  std::unique_ptr<BagFileWriter> create_file(const std::string& part);

  // The channel of (topic, type), created when new. Holds the lock only while it runs.
  // Null when the bag has no more channel ids.
  BagChannel* channel(const std::string& topic, const std::string& type);

  const fileio::FilePath& path() const { return path_; }
  const BagWriterOptions& options() const { return options_; }
  BagErrorLog* error_log() { return &log_; }

 private:
  BagChannel* ChannelLocked(const std::string& topic, const std::string& type);
  std::unique_ptr<BagFileWriter> CreateFileLocked(const std::string& part);
  std::string CloseFile();

  const fileio::FilePath path_;
  const BagWriterOptions options_;
  BagErrorLog log_;

  std::mutex save_mu_;  // serialises open, save_file and close
  mutable std::mutex mu_;
  BagChannelTable channels_;
  std::unique_ptr<BagFileWriter> file_;
  std::string part_;
  bool time_failing_ = false;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_WRITER_H_
