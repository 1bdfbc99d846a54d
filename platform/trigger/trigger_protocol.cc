#include "platform/trigger/trigger_protocol.h"

#include "platform/trigger/trigger_notice.h"
#include "platform/udp/memory_stream.h"

namespace kelo {
namespace trigger_protocol {

namespace {

// A field appended by a later version: absent (or unreadable) is "".
std::string Optional(MemoryStream* in) {
  std::string value;
  if (in->remaining() == 0 || !in->read_string(&value)) return "";
  return value;
}

}  // namespace

void Encode(const TriggerEvent& event, UdpMessage* message) {
  message->write_int64(event.time_ms);
  message->write_string(event.label);
  message->write_string(event.mac);
}

void Encode(const TriggerAck& ack, UdpMessage* message) {
  message->write_string(ack.name);
  message->write_string(ack.node);
  message->write_uint32(ack.instance);
  message->write_int64(ack.due_ms);
  message->write_string(ack.directory);
  message->write_string(ack.refused);
}

void Encode(const TriggerDone& done, UdpMessage* message) {
  message->write_string(done.name);
  message->write_string(done.node);
  message->write_uint32(done.instance);
  message->write_string(done.file);
  message->write_string(done.why);
}

bool Decode(const std::string& body, TriggerEvent* event) {
  MemoryStream in(body);
  int64_t time_ms;
  TriggerNotice notice;
  if (!in.read_int64(&time_ms) || !in.read_string(&notice.label)) return false;
  notice.time_ms = time_ms;
  if (!notice.IsValid()) return false;
  event->time_ms = notice.time_ms;
  event->label = notice.label;
  event->mac = Optional(&in);
  return true;
}

bool Decode(const std::string& body, TriggerAck* ack) {
  MemoryStream in(body);
  TriggerAck a;
  int64_t due_ms;
  if (!in.read_string(&a.name) || !in.read_string(&a.node) || !in.read_uint32(&a.instance) ||
      !in.read_int64(&due_ms) || !in.read_string(&a.directory)) {
    return false;
  }
  a.due_ms = due_ms;
  a.refused = Optional(&in);
  *ack = a;
  return true;
}

bool Decode(const std::string& body, TriggerDone* done) {
  MemoryStream in(body);
  TriggerDone d;
  if (!in.read_string(&d.name) || !in.read_string(&d.node) || !in.read_uint32(&d.instance) ||
      !in.read_string(&d.file)) {
    return false;
  }
  d.why = Optional(&in);
  *done = d;
  return true;
}

}  // namespace trigger_protocol
}  // namespace kelo
