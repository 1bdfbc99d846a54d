#include "tools/kelo_bag/monitor_view.h"

#include <algorithm>

#include "tools/kelo_bag/format_units.h"
#include "tools/kelo_bag/status_line.h"

namespace kelo {
namespace cli {

namespace {

// The rates as they are now, from recorders that report them; the history's otherwise.
double CurrentFreq(const tools::interactive::BagRecordMessageInfo& info) {
  return info.has_current_freq() ? info.current_freq() : info.freq();
}
double CurrentBytes(const tools::interactive::BagRecordMessageInfo& info) {
  return info.has_current_bytes() ? info.current_bytes() : info.pre_bytes();
}

}  // namespace

std::string FormatMonitorTable(const std::vector<RecordMonitorClient::Reply>& replies) {
  if (replies.empty()) return "no recorder answered\n";
  std::string out;
  for (const RecordMonitorClient::Reply& reply : replies) {
    const auto& m = reply.monitor;
    const RecordStatus status = StatusOf(m);
    out += m.node_name() + " at " + reply.peer + ":" + std::to_string(reply.port) +
           (m.mode().empty() ? "" : " (" + m.mode() + ")") + "\n";
    out += "  file " +
           (m.has_current_file() ? (m.current_file().empty() ? "(none open)" : m.current_file())
                                 : m.file_name()) +
           "\n";
    out += "  recording " + FormatClock(status.seconds) + "  queue " + std::to_string(status.queue) +
           "  lost " + std::to_string(status.lost) + "  " + FormatFixed(status.messages_per_second, 1) +
           " msg/s  " + FormatByteRate(status.bytes_per_second) + "  total " +
           std::to_string(status.messages) + " msgs " + FormatBytes(static_cast<double>(status.bytes)) + "\n";
    const BagLosses losses = LossesOf(m);
    if (!losses.empty()) out += "  lost: " + losses.Describe() + "\n";
    if (!m.problems().empty()) out += "  ! " + m.problems() + "\n";
    size_t width = 5;
    for (const auto& topic : m.topic_info()) width = std::max(width, topic.topic_name().size());
    out += "  " + PadRight("topic", width) + PadLeft("msg/s", 10) + PadLeft("bytes/s", 13) +
           PadLeft("messages", 11) + PadLeft("total", 11) + PadLeft("lost", 9) + "\n";
    for (const auto& topic : m.topic_info()) {
      const auto& info = topic.message_info();
      out += "  " + PadRight(topic.topic_name(), width) + PadLeft(FormatFixed(CurrentFreq(info), 1), 10) +
             PadLeft(FormatByteRate(CurrentBytes(info)), 13) +
             PadLeft(std::to_string(static_cast<uint32_t>(topic.message_count())), 11) +
             PadLeft(FormatBytes(static_cast<double>(info.total_bytes())), 11) +
             PadLeft(std::to_string(topic.lost_count()), 9) + "\n";
    }
  }
  return out;
}

Json::Value MonitorJson(const std::vector<RecordMonitorClient::Reply>& replies) {
  Json::Value root(Json::objectValue);
  Json::Value& recorders = root["recorders"] = Json::Value(Json::arrayValue);
  for (const RecordMonitorClient::Reply& reply : replies) {
    const auto& m = reply.monitor;
    const RecordStatus status = StatusOf(m);
    Json::Value r(Json::objectValue);
    r["node"] = m.node_name();
    r["peer"] = reply.peer;
    r["port"] = reply.port;
    r["file"] = m.file_name();
    r["record_time_s"] = status.seconds;
    r["mode"] = m.mode();
    r["current_file"] = m.current_file();
    r["problems"] = m.problems();
    r["queue"] = static_cast<Json::Int64>(status.queue);
    r["drops"] = static_cast<Json::Int64>(status.drops);
    r["lost"] = static_cast<Json::UInt64>(status.lost);
    Json::Value& losses = r["losses"] = Json::Value(Json::arrayValue);
    for (const auto& loss : m.losses()) {
      Json::Value l(Json::objectValue);
      l["topic"] = loss.topic_name();
      l["reason"] = loss.reason();
      l["count"] = static_cast<Json::UInt64>(loss.count());
      losses.append(l);
    }
    r["messages"] = static_cast<Json::UInt64>(status.messages);
    r["msg_per_s"] = status.messages_per_second;
    r["bytes_per_s"] = status.bytes_per_second;
    r["total_bytes"] = static_cast<Json::UInt64>(status.bytes);
    Json::Value& topics = r["topics"] = Json::Value(Json::arrayValue);
    for (const auto& topic : m.topic_info()) {
      Json::Value t(Json::objectValue);
      t["topic"] = topic.topic_name();
      t["messages"] = static_cast<Json::UInt64>(static_cast<uint32_t>(topic.message_count()));
      t["msg_per_s"] = CurrentFreq(topic.message_info());
      t["bytes_per_s"] = CurrentBytes(topic.message_info());
      t["lost"] = static_cast<Json::UInt64>(topic.lost_count());
      t["total_bytes"] = static_cast<Json::UInt64>(topic.message_info().total_bytes());
      topics.append(t);
    }
    recorders.append(r);
  }
  return root;
}

}  // namespace cli
}  // namespace kelo
