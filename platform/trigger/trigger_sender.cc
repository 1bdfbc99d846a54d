#include "platform/trigger/trigger_sender.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <tuple>

#include "platform/trigger/trigger_notice.h"
#include "platform/udp/udp_cast_client.h"
#include "platform/udp/udp_message.h"

namespace kelo {

namespace {

using Clock = std::chrono::steady_clock;

long WallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

TriggerSender::TriggerSender() : TriggerSender(Options()) {}

TriggerSender::TriggerSender(const Options& options) : options_(options), client_(new UdpCastClient()) {}

TriggerSender::~TriggerSender() = default;

std::vector<TriggerSender::NodeResult> TriggerSender::Send(const std::string& label, long time_ms,
                                                           int timeout_ms) {
  std::vector<NodeResult> results;
  error_.clear();
  TriggerNotice notice;
  notice.time_ms = time_ms == 0 ? WallClockMs() : time_ms;
  notice.label = label;
  if (!TriggerNotice::IsValidLabel(label)) {
    error_ = "\"" + label + "\" is not a trigger label: use up to " +
             std::to_string(TriggerNotice::kMaxLabelBytes) + " letters, digits, '_', '-' or '.'";
    return results;
  }
  if (!notice.IsValid()) {
    error_ = "trigger time " + std::to_string(time_ms) + " ms is out of range";
    return results;
  }
  time_ms_ = notice.time_ms;
  UdpMessage event(trigger_protocol::kTriggerEventKey);
  trigger_protocol::Encode(trigger_protocol::TriggerEvent{notice.time_ms, notice.label,
                                                          options_.key.Sign(notice.time_ms, notice.label)},
                           &event);

  const Clock::time_point start = Clock::now();
  const long timeout = std::max(timeout_ms, 0);
  const Clock::time_point give_up = start + std::chrono::milliseconds(timeout);
  const Clock::time_point acks_over =
      std::min(give_up, start + std::chrono::milliseconds(std::max(options_.ack_window_ms, 0)));
  // One result per node: (peer, port, instance) tells apart the nodes of one process.
  std::map<std::tuple<std::string, int, uint32_t>, size_t> index;
  std::vector<bool> acknowledged;
  Clock::time_point latest_due = start;  // the latest due time announced, on our clock

  auto find = [&](const UdpCastClient::Reply& reply, uint32_t instance) -> NodeResult& {
    auto it = index.emplace(std::make_tuple(reply.peer, reply.port, instance), results.size()).first;
    if (it->second == results.size()) {
      results.emplace_back();
      results.back().peer = reply.peer;
      results.back().port = reply.port;
      acknowledged.push_back(false);
    }
    return results[it->second];
  };

  auto on_reply = [&](const UdpCastClient::Reply& reply, Clock::time_point* deadline) {
    if (reply.key == trigger_protocol::kTriggerAckKey) {
      trigger_protocol::TriggerAck ack;
      if (!trigger_protocol::Decode(reply.body, &ack)) return true;
      NodeResult& r = find(reply, ack.instance);
      const size_t i = &r - results.data();
      if (acknowledged[i]) return true;
      acknowledged[i] = true;
      r.name = ack.name;
      r.node = ack.node;
      r.directory = ack.directory;
      r.due_ms = ack.due_ms;
      r.refused = ack.refused;
      if (!r.refused.empty()) r.answered = true;  // nothing more comes
      // Anything later than our own timeout is cut by it anyway; clamping keeps the
      // arithmetic in range whatever a node announces.
      const long in_ms = std::min(std::max(ack.due_ms - WallClockMs(), 0L), timeout);
      latest_due = std::max(latest_due, Clock::now() + std::chrono::milliseconds(in_ms));
    } else if (reply.key == trigger_protocol::kTriggerDoneKey) {
      trigger_protocol::TriggerDone done;
      if (!trigger_protocol::Decode(reply.body, &done)) return true;
      NodeResult& r = find(reply, done.instance);
      if (r.answered) return true;
      r.name = done.name;
      r.node = done.node;
      r.answered = true;
      r.file = done.file;
      r.why = done.why;
      r.saved = !done.file.empty();
    } else {
      return true;
    }
    bool waiting = false;
    for (size_t i = 0; i < results.size(); ++i)
      waiting = waiting || (acknowledged[i] && !results[i].answered);
    *deadline = waiting ? std::min(give_up, std::max(acks_over, latest_due + std::chrono::milliseconds(
                                                                                 options_.reply_margin_ms)))
                        : acks_over;
    return true;
  };

  const long first_wait = std::chrono::duration_cast<std::chrono::milliseconds>(acks_over - start).count();
  if (!client_->exchange(options_.group, options_.port, trigger_protocol::kTriggerEventKey, event.body(),
                         static_cast<int>(first_wait), on_reply)) {
    error_ = client_->error();
    results.clear();
  }
  return results;
}

}  // namespace kelo
