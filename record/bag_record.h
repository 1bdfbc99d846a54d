#ifndef KELO_RECORD_BAG_RECORD_H_
#define KELO_RECORD_BAG_RECORD_H_

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/bag/bag_loss_ledger.h"
#include "proto/bag_record_monitor.pb.h"
#include "record/bag_record_writer.h"
#include "record/record_monitor_service.h"

namespace kelo {

class BagRecordOpt;
class KeloThreadSpin;
class Output;
class ToolsModuleOutput;
class UdpCastServer;
class UdpMessage;

// The recorder: takes the messages an embedding tool receives, from any number of threads,
// and writes them to bag files on a save thread of its own.
//
//   BagRecord record("car7", "/data/rec/", 60);   // prints "save to file: ..."
//   record.Start();
//   record.AppendMessage(time_ms, "/lidar", "PointCloud", payload);   // any thread
//   record.Stop();                                // completes the last file
//
// Messages wait in a queue of at most kMaxPendingMessages; when the disk falls behind, the
// oldest is dropped and reported. Every message taken ends in a completed file or is counted
// lost, per topic and reason (GetLosses(), the monitor snapshot, and the bag files
// themselves). Every report goes through output(). While it exists, the recorder answers
// "record_monitor" queries on the multicast group 224.0.0.88:2801 with a BagRecordMonitor
// snapshot under "record_monitor_recv", as does every other recorder of the process.
//
// Threads: AppendMessage, GetRecordMonitor, GetLosses and output() may be called from any
// thread, callbacks included. Start, Stop and Drain may be called from any thread too,
// including the save thread (from an on-save callback or an output sink) and the threads
// that call AppendMessage (from an output sink): there Stop only asks the save thread to
// end after the message it writes, Start undoes such a request, and Drain returns false at
// once. The destructor must not run on the save thread or inside any callback of the
// recorder.
class BagRecord {
 public:
  // One received message, as the statistics see it.
  struct MessageInfo {
    double time = 0.0;   // wall-clock receive time, seconds since the epoch (ms resolution)
    uint64_t bytes = 0;  // payload size
  };

  // The newest kHistory receptions of one stream (a topic, or all topics together) and the
  // rates over them. No lock of its own: the owner serialises appends and reads.
  class MessageInfoQueue {
   public:
    static constexpr size_t kHistory = 5000;

    MessageInfoQueue();

    // Adds one reception; the oldest falls out once kHistory are held. Amortised O(1).
    void append(const MessageInfo& info);

    // Messages per second: (held − 1) / span; 0.0 while the span is at most 1e-5 s
    // (one record, records of the same millisecond, or a clock that stepped back).
    double freq() const;
    // Bytes per second over the same span, leaving out the oldest held record's bytes.
    double pre_bytes() const;
    // Bytes of every record ever appended.
    uint64_t total_bytes() const { return total_bytes_; }
    // Receive time of the newest record (seconds since the epoch); 0.0 when empty.
    double last_time() const { return infos_.empty() ? 0.0 : infos_.back().time; }

   private:
    uint64_t total_bytes_;
    uint64_t history_bytes_;
    double time_span_;
    std::deque<MessageInfo> infos_;
  };

  // Statistics of one topic. The details are never filled by the recorder; the monitor
  // reports detail_1 and detail_2 as they are.
  struct TopicInfo {
    std::string detail_0;
    std::string detail_1;
    std::string detail_2;
    int32_t count = 0;  // AppendMessage calls taken while running, empty payloads included
    MessageInfoQueue info_queue;
  };

  static constexpr size_t kMaxPendingMessages = 1000;

  static constexpr char kMonitorGroup[] = "224.0.0.88";
  static constexpr int kMonitorPort = 2801;

  // Completes the node name and the output file name (see BagRecordOpt), prepares the
  // writer, printing "save to file: <name>", and begins answering monitor queries.
  // Nothing is recorded before Start(), and no file is created before the first message.
  // A `split_size` (bytes of messages) also splits, as BagRecordActual says.
  BagRecord(const std::string& node_name, const std::string& output, long split_time, long split_size = 0);
  // Stops answering monitor queries (waiting for one being answered), stops (completing the
  // current file), prints "record exit" and discards messages still queued, saying how many
  // and counting them lost. Waits for AppendMessage calls in progress on other threads.
  ~BagRecord();

  BagRecord(const BagRecord&) = delete;
  BagRecord& operator=(const BagRecord&) = delete;

  // Starts the save thread "bag_rec_save" and returns once it runs; does nothing while
  // running. Resets the drop count and the recording start time. Start/Stop may be called
  // from any thread; they are serialised.
  void Start();
  // Stops the save thread after the message it is writing and completes the current file;
  // the rest of the batch being written is discarded (and counted lost), messages still
  // queued stay for a later Start(). Does nothing when not running. Called from the save
  // thread itself (from an on-save callback), it only asks the thread to stop.
  void Stop();

