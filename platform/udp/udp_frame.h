#ifndef KELO_PLATFORM_UDP_UDP_FRAME_H_
#define KELO_PLATFORM_UDP_UDP_FRAME_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelo {

// The datagram format of the cast protocol. Every datagram carries one fragment of one
// message, little-endian:
//
//   offset size  field
//        0    4  magic "KCST"
//        4    1  version (1)
//        5    1  flags (0; anything else is refused by version 1)
//        6    2  key size (at most kUdpMaxKeyBytes)
//        8    4  sender id: random per socket, keeps apart senders behind one address and port
//       12    4  message id: the sender's number for the message
//       16    4  reply to: the message id this one answers, 0 for none
//       20    4  body size: the whole message's body (at most kUdpMaxBodyBytes)
//       24    2  fragment index
//       26    2  fragment count (at least 1)
//       28  key  the key
//        …       this fragment's bytes of the body
//
// A body of B bytes sent in C fragments is cut into chunks of ceil(B / C) bytes, the last
// one shorter; fragment i holds bytes [i * chunk, min(B, (i + 1) * chunk)). The receiver
// checks every fragment against that rule, so fragments can neither overlap nor leave
// holes, and a message is complete when all C distinct indexes have arrived.

constexpr char kUdpFrameMagic[4] = {'K', 'C', 'S', 'T'};
constexpr uint8_t kUdpFrameVersion = 1;
constexpr size_t kUdpFrameHeaderBytes = 28;
constexpr size_t kUdpMaxKeyBytes = 1024;
constexpr size_t kUdpMaxBodyBytes = size_t{8} << 20;
constexpr size_t kUdpMaxFragments = 65535;
// The largest UDP payload IPv4 can carry, and the smallest datagram every IPv4 host must
// accept; the datagram size of an interface lies between them.
constexpr size_t kUdpMaxDatagramBytes = 65507;
constexpr size_t kUdpMinDatagramBytes = 548;

// One parsed datagram. The views point into the datagram, which must outlive them.
struct UdpFrame {
  uint32_t sender_id = 0;
  uint32_t message_id = 0;
  uint32_t reply_to = 0;
  uint32_t body_size = 0;
  uint16_t fragment_index = 0;
  uint16_t fragment_count = 0;
  std::string_view key;
  std::string_view payload;
};

enum class UdpFrameStatus {
  kOk,
  kBadMagic,    // not this protocol
  kBadVersion,  // this protocol, a version (or flags) we do not speak
  kMalformed,   // truncated, or sizes and fragment fields that contradict each other
};

// Parses one datagram of `size` bytes. Only kOk fills `*frame`; any datagram at all may be
// passed, and nothing is read outside it.
UdpFrameStatus ParseUdpFrame(const void* data, size_t size, UdpFrame* frame);

// Where fragment `index` of a body of `body_size` bytes cut into `count` fragments lies.
// Returns false for a combination no sender produces (index out of range, more
// fragments than bytes, a body too large).
bool UdpFragmentRange(uint32_t body_size, uint16_t count, uint16_t index, size_t* offset, size_t* length);

// Cuts a message into datagrams of at most `max_datagram` bytes, in fragment order.
// Returns false, leaving `*datagrams` empty, when the message cannot be framed: key or
// body too large, or a datagram too small to hold the header, the key and one byte.
bool EncodeUdpFrames(uint32_t sender_id, uint32_t message_id, uint32_t reply_to, std::string_view key,
                     std::string_view body, size_t max_datagram, std::vector<std::string>* datagrams);

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_FRAME_H_
