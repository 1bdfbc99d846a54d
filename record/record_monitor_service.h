#ifndef KELO_RECORD_RECORD_MONITOR_SERVICE_H_
#define KELO_RECORD_RECORD_MONITOR_SERVICE_H_

#include <functional>
#include <memory>
#include <string>

#include "proto/bag_record_monitor.pb.h"

namespace kelo {

class UdpCastServer;
class UdpMessage;

// Answers "record_monitor" queries for every recording of the process: a query that reaches
// a cast server gets one "record_monitor_recv" reply per recording registered on it, each
// with that recording's snapshot. Recorders (BagRecord) register themselves; a tool that
// records some other way (trigger mode) registers a snapshot of its own.
//
//   RecordMonitorService::Registration r = RecordMonitorService::Register(server, [&] { return Snapshot();
//   });
//   ...                                  // answered until `r` is destroyed
//
// All members may be called from any thread.
class RecordMonitorService {
 public:
  using Snapshot = std::function<std::shared_ptr<tools::interactive::BagRecordMonitor>()>;

  // Keeps a snapshot registered while it lives. Its destructor returns once no reply built
  // from the snapshot is in progress, after which the snapshot is never called again; it
  // must not run inside the snapshot function.
  class Registration {
   public:
    Registration() = default;
    ~Registration();
    Registration(Registration&& other) noexcept;
    Registration& operator=(Registration&& other) noexcept;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

   private:
    friend class RecordMonitorService;
    explicit Registration(long id) : id_(id) {}
    long id_ = 0;
  };

  RecordMonitorService() = delete;

  // Answers queries on `server` with `snapshot` (called on the server's receive thread)
  // until the returned registration is destroyed. Makes sure the server's "record_monitor"
  // callback answers for every registration.
  static Registration Register(UdpCastServer* server, Snapshot snapshot);

  // What the server's "record_monitor" callback does: one reply per registration on
  // `server`, sent to `peer`:`port`.
  static void Answer(UdpCastServer* server, const std::string& peer, int port, UdpMessage& query);

  // Sends one reply carrying `snapshot` for `query` through `server`.
  static void Reply(UdpCastServer* server, const std::string& peer, int port, UdpMessage& query,
                    const tools::interactive::BagRecordMonitor& snapshot);
};

}  // namespace kelo

#endif  // KELO_RECORD_RECORD_MONITOR_SERVICE_H_
