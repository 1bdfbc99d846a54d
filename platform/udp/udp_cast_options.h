#ifndef KELO_PLATFORM_UDP_UDP_CAST_OPTIONS_H_
#define KELO_PLATFORM_UDP_UDP_CAST_OPTIONS_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace kelo {

// How much a receiver may hold of messages whose fragments have not all arrived. The
// defaults hold several of the largest messages (8 MiB bodies) at once.
struct UdpReassemblyLimits {
  size_t max_pending_bytes = size_t{32} << 20;  // fragment bytes plus a small charge for each
  size_t max_pending_messages = 128;
  int64_t timeout_ms = 3000;          // a message with no new fragment for this long is abandoned
  size_t remembered_messages = 1024;  // completed messages kept in mind to refuse repeats
};

// Settings of a cast server or client.
struct UdpCastOptions {
  // The one interface traffic is sent and received on. Loopback keeps everything on this
  // host; naming another interface is the user's decision (see UdpCastManager).
  std::string interface_name = "lo";
  UdpReassemblyLimits reassembly;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_CAST_OPTIONS_H_
