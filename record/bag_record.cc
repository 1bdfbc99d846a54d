#include "record/bag_record.h"

#include <pthread.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "output/tools_module_output.h"
#include "platform/fileio/file_path.h"
#include "platform/thread/kelo_thread_locker.h"
#include "platform/thread/kelo_thread_spin.h"
#include "platform/udp/udp_cast_manager.h"
#include "platform/udp/udp_cast_server.h"
#include "platform/udp/udp_message.h"
#include "record/bag_record_options.h"
#include "record/wall_clock.h"

namespace kelo {

namespace {

// The counters are 32-bit and wrap like the unsigned arithmetic underneath, never
// overflowing into undefined behaviour.
int32_t WrappingIncrement(int32_t value) { return static_cast<int32_t>(static_cast<uint32_t>(value) + 1u); }

constexpr auto kIdleSleep = std::chrono::milliseconds(10);

// Greeting texts of the monitor protocol's peers; a recorder answers queries without any
// greeting, so they are not sent.
[[maybe_unused]] const char FIND_ME[] = "WHOIS";
[[maybe_unused]] const char SAY_HI[] = "IAM";

}  // namespace

void FillMonitorLosses(const BagLosses& losses, tools::interactive::BagRecordMonitor* monitor) {
  monitor->set_lost_count(losses.total());
  for (const auto& [topic, counts] : losses.by_topic()) {
    for (int i = 0; i < kBagLossReasons; ++i) {
      if (counts[i] == 0) continue;
      tools::interactive::BagRecordLoss* loss = monitor->add_losses();
      loss->set_topic_name(topic);
      loss->set_reason(BagLossReasonName(static_cast<BagLossReason>(i)));
      loss->set_count(counts[i]);
    }
  }
  for (tools::interactive::BagRecordTopicInfo& topic : *monitor->mutable_topic_info()) {
    topic.set_lost_count(losses.topic_total(topic.topic_name()));
  }
}

constexpr char BagRecord::kMonitorGroup[];
constexpr int BagRecord::kMonitorPort;

BagRecord::BagRecord(const std::string& node_name, const std::string& output, long split_time, long split_size)
    : opt_(new BagRecordOpt()),
      cast_server_(UdpCastManager::GetCastServer(kMonitorGroup, kMonitorPort)),
      writer_(nullptr),
      output_(new Output()),
      messages_(new std::deque<BagRecordWriter::Message>()),
      running_(false),
      start_time_(0),
      drop_count_(0),
      queue_lock_(new KeloThreadSpin()),
      info_lock_(new KeloThreadSpin()),
      pending_count_(0),
      saving_batch_(false),
      save_thread_started_(false),
      save_thread_id_(std::thread::id()),
      appends_in_flight_(0),
      in_tail_(false),
      restart_(false),
      stop_for_good_(false) {
  opt_->node_name = node_name;
  opt_->output = output;
  opt_->split_time = split_time;
  opt_->split_size = split_size;
  opt_->update_node_name();
  opt_->update_file_name();
  writer_ = CreateWriter();
  // Registers the server's "record_monitor" callback, which answers for every recording of
  // the process; the registration ends with the recorder, so no query reaches it after.
  monitor_ = RecordMonitorService::Register(cast_server_, [this] { return GetRecordMonitor(); });
}

BagRecord::~BagRecord() {
  monitor_ = RecordMonitorService::Registration();
  Stop();
  while (appends_in_flight_.load() != 0) std::this_thread::yield();
  const size_t discarded = DiscardQueued();
  if (discarded > 0) output_->print_format("discarding %zu queued messages\n", discarded);
  output_->print_messagel("record exit", true);
  delete opt_;
  delete writer_;
  delete output_;
  delete messages_;
  delete info_lock_;
  delete queue_lock_;
}

ToolsModuleOutput* BagRecord::output() { return output_; }

std::shared_ptr<tools::interactive::BagRecordMonitor> BagRecord::GetRecordMonitor() {
  const int64_t now_ms = WallClockMs();
  auto monitor = std::make_shared<tools::interactive::BagRecordMonitor>();
  monitor->set_node_name(opt_->node_name);
  monitor->set_file_name(opt_->output);
  monitor->set_record_time(static_cast<double>(now_ms - start_time_.load()) * 0.001);
  monitor->set_queue_size(static_cast<int32_t>(pending_count_.load(std::memory_order_relaxed)));
  monitor->set_drop_count(drop_count_.load(std::memory_order_relaxed));
  {
    // The rates are O(1) reads of the histories, so they are taken under the statistics
    // lock instead of copying up to 5000 records per topic.
    KeloThreadLocker hold(info_lock_);
    FillMonitorRates(total_info_, now_ms * 0.001, monitor->mutable_message_info());
    for (const auto& [name, info] : topic_infos_) {
      tools::interactive::BagRecordTopicInfo* topic = monitor->add_topic_info();
      topic->set_topic_name(name);
      topic->set_detail_1(info.detail_1);
      topic->set_detail_2(info.detail_2);
      topic->set_message_count(info.count);
      FillMonitorRates(info.info_queue, now_ms * 0.001, topic->mutable_message_info());
    }
  }
  FillMonitorLosses(GetLosses(), monitor.get());
  monitor->set_current_file(writer_->active_file());
  monitor->set_problems(writer_->problems());
  monitor->set_mode("continuous");
  return monitor;
}

BagLosses BagRecord::GetLosses() const { return writer_->losses()->Total(); }

std::vector<std::string> BagRecord::GetIncompleteFiles() const { return writer_->incomplete_files(); }

void BagRecord::RecordMonitor(const std::string& peer, int port, UdpMessage& message) {
  RecordMonitorService::Reply(cast_server_, peer, port, message, *GetRecordMonitor());
}

BagRecordWriter* BagRecord::CreateWriter() {
  output_->print_format("save to file: %s\n", opt_->output.c_str());
  fileio::FilePath path(opt_->output);
  BagRecordWriter* writer = new BagRecordActual(*opt_, path);
  std::string text = "split bag";
  writer->set_on_save([text, this](const std::string& file) {
    output_->print_format("%s: %s\n", text.c_str(), file.c_str());
  });
  return writer;
}

void BagRecord::Start() {
  if (OnSaveThread()) {
    // A callback of the save thread takes back a stop it asked for, unless the recorder is
    // being stopped from outside. The thread cannot start itself anew: it goes on instead,
    // or, when its loop has already ended, begins another round after closing the writer.
    if (running_ || stop_for_good_) return;
    start_time_ = WallClockMs();
    drop_count_ = 0;
    if (in_tail_) {
      restart_ = true;
    } else {
      running_ = true;
    }
    return;
  }
  std::lock_guard<std::mutex> lifecycle(lifecycle_mutex_);
  if (running_) return;
  stop_for_good_ = false;
  start_time_ = WallClockMs();
  drop_count_ = 0;
  // A save thread stopped from inside itself has ended (or is ending) on its own.
  if (save_thread_.joinable()) save_thread_.join();
  save_thread_ = std::thread(&BagRecord::SaveThreadMain, this);
  std::unique_lock<std::mutex> wait(started_mutex_);
  started_.wait(wait, [this] { return save_thread_started_; });
  save_thread_started_ = false;
}

void BagRecord::Stop() {
  if (OnSaveThread()) {
    running_ = false;  // the save thread cannot join itself; it ends after this message
    restart_ = false;
    return;
  }
  std::lock_guard<std::mutex> lifecycle(lifecycle_mutex_);
  {
    std::lock_guard<std::mutex> hold(idle_mutex_);
    stop_for_good_ = true;
    running_ = false;
  }
  idle_wake_.notify_one();
  // Also reaps a save thread that was stopped from inside itself.
  if (save_thread_.joinable()) save_thread_.join();
}

void BagRecord::SaveThreadMain() {
  save_thread_id_ = std::this_thread::get_id();
  // Named before Start() returns, so that whoever started it finds it by its name.
  pthread_setname_np(pthread_self(), (std::string("bag_rec_") + "save").c_str());
  {
    std::lock_guard<std::mutex> hold(started_mutex_);
    running_ = true;
    save_thread_started_ = true;
  }
  started_.notify_all();
  // The idle sleep bounds intake: the queue holds 1000 messages, so at 95,000 per second a
  // 10 ms sleep may overshoot by half a millisecond at most. Ask for precise wake-ups.
  prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
  output_->print_messagel("save thread running", true);
  for (;;) {
    SaveMessage();
    in_tail_ = true;
    writer_->close();
    output_->print_messagel("save thread exit", true);
    in_tail_ = false;
    if (!restart_ || stop_for_good_) break;
    restart_ = false;
    running_ = true;
    output_->print_messagel("save thread running", true);
  }
  save_thread_id_ = std::thread::id();
}

void BagRecord::SaveMessage() {
  while (running_) {
    if (pending_count_.load(std::memory_order_relaxed) == 0) {
      // Idle: one wake-up per 10 ms, or sooner when the queue fills up half way, so that a
      // burst (or a sleep made late by the scheduler) does not overflow it.
      std::unique_lock<std::mutex> wait(idle_mutex_);
      idle_wake_.wait_for(wait, kIdleSleep,
                          [this] { return !running_ || pending_count_.load() >= kWakeEarly; });
      continue;
    }
    std::deque<BagRecordWriter::Message> batch;
    {
      KeloThreadLocker hold(queue_lock_);
      saving_batch_ = true;  // before the queue looks empty, for Drain()
      messages_->swap(batch);
      pending_count_.store(0);
    }
    while (!batch.empty()) {
      if (!running_) break;
      writer_->save_message(batch.front());
      batch.pop_front();
    }
    for (const BagRecordWriter::Message& message : batch) {
      writer_->losses()->Add(message.topic, BagLossReason::kShutdown);
    }
    saving_batch_ = false;
  }
}

size_t BagRecord::DiscardQueued() {
  std::deque<BagRecordWriter::Message> discarded;
  {
    KeloThreadLocker hold(queue_lock_);
    messages_->swap(discarded);
    pending_count_.store(0);
  }
  for (const BagRecordWriter::Message& message : discarded) {
    writer_->losses()->Add(message.topic, BagLossReason::kShutdown);
  }
  return discarded.size();
}

bool BagRecord::Drain(int timeout_ms) {
  if (OnSaveThread()) return false;  // it would wait for itself
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (pending_count_.load() != 0 || saving_batch_.load()) {
    if (!running_ || std::chrono::steady_clock::now() >= deadline) return false;
    usleep(1000);
  }
  return true;
}

void BagRecord::AppendMessage(long time, const std::string& topic, const std::string& type,
                              const std::string& data) {
  AppendMessage(time, topic, type, std::string(data));
}

void BagRecord::AppendMessage(long time, const std::string& topic, const std::string& type, std::string&& data) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  appends_in_flight_.fetch_add(1);
  struct InFlight {
    std::atomic<int>* count;
    ~InFlight() { count->fetch_sub(1); }
  } in_flight{&appends_in_flight_};