  // Discards the messages still queued (normally none after Drain()), counting them lost
  // (shutdown) per topic, and returns how many there were. Meant for after Stop(); while
  // running, the save thread may be faster.
  size_t DiscardQueued();

  // Waits until every message taken so far has been handed to the writer (the queue is empty
  // and no batch is being written), at most `timeout_ms`; returns whether it got there. A
  // tool calls it after it stopped feeding and before Stop(), so that nothing it received
  // is discarded. May be called from any thread but the save thread.
  bool Drain(int timeout_ms);

  // Takes one received message; `time` is its own stamp in milliseconds. Ignored unless
  // running. The first message of a topic declares the topic (with this message's type) to
  // the bag file. An empty payload is reported and counted, as lost, but not written. May be
  // called from any number of threads at once; never waits for the disk, nor for a lock
  // that is held while the disk is waited for.
  void AppendMessage(long time, const std::string& topic, const std::string& type, const std::string& data);
  // The same, taking over `data` instead of copying it: a receive thread that made the
  // payload for this call copies a large message once, not twice.
  void AppendMessage(long time, const std::string& topic, const std::string& type, std::string&& data);

  // A snapshot of the recording: names, time since the last Start(), queue length, drops,
  // rates and totals for all topics and for each topic in ascending name order, losses, the
  // file being written and what fails. It belongs to the caller. May be called from any
  // thread at any time.
  std::shared_ptr<tools::interactive::BagRecordMonitor> GetRecordMonitor();

  // The messages lost so far, per topic and reason.
  BagLosses GetLosses() const;

  // The files that could not be completed and stay behind as ".active" (readable as
  // unfinished), oldest first.
  std::vector<std::string> GetIncompleteFiles() const;

  // Answers a monitor query: sends GetRecordMonitor(), serialised, under
  // "record_monitor_recv" to `peer`:`port`. Called on the multicast server's thread.
  void RecordMonitor(const std::string& peer, int port, UdpMessage& message);

  // The channel every report goes through; install sinks here. Belongs to the recorder.
  ToolsModuleOutput* output();

  // The settings in use (node name and file name completed). Belongs to the recorder.
  const BagRecordOpt& options() const { return *opt_; }

 private:
  BagRecordWriter* CreateWriter();
  void SaveMessage();
  void SaveThreadMain();
  bool OnSaveThread() const { return std::this_thread::get_id() == save_thread_id_.load(); }

  BagRecordOpt* opt_;
  UdpCastServer* cast_server_;  // shared, never freed by the recorder
  BagRecordWriter* writer_;
  Output* output_;
  std::deque<BagRecordWriter::Message>* messages_;
  std::atomic<bool> running_;
  std::set<std::string> registered_topics_;
  std::atomic<int64_t> start_time_;  // ms of the last Start(); 0 before the first
  std::atomic<int32_t> drop_count_;  // messages dropped since the last Start()
  std::thread save_thread_;
  std::map<std::string, TopicInfo> topic_infos_;
  MessageInfoQueue total_info_;
  KeloThreadSpin* queue_lock_;  // messages_
  KeloThreadSpin* info_lock_;   // topic_infos_, total_info_

  // Mirrors messages_->size(), for readers that must not take queue_lock_.
  std::atomic<size_t> pending_count_;
  // True from the moment the save thread takes a batch until it is done with it.
  std::atomic<bool> saving_batch_;
  // The idle save thread waits here; intake wakes it when the queue reaches kWakeEarly.
  static constexpr size_t kWakeEarly = kMaxPendingMessages / 2;
  std::mutex idle_mutex_;
  std::condition_variable idle_wake_;
  // registered_topics_, held across the declaration to the writer so that a topic is
  // declared once and before any of its messages can reach the writer.
  std::mutex topics_mutex_;
  // Serialises Start, Stop and destruction.
  std::mutex lifecycle_mutex_;
  // Start() waits here for the save thread to report that it runs.
  std::mutex started_mutex_;
  std::condition_variable started_;
  bool save_thread_started_;
  std::atomic<std::thread::id> save_thread_id_;
  // AppendMessage calls in progress; destruction waits for them.
  std::atomic<int> appends_in_flight_;
  // Save thread only: the save loop has ended and the thread is closing the writer; a
  // Start() from a callback then asks for another round (restart_).
  bool in_tail_;
  bool restart_;
  // A Stop() from another thread: the save thread must end, whatever its callbacks ask.
  std::atomic<bool> stop_for_good_;
  RecordMonitorService::Registration monitor_;
};

// For everything that answers monitor queries (a recorder, or a tool recording in trigger
// mode): the rates and totals of `queue` as read at `now_s` (seconds since the epoch), and
// the losses with each topic's share.
void FillMonitorRates(const BagRecord::MessageInfoQueue& queue, double now_s,
                      tools::interactive::BagRecordMessageInfo* info);
void FillMonitorLosses(const BagLosses& losses, tools::interactive::BagRecordMonitor* monitor);

}  // namespace kelo

#endif  // KELO_RECORD_BAG_RECORD_H_
