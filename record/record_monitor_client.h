#ifndef KELO_RECORD_RECORD_MONITOR_CLIENT_H_
#define KELO_RECORD_RECORD_MONITOR_CLIENT_H_

#include <string>
#include <vector>

#include "proto/bag_record_monitor.pb.h"

namespace kelo {

// Asks every recorder on the monitor group for its state, the way a monitoring tool does:
//
//   RecordMonitorClient client;
//   for (const auto& reply : client.Query(500)) show(reply.peer, reply.monitor);
//
// A short-lived asker: it needs no cast server of its own. One object is used by one thread
// at a time.
class RecordMonitorClient {
 public:
  struct Reply {
    std::string peer;  // the recorder's host address
    int port = 0;      // the port it answered from
    tools::interactive::BagRecordMonitor monitor;
  };

  // On the multicast group and port recorders serve (224.0.0.88:2801 unless given).
  RecordMonitorClient();
  RecordMonitorClient(const std::string& group, int port);

  // Sends one "record_monitor" query and returns, after `timeout_ms`, the snapshot of every
  // recorder that answered, in the order they arrived; sooner once `expected` recorders
  // answered, when it is not 0. Answers that do not parse are left out and counted in
  // malformed(). Returns no replies when the query could not be sent; error() says why.
  std::vector<Reply> Query(int timeout_ms, size_t expected = 0);

  const std::string& error() const { return error_; }
  size_t malformed() const { return malformed_; }

 private:
  const std::string group_;
  const int port_;
  std::string error_;
  size_t malformed_ = 0;
};

}  // namespace kelo

#endif  // KELO_RECORD_RECORD_MONITOR_CLIENT_H_
