// Feeds arbitrary datagrams to the cast protocol's parser and reassembler. The input is a
// sequence of records, each `u16 length (little-endian) | u8 sender | u8 clock step | datagram`:
// `sender` picks one of a few source addresses and ports, `clock step` advances the clock
// by that many times 16 ms, so that timeouts and evictions are reached too. Checked on
// every datagram: nothing crashes or leaks, memory stays within the limits, every drop is
// counted under one reason, and what parses re-encodes to the same bytes (built by
// tests/fuzz/CMakeLists.txt).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/udp/udp_frame.h"
#include "platform/udp/udp_reassembler.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

void CheckFrame(const uint8_t* data, size_t size) {
  kelo::UdpFrame frame;
  if (kelo::ParseUdpFrame(data, size, &frame) != kelo::UdpFrameStatus::kOk) return;
  const char* begin = reinterpret_cast<const char*>(data);
  Check(frame.key.size() <= kelo::kUdpMaxKeyBytes);
  Check(frame.key.data() >= begin && frame.payload.data() + frame.payload.size() == begin + size);
  Check(frame.fragment_index < frame.fragment_count && frame.body_size <= kelo::kUdpMaxBodyBytes);
  if (frame.fragment_count != 1 || size > kelo::kUdpMaxDatagramBytes) return;
  // A whole message in one datagram has exactly one encoding.
  std::vector<std::string> again;
  Check(kelo::EncodeUdpFrames(frame.sender_id, frame.message_id, frame.reply_to, frame.key, frame.payload,
                              kelo::kUdpMaxDatagramBytes, &again));
  Check(again.size() == 1 && again[0] == std::string(begin, size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kelo::UdpReassemblyLimits limits;
  limits.max_pending_bytes = 1 << 20;
  limits.max_pending_messages = 8;
  limits.timeout_ms = 1000;
  limits.remembered_messages = 16;
  kelo::UdpReassembler reassembler(limits);
  int64_t now_ms = 0;
  uint64_t completed = 0;

  size_t at = 0;
  while (at + 4 <= size) {
    size_t length = data[at] | (data[at + 1] << 8);
    const uint8_t sender = data[at + 2];
    now_ms += int64_t{data[at + 3]} * 16;
    at += 4;
    if (length > size - at) length = size - at;
    const uint8_t* datagram = data + at;
    at += length;

    CheckFrame(datagram, length);
    kelo::UdpMessage message;
    if (reassembler.Add(0x0100007f + (sender & 3), static_cast<uint16_t>(4000 + (sender >> 2)), datagram,
                        length, now_ms, &message)) {
      ++completed;
      Check(message.key().size() <= kelo::kUdpMaxKeyBytes && message.body().size() <= kelo::kUdpMaxBodyBytes);
    }
    const kelo::UdpCastStats s = reassembler.stats();
    Check(s.pending_bytes <= limits.max_pending_bytes && s.pending_messages <= limits.max_pending_messages);
    Check(s.dropped_datagrams ==
          s.foreign_datagrams + s.bad_version_datagrams + s.malformed_datagrams + s.duplicate_datagrams);
    Check(s.completed_messages == completed);
  }
  reassembler.Expire(now_ms + limits.timeout_ms);
  Check(reassembler.stats().pending_bytes == 0 && reassembler.stats().pending_messages == 0);
  return 0;
}