  if (!running_) return;

  {
    std::lock_guard<std::mutex> hold(topics_mutex_);
    if (registered_topics_.insert(topic).second) writer_->append_topic(topic, type);
  }

  const int64_t record_ms = ToMs(now);
  const size_t bytes = data.size();  // `data` is moved into the queue
  if (data.empty()) {
    writer_->losses()->Add(topic, BagLossReason::kEmpty);
    output_->print_format("error message data. topic name: %s\n", topic.c_str());
  } else {
    BagRecordWriter::Message message;
    message.time = time;
    message.record_time = record_ms;
    message.topic = topic;
    message.type = type;
    message.data = std::move(data);
    size_t pending_count = 0;
    std::string dropped_topic;
    int32_t dropped = 0;
    bool did_drop = false;
    if (running_) {
      KeloThreadLocker hold(queue_lock_);
      messages_->push_back(std::move(message));
      // One message in, so at most one out.
      if (messages_->size() > kMaxPendingMessages) {
        dropped_topic = std::move(messages_->front().topic);
        messages_->pop_front();
        did_drop = true;
        dropped = WrappingIncrement(drop_count_.load(std::memory_order_relaxed));
        drop_count_.store(dropped, std::memory_order_relaxed);
      }
      pending_count = messages_->size();
      pending_count_.store(pending_count, std::memory_order_relaxed);
    }
    if (did_drop) {
      // Reported outside the queue lock: a sink may call back into the recorder.
      writer_->losses()->Add(dropped_topic, BagLossReason::kQueueFull);
      output_->print_format("AppendMessage buffer exceeded and dropping oldest queued message. count = %3d\n",
                            dropped);
    }
    if (pending_count == kWakeEarly) {
      // The save thread checks the count under idle_mutex_; taking it here means the
      // wake-up cannot fall between its check and its wait.
      std::lock_guard<std::mutex> hold(idle_mutex_);
      idle_wake_.notify_one();
    }
  }

  MessageInfo info;
  info.time = record_ms * 0.001;
  info.bytes = bytes;
  KeloThreadLocker hold(info_lock_);
  TopicInfo& topic_info = topic_infos_[topic];
  topic_info.count = WrappingIncrement(topic_info.count);
  topic_info.info_queue.append(info);
  total_info_.append(info);
}

}  // namespace kelo
