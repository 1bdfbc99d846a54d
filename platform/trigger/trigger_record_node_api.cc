#include "platform/trigger/trigger_record_node_api.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/trigger/trigger_node_registry.h"
#include "platform/trigger/trigger_notice.h"
#include "platform/trigger/trigger_protocol.h"
#include "platform/udp/udp_cast_manager.h"

namespace kelo {

namespace {

// A node that falls this far behind (triggers far in the future, or a callback that never
// returns) turns further triggers away rather than grow without bound.
constexpr size_t kMaxPendingNotices = 1024;
// Waits are cut into slices so that a wall clock set forward is noticed soon.
constexpr long kMaxWaitSliceMs = 1000;

long WallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string Absolute(const std::string& file) {
  if (file.empty() || file[0] == '/') return file;
  std::string cwd(4096, '\0');
  if (getcwd(&cwd[0], cwd.size()) == nullptr) return file;
  cwd.resize(cwd.find('\0'));
  return cwd + "/" + file;
}

std::atomic<uint32_t> next_instance{1};

}  // namespace

class TriggerRecordNodeApi::Node : public TriggerNodeRegistry::Listener {
 public:
  Node(const std::string& name, const std::string& node_name, const std::string& directory,
       unsigned int duration)
      : name_(name),
        node_name_(node_name),
        directory_(directory),
        duration_ms_(static_cast<long>(duration) * 1000),
        instance_(next_instance++),
        server_(UdpCastManager::GetCastServer(trigger_protocol::kGroup, trigger_protocol::kPort)),
        registry_(TriggerNodeRegistry::ForServer(server_)) {
    thread_ = std::thread([this] { Run(); });
    registry_->Add(this);
  }

  ~Node() override {
    registry_->Remove(this);
    {
      std::lock_guard<std::mutex> lock(mu_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
    // Whoever waits for these would otherwise wait until its timeout.
    for (auto& entry : pending_) SendDone(&entry.second, "");
  }

  void OnTrigger(const std::string& peer, int port, const UdpMessage& event,
                 const trigger_protocol::TriggerEvent& trigger) override {
    TriggerNotice notice;
    notice.time_ms = trigger.time_ms;
    notice.label = trigger.label;
    Pending p;
    p.notice = notice.ToText();
    p.peer = peer;
    p.port = port;
    p.reply = event.create_recv(trigger_protocol::kTriggerDoneKey);
    const long due_ms = trigger.time_ms + duration_ms_;
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (stop_) return;
      if (pending_.size() >= kMaxPendingNotices) {
        if (!overflow_reported_) {
          std::fprintf(stderr, "trigger: node %s has %zu notices pending; turning away trigger \"%s\"\n",
                       node_name_.c_str(), pending_.size(), p.notice.c_str());
          overflow_reported_ = true;
        }
        SendDone(&p, "");
        return;
      }
      overflow_reported_ = false;
      UdpMessage ack = event.create_recv(trigger_protocol::kTriggerAckKey);
      trigger_protocol::Encode(trigger_protocol::TriggerAck{name_, node_name_, instance_, due_ms, directory_},
                               &ack);
      server_->send_data(peer, port, ack);
      pending_.emplace(std::make_pair(due_ms, next_sequence_++), std::move(p));
    }
    wake_.notify_all();
  }

  void SetCallback(std::function<void(const std::string&)> callback) {
    std::lock_guard<std::mutex> lock(mu_);
    callback_.swap(callback);
  }

  void ReportSaved(const std::string& notice, const std::string& file) {
    const std::string absolute = Absolute(file);
    std::lock_guard<std::mutex> lock(mu_);
    if (in_notice_ && notice == current_notice_) reported_file_ = absolute;
  }

 private:
  struct Pending {
    std::string notice;
    std::string peer;
    int port = 0;
    UdpMessage reply;  // the final reply, already addressed as an answer to the event
  };

  void Run() {
    pthread_setname_np(pthread_self(), "trigger_notice");
    std::unique_lock<std::mutex> lock(mu_);
    while (!stop_) {
      if (pending_.empty()) {
        wake_.wait(lock);
        continue;
      }
      const long wait_ms = pending_.begin()->first.first - WallClockMs();
      if (wait_ms > 0) {
        wake_.wait_for(lock, std::chrono::milliseconds(std::min(wait_ms, kMaxWaitSliceMs)));
        continue;
      }
      Pending p = std::move(pending_.begin()->second);
      pending_.erase(pending_.begin());
      in_notice_ = true;
      current_notice_ = p.notice;
      reported_file_.clear();
      std::function<void(const std::string&)> callback = callback_;
      lock.unlock();
      Notify(callback, p.notice);
      callback = nullptr;  // whatever it holds is released outside the lock
      lock.lock();
      in_notice_ = false;
      const std::string file = reported_file_;
      lock.unlock();
      SendDone(&p, file);
      lock.lock();
    }
  }

  void Notify(const std::function<void(const std::string&)>& callback, const std::string& notice) {
    if (!callback) return;
    try {
      callback(notice);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "trigger: the notice callback of node %s failed on \"%s\": %s\n",
                   node_name_.c_str(), notice.c_str(), e.what());
    } catch (...) {
      std::fprintf(stderr, "trigger: the notice callback of node %s failed on \"%s\"\n", node_name_.c_str(),
                   notice.c_str());
    }
  }

  void SendDone(Pending* p, const std::string& file) {
    trigger_protocol::Encode(trigger_protocol::TriggerDone{name_, node_name_, instance_, file}, &p->reply);
    server_->send_data(p->peer, p->port, p->reply);
  }

  const std::string name_;
  const std::string node_name_;
  const std::string directory_;
  const long duration_ms_;
  const uint32_t instance_;
  UdpCastServer* const server_;
  TriggerNodeRegistry* const registry_;

  std::mutex mu_;  // guards the members below
  std::condition_variable wake_;
  std::map<std::pair<long, uint64_t>, Pending> pending_;  // (due_ms, arrival) -> notice
  uint64_t next_sequence_ = 0;
  bool stop_ = false;
  bool overflow_reported_ = false;
  std::function<void(const std::string&)> callback_;
  bool in_notice_ = false;
  std::string current_notice_;
  std::string reported_file_;

  std::thread thread_;
};

TriggerRecordNodeApi::TriggerRecordNodeApi(const std::string& name, const std::string& node_name,
                                           const fileio::DirectoryPath& directory, unsigned int duration)
    : node_(new Node(name, node_name, directory.GetPath(), duration)) {}

TriggerRecordNodeApi::~TriggerRecordNodeApi() = default;

void TriggerRecordNodeApi::SetNotifyCallback(std::function<void(const std::string&)> callback) {
  node_->SetCallback(std::move(callback));
}

void TriggerRecordNodeApi::ReportSaved(const std::string& notice, const std::string& file) {
  node_->ReportSaved(notice, file);
}

}  // namespace kelo
