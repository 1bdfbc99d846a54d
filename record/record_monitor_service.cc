#include "record/record_monitor_service.h"

#include <map>
#include <mutex>
#include <utility>

#include "platform/udp/udp_cast_server.h"
#include "platform/udp/udp_message.h"

namespace kelo {

namespace {

struct Entry {
  UdpCastServer* server;
  RecordMonitorService::Snapshot snapshot;
};

// The registrations of the process. The mutex is held while replies are built, so that a
// registration that goes away waits for a reply in progress.
std::mutex& RegistryMutex() {
  static std::mutex mutex;
  return mutex;
}

std::map<long, Entry>& Registry() {
  static std::map<long, Entry> entries;
  return entries;
}

long next_id = 1;  // guarded by RegistryMutex()

void Unregister(long id) {
  if (id == 0) return;
  std::lock_guard<std::mutex> lock(RegistryMutex());
  Registry().erase(id);
}

}  // namespace

RecordMonitorService::Registration::~Registration() { Unregister(id_); }

RecordMonitorService::Registration::Registration(Registration&& other) noexcept : id_(other.id_) {
  other.id_ = 0;
}

RecordMonitorService::Registration& RecordMonitorService::Registration::operator=(
    Registration&& other) noexcept {
  if (this != &other) {
    Unregister(id_);
    id_ = other.id_;
    other.id_ = 0;
  }
  return *this;
}

RecordMonitorService::Registration RecordMonitorService::Register(UdpCastServer* server, Snapshot snapshot) {
  long id;
  {
    std::lock_guard<std::mutex> lock(RegistryMutex());
    id = next_id++;
    Registry().emplace(id, Entry{server, std::move(snapshot)});
  }
  // Whoever registered last, the callback answers for all of them.
  server->register_callback("record_monitor", [server](const std::string& peer, int port, UdpMessage& query) {
    Answer(server, peer, port, query);
  });
  return Registration(id);
}

void RecordMonitorService::Answer(UdpCastServer* server, const std::string& peer, int port,
                                  UdpMessage& query) {
  std::lock_guard<std::mutex> lock(RegistryMutex());
  for (const auto& entry : Registry()) {
    if (entry.second.server != server) continue;
    const std::shared_ptr<tools::interactive::BagRecordMonitor> snapshot = entry.second.snapshot();
    if (snapshot) Reply(server, peer, port, query, *snapshot);
  }
}

void RecordMonitorService::Reply(UdpCastServer* server, const std::string& peer, int port, UdpMessage& query,
                                 const tools::interactive::BagRecordMonitor& snapshot) {
  std::string body;
  snapshot.SerializeToString(&body);
  UdpMessage reply = query.create_recv("record_monitor_recv");
  reply.write_string(body);
  server->send_data(peer, port, reply);
}

}  // namespace kelo
