// Feeds arbitrary bytes to the parsers of what other processes hand a recorder: trigger
// service bodies, trigger notices and monitor replies. The first byte picks the parser, the
// rest is its input. What decodes must encode and decode again to the same values.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/trigger/trigger_notice.h"
#include "platform/trigger/trigger_protocol.h"
#include "platform/udp/udp_message.h"
#include "proto/bag_record_monitor.pb.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

template <typename T>
void RoundTrip(const std::string& body, bool (*same)(const T&, const T&)) {
  T first;
  if (!kelo::trigger_protocol::Decode(body, &first)) return;
  kelo::UdpMessage message;
  kelo::trigger_protocol::Encode(first, &message);
  T second;
  Check(kelo::trigger_protocol::Decode(message.body(), &second) && same(first, second));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  using namespace kelo::trigger_protocol;
  switch (data[0] % 3) {
    case 0:
      RoundTrip<TriggerEvent>(input, [](const TriggerEvent& a, const TriggerEvent& b) {
        return a.time_ms == b.time_ms && a.label == b.label && a.mac == b.mac;
      });
      RoundTrip<TriggerAck>(input, [](const TriggerAck& a, const TriggerAck& b) {
        return a.node == b.node && a.due_ms == b.due_ms && a.refused == b.refused;
      });
      RoundTrip<TriggerDone>(input, [](const TriggerDone& a, const TriggerDone& b) {
        return a.file == b.file && a.why == b.why;
      });
      break;
    case 1: {
      kelo::TriggerNotice notice, again;
      if (kelo::TriggerNotice::Parse(input, &notice)) {
        Check(notice.IsValid() && kelo::TriggerNotice::Parse(notice.ToText(), &again));
        Check(again.time_ms == notice.time_ms && again.label == notice.label);
      }
      break;
    }
    default: {
      kelo::tools::interactive::BagRecordMonitor monitor;
      if (monitor.ParseFromString(input)) {
        kelo::tools::interactive::BagRecordMonitor again;
        Check(again.ParseFromString(monitor.SerializeAsString()));
      }
      break;
    }
  }
  return 0;
}
