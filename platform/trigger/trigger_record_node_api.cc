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
#include <vector>

#include "platform/trigger/trigger_key.h"
#include "platform/trigger/trigger_node_registry.h"
#include "platform/trigger/trigger_notice.h"
#include "platform/trigger/trigger_protocol.h"
#include "platform/udp/udp_cast_manager.h"

namespace kelo {

namespace {

// A node that falls this far behind (a callback that never returns) turns further triggers
// away rather than grow without bound.
constexpr size_t kMaxPendingNotices = 1024;
// No sender may hold more than this many of them, so none can fill the queue.
constexpr int kMaxPendingPerSender = 16;
// Each sender may send this many triggers in a burst, and this many a second after it.
constexpr double kSenderBurst = 10;
constexpr double kSenderPerSecond = 5;
// A trigger dated further ahead of this node's clock than this is refused: clocks of one
// site agree better, and such a trigger would hold a place in the queue for long.
constexpr long kMaxAheadMs = 10000;
// How long, and how many, notices done are remembered, so that the same trigger sent again
// later (a retry, a replay) is answered with what was saved rather than saved twice.
constexpr auto kRememberDone = std::chrono::minutes(5);
constexpr size_t kMaxRemembered = 1024;
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
  struct Replier {
    std::string peer;
    int port = 0;
    UdpMessage reply;  // the final reply, already addressed as an answer to the event
  };

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
    for (auto& entry : pending_) SendDone(&entry.second, "", "the node is going away");
  }

