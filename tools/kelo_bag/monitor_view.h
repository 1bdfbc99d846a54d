#ifndef KELO_TOOLS_KELO_BAG_MONITOR_VIEW_H_
#define KELO_TOOLS_KELO_BAG_MONITOR_VIEW_H_

#include <string>
#include <vector>

#include <json/value.h>

#include "record/record_monitor_client.h"

namespace kelo {
namespace cli {

// How `kelo_bag monitor` shows the recorders that answered a query: per recorder its node,
// address, mode, the file being written, recording time, queue, losses (with their
// reasons), what fails, overall rates and totals, and a row per topic with msg/s, bytes/s,
// messages, bytes and losses. Rates are those of now: 0 for a topic gone silent.

// The table for people; one line saying so when no recorder answered.
std::string FormatMonitorTable(const std::vector<RecordMonitorClient::Reply>& replies);

// {"recorders": [{"node", "peer", "port", "file", "mode", "current_file", "problems",
//   "record_time_s", "queue", "drops", "lost", "losses": [{"topic", "reason", "count"}],
//   "messages", "msg_per_s", "bytes_per_s", "total_bytes",
//   "topics": [{"topic", "messages", "msg_per_s", "bytes_per_s", "total_bytes", "lost"}]}]}
// in the order the replies came, topics in the recorder's (ascending name) order.
Json::Value MonitorJson(const std::vector<RecordMonitorClient::Reply>& replies);

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_MONITOR_VIEW_H_
