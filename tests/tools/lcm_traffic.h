#ifndef KELO_TESTS_TOOLS_LCM_TRAFFIC_H_
#define KELO_TESTS_TOOLS_LCM_TRAFFIC_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tools/kelo_bag/lcm_bus.h"

namespace kelo {
namespace testing_support {

// Traffic of a live LCM publisher for the tool's tests: several channels, payloads from
// 5 bytes to 1 MB, every payload different and recognisable, interleaved in a known order.
struct TrafficMessage {
  std::string channel;
  std::string payload;
};

// The payload of message `sequence` of `channel`, `bytes` long: an 8-byte fingerprint of
// the channel (when it fits), the sequence, then filler that depends on both.
inline std::string TrafficPayload(const std::string& channel, uint32_t sequence, size_t bytes) {
  std::string payload(bytes, '\0');
  uint64_t fingerprint = 1469598103934665603ULL;
  for (char c : channel) fingerprint = (fingerprint ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  size_t at = 0;
  if (bytes >= 8) {
    for (; at < 8; ++at) payload[at] = static_cast<char>(fingerprint >> (56 - 8 * at));
  }
  for (size_t i = 0; i < 4 && at < bytes; ++i, ++at)
    payload[at] = static_cast<char>(sequence >> (24 - 8 * i));
  for (uint32_t x = sequence * 2654435761u + 7; at < bytes; ++at) {
    x = x * 1103515245u + 12345u;
    payload[at] = static_cast<char>(x >> 16);
  }
  return payload;
}

// `rounds` rounds; each round has one message of every channel of `sizes` (channel, bytes),
// with the 1 MB channel only every `large_every` rounds.
inline std::vector<TrafficMessage> MakeTraffic(int rounds, int large_every = 4) {
  const std::vector<std::pair<std::string, size_t>> sizes = {
      {"TINY", 10}, {"SHORT", 5}, {"/imu", 64}, {"/scan", 10 * 1024}, {"CAMERA.front", 1 << 20}};
  std::vector<TrafficMessage> traffic;
  std::vector<uint32_t> sequence(sizes.size(), 0);
  for (int round = 0; round < rounds; ++round) {
    for (size_t c = 0; c < sizes.size(); ++c) {
      if (sizes[c].second >= (1 << 20) && round % large_every != 0) continue;
      traffic.push_back({sizes[c].first, TrafficPayload(sizes[c].first, sequence[c]++, sizes[c].second)});
    }
  }
  return traffic;
}

// Publishes `traffic` in order on `bus`, one round of channels about every `gap_ms`.
inline bool PublishTraffic(cli::LcmBus* bus, const std::vector<TrafficMessage>& traffic, int gap_ms) {
  bool ok = true;
  for (const TrafficMessage& m : traffic) {
    if (m.channel == "TINY") std::this_thread::sleep_for(std::chrono::milliseconds(gap_ms));
    ok = bus->Publish(m.channel, m.payload) && ok;
  }
  return ok;
}

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_TOOLS_LCM_TRAFFIC_H_