  void OnTrigger(const std::string& peer, int port, const UdpMessage& event,
                 const trigger_protocol::TriggerEvent& trigger) override {
    TriggerNotice notice;
    notice.time_ms = trigger.time_ms;
    notice.label = trigger.label;
    const std::string text = notice.ToText();
    const std::string sender = peer + ":" + std::to_string(port);
    long due_ms = trigger.time_ms + duration_ms_;
    std::string refused;
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (stop_) return;
      Pending* same = nullptr;
      for (auto& entry : pending_) {
        if (entry.second.notice == text) same = &entry.second;
      }
      Forget();
      auto done = done_.find(text);
      if (same == nullptr && done != done_.end()) {
        // Done already: told at once what came of it.
        UdpMessage ack = event.create_recv(trigger_protocol::kTriggerAckKey);
        trigger_protocol::Encode(
            trigger_protocol::TriggerAck{name_, node_name_, instance_, done->second.due_ms, directory_, ""},
            &ack);
        server_->send_data(peer, port, ack);
        Pending again;
        again.repliers.push_back({peer, port, event.create_recv(trigger_protocol::kTriggerDoneKey)});
        SendDone(&again, done->second.file, done->second.why);
        return;
      }
      if (same != nullptr) {
        // The same trigger again (a retry, or a replay): answered with the one notice.
        due_ms = same->due_ms;
        if (same->repliers.size() < static_cast<size_t>(kMaxPendingPerSender)) {
          same->repliers.push_back({peer, port, event.create_recv(trigger_protocol::kTriggerDoneKey)});
        }
      } else {
        refused = Refusal(sender, trigger);
        if (refused.empty()) {
          Pending p;
          p.notice = text;
          p.due_ms = due_ms;
          p.senders.push_back(sender);
          p.repliers.push_back({peer, port, event.create_recv(trigger_protocol::kTriggerDoneKey)});
          ++senders_[sender].pending;
          pending_.emplace(std::make_pair(due_ms, next_sequence_++), std::move(p));
        }
      }
      UdpMessage ack = event.create_recv(trigger_protocol::kTriggerAckKey);
      trigger_protocol::Encode(
          trigger_protocol::TriggerAck{name_, node_name_, instance_, refused.empty() ? due_ms : 0, directory_,
                                       refused},
          &ack);
      server_->send_data(peer, port, ack);
    }
    if (refused.empty()) wake_.notify_all();
  }

  void SetCallback(std::function<void(const std::string&)> callback) {
    std::lock_guard<std::mutex> lock(mu_);
    callback_.swap(callback);
  }

  void SetKey(const TriggerKey& key) {
    std::lock_guard<std::mutex> lock(mu_);
    key_ = key;
  }

  void SetCheck(std::function<std::string(long)> check) {
    std::lock_guard<std::mutex> lock(mu_);
    check_.swap(check);
  }

  void ReportSaved(const std::string& notice, const std::string& file, const std::string& why) {
    const std::string absolute = Absolute(file);
    std::lock_guard<std::mutex> lock(mu_);
    if (notice == current_notice_) {
      reported_file_ = absolute;
      reported_why_ = why;
    }
  }

 private:
  struct Pending {
    std::string notice;
    long due_ms = 0;
    std::vector<std::string> senders;  // whose pending count it holds
    std::vector<Replier> repliers;     // everyone who sent it
  };

  struct Sender {
    double tokens = kSenderBurst;
    std::chrono::steady_clock::time_point refilled = std::chrono::steady_clock::now();
    int pending = 0;
  };

  struct Done {
    long due_ms;
    std::string file, why;
    std::chrono::steady_clock::time_point forget_at;
  };

  // Drops what need not be remembered any more; mu_ held.
  void Forget() {
    const auto now = std::chrono::steady_clock::now();
    for (auto it = done_.begin(); it != done_.end();) {
      it = (it->second.forget_at < now || done_.size() > kMaxRemembered) ? done_.erase(it) : std::next(it);
    }
  }

  // Why a new trigger from `sender` is not taken, or ""; mu_ held.
  std::string Refusal(const std::string& sender, const trigger_protocol::TriggerEvent& trigger) {
    if (!key_.empty() && !key_.Verify(trigger.time_ms, trigger.label, trigger.mac)) {
      return "not signed with this node's trigger key";
    }
    const long ahead_ms = trigger.time_ms - WallClockMs();
    if (ahead_ms > kMaxAheadMs) {
      return "dated " + std::to_string(ahead_ms / 1000) + " s ahead of this node's clock";
    }
    if (senders_.size() > 4096) {
      // Forget senders that hold nothing: a flood from many sockets must not grow this.
      for (auto it = senders_.begin(); it != senders_.end();) {
        it = it->second.pending == 0 ? senders_.erase(it) : std::next(it);
      }
    }
    Sender& s = senders_[sender];
    const auto now = std::chrono::steady_clock::now();
    s.tokens = std::min(
        kSenderBurst, s.tokens + kSenderPerSecond * std::chrono::duration<double>(now - s.refilled).count());
    s.refilled = now;
    if (s.pending >= kMaxPendingPerSender || s.tokens < 1) return "too many triggers from " + sender;
    if (pending_.size() >= kMaxPendingNotices) {
      return std::to_string(pending_.size()) + " notices are pending already";
    }
    if (check_) {
      const std::string why = check_(trigger.time_ms);
      if (!why.empty()) return why;
    }
    s.tokens -= 1;
    return "";
  }

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
      for (const std::string& sender : p.senders) --senders_[sender].pending;
      current_notice_ = p.notice;
      reported_file_.clear();
      reported_why_.clear();
      std::function<void(const std::string&)> callback = callback_;
      lock.unlock();
      Notify(callback, p.notice);
      callback = nullptr;  // whatever it holds is released outside the lock
      lock.lock();
      const std::string file = reported_file_;
      const std::string why = reported_why_;
      done_[p.notice] = Done{p.due_ms, file, why, std::chrono::steady_clock::now() + kRememberDone};
      lock.unlock();
      SendDone(&p, file, why);
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

  void SendDone(Pending* p, const std::string& file, const std::string& why) {
    for (Replier& r : p->repliers) {
      trigger_protocol::Encode(trigger_protocol::TriggerDone{name_, node_name_, instance_, file, why},
                               &r.reply);
      server_->send_data(r.peer, r.port, r.reply);
    }
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
  std::map<std::string, Sender> senders_;                 // by "peer:port"
  std::map<std::string, Done> done_;                      // by notice text
  uint64_t next_sequence_ = 0;
  bool stop_ = false;
  TriggerKey key_;
  std::function<std::string(long)> check_;
  std::function<void(const std::string&)> callback_;
  // The notice last given to the callback. A report for it that comes after the callback
  // returned changes nothing: the next notice clears what was reported.
  std::string current_notice_;
  std::string reported_file_;
  std::string reported_why_;

  std::thread thread_;
};

TriggerRecordNodeApi::TriggerRecordNodeApi(const std::string& name, const std::string& node_name,
                                           const fileio::DirectoryPath& directory, unsigned int duration)
    : node_(new Node(name, node_name, directory.GetPath(), duration)) {}

TriggerRecordNodeApi::~TriggerRecordNodeApi() = default;

void TriggerRecordNodeApi::SetNotifyCallback(std::function<void(const std::string&)> callback) {
  node_->SetCallback(std::move(callback));
}

void TriggerRecordNodeApi::ReportSaved(const std::string& notice, const std::string& file,
                                       const std::string& why) {
  node_->ReportSaved(notice, file, why);
}

void TriggerRecordNodeApi::SetKey(const TriggerKey& key) { node_->SetKey(key); }

void TriggerRecordNodeApi::SetTriggerCheck(std::function<std::string(long time_ms)> check) {
  node_->SetCheck(std::move(check));
}

}  // namespace kelo
