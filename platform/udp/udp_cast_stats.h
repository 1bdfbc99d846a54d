#ifndef KELO_PLATFORM_UDP_UDP_CAST_STATS_H_
#define KELO_PLATFORM_UDP_UDP_CAST_STATS_H_

#include <cstddef>
#include <cstdint>

namespace kelo {

// What a receiver did with the datagrams it read, since it was created. A datagram is
// either dropped on arrival (and counted under exactly one reason), or held as a fragment
// until its message completes, or lost with an abandoned message.
struct UdpCastStats {
  uint64_t received_datagrams = 0;
  // Sum of the four reasons below.
  uint64_t dropped_datagrams = 0;
  uint64_t foreign_datagrams = 0;      // wrong magic: not this protocol
  uint64_t bad_version_datagrams = 0;  // this protocol, a version this library does not speak
  uint64_t malformed_datagrams = 0;    // truncated, contradictory sizes, or at odds with the
                                       // other fragments of their message
  uint64_t duplicate_datagrams = 0;    // a fragment (or message) already received
  uint64_t completed_messages = 0;     // whole messages reassembled
  uint64_t dropped_messages = 0;       // partial messages abandoned: timed out or evicted to
                                       // keep memory within bounds
  uint64_t unhandled_messages = 0;     // complete, but nobody was waiting for their key
  uint64_t callback_exceptions = 0;    // callbacks that threw; the receiver went on
  size_t pending_messages = 0;         // partial messages held now
  size_t pending_bytes = 0;            // memory charged to them now
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_CAST_STATS_H_
