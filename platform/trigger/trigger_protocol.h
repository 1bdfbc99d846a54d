#ifndef KELO_PLATFORM_TRIGGER_TRIGGER_PROTOCOL_H_
#define KELO_PLATFORM_TRIGGER_TRIGGER_PROTOCOL_H_

#include <cstdint>
#include <string>

#include "platform/udp/udp_message.h"

namespace kelo {

// The messages of the trigger service, sent with the cast library (platform/udp) on the
// recorders' group. One exchange per trigger:
//
//   sender  --kTriggerEventKey-->  group        TriggerEvent
//   node    --kTriggerAckKey--->   sender       TriggerAck, at once, one per node
//   node    --kTriggerDoneKey-->   sender       TriggerDone, after the node's notice
//
// Acknowledgements and final replies are answers (UdpMessage::create_recv) to the event,
// sent to the peer and port the event came from, so a sender sees only the answers to its
// own event. Bodies are MemoryStream fields in the order listed; bytes after the last field
// are ignored, so later versions may append fields. A body that does not decode is ignored.
namespace trigger_protocol {

constexpr char kGroup[] = "224.0.0.88";
constexpr int kPort = 2801;

constexpr char kTriggerEventKey[] = "trigger_record";
constexpr char kTriggerAckKey[] = "trigger_record_ack";
constexpr char kTriggerDoneKey[] = "trigger_record_done";

// A trigger: int64 time_ms (ms since the epoch, 0 to TriggerNotice::kMaxTimeMs), string label
// (a valid TriggerNotice label), string mac (TriggerKey signature; "" when unsigned, and
// absent from senders that do not sign).
struct TriggerEvent {
  long time_ms = 0;
  std::string label;
  std::string mac;
};

// "This node will send its notice at due_ms": string name (the service the node belongs to,
// e.g. "bag_record"), string node (the node's name), uint32 instance (tells apart nodes of
// one process that share a name), int64 due_ms (wall clock ms since the epoch), string
// directory (where the node saves its files), string refused ("" when the node took the
// trigger; otherwise why not, and no final reply follows; absent from older nodes).
struct TriggerAck {
  std::string name;
  std::string node;
  uint32_t instance = 0;
  long due_ms = 0;
  std::string directory;
  std::string refused;
};

// "This node's notice is done": string name, string node, uint32 instance (as in the
// acknowledgement), string file (what the node saved for this trigger; "" for nothing),
// string why (when nothing was saved, why, when the node knows; may be absent).
struct TriggerDone {
  std::string name;
  std::string node;
  uint32_t instance = 0;
  std::string file;
  std::string why;
};

void Encode(const TriggerEvent& event, UdpMessage* message);
void Encode(const TriggerAck& ack, UdpMessage* message);
void Encode(const TriggerDone& done, UdpMessage* message);

// Each reads a body from its start; false when it is too short or out of range.
bool Decode(const std::string& body, TriggerEvent* event);
bool Decode(const std::string& body, TriggerAck* ack);
bool Decode(const std::string& body, TriggerDone* done);

}  // namespace trigger_protocol
}  // namespace kelo

#endif  // KELO_PLATFORM_TRIGGER_TRIGGER_PROTOCOL_H_
