#include "record/record_monitor_client.h"

#include "platform/udp/memory_stream.h"
#include "platform/udp/udp_cast_client.h"
#include "record/bag_record.h"

namespace kelo {

RecordMonitorClient::RecordMonitorClient() : RecordMonitorClient(BagRecord::kMonitorGroup, BagRecord::kMonitorPort) {}

RecordMonitorClient::RecordMonitorClient(const std::string& group, int port) : group_(group), port_(port) {}

std::vector<RecordMonitorClient::Reply> RecordMonitorClient::Query(int timeout_ms, size_t expected) {
  UdpCastClient client;
  std::vector<UdpCastClient::Reply> answers =
      client.query(group_, port_, "record_monitor", "", "record_monitor_recv", timeout_ms, expected);
  error_ = client.error();
  malformed_ = 0;
  std::vector<Reply> replies;
  for (const UdpCastClient::Reply& answer : answers) {
    // The recorder writes the snapshot as one length-prefixed string.
    MemoryStream body(answer.body);
    std::string serialized;
    Reply reply;
    if (!body.read_string(&serialized) || body.remaining() != 0 || !reply.monitor.ParseFromString(serialized)) {
      ++malformed_;
      continue;
    }
    reply.peer = answer.peer;
    reply.port = answer.port;
    replies.push_back(std::move(reply));
  }
  return replies;
}

}  // namespace kelo
