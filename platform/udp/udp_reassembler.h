#ifndef KELO_PLATFORM_UDP_UDP_REASSEMBLER_H_
#define KELO_PLATFORM_UDP_UDP_REASSEMBLER_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>

#include "platform/udp/udp_cast_options.h"
#include "platform/udp/udp_cast_stats.h"
#include "platform/udp/udp_message.h"

namespace kelo {

// Turns datagrams into messages: checks each datagram (see udp_frame.h), drops and counts
// what is not a valid fragment, and puts fragments together per sender and message.
// Memory stays within the limits whatever arrives: when a new fragment would exceed them,
// the message that has waited longest since its last fragment is abandoned first.
//
//   UdpReassembler reassembler;
//   UdpMessage message;
//   if (reassembler.Add(address, port, datagram, size, NowMs(), &message)) Deliver(message);
//
// Not thread-safe: one thread at a time.
class UdpReassembler {
 public:
  explicit UdpReassembler(const UdpReassemblyLimits& limits = UdpReassemblyLimits());
  ~UdpReassembler();

  UdpReassembler(const UdpReassembler&) = delete;
  UdpReassembler& operator=(const UdpReassembler&) = delete;

  // Takes one datagram that came from `address`:`port` (any numbers that tell senders
  // apart) at `now_ms` (a monotonic clock). Returns true and sets `*message` when the
  // datagram completed a message; otherwise `*message` is untouched.
  bool Add(uint32_t address, uint16_t port, const void* data, size_t size, int64_t now_ms,
           UdpMessage* message);

  // Abandons the messages that have waited `timeout_ms` since their last fragment. Add()
  // does this too; a receiver calls it when no datagram comes.
  void Expire(int64_t now_ms);

  // Counters, with the pending figures of this moment.
  UdpCastStats stats() const;

 private:
  struct MessageRef {
    uint32_t address;
    uint16_t port;
    uint32_t sender_id;
    uint32_t message_id;
    bool operator<(const MessageRef& other) const;
  };
  struct Partial {
    std::string key;
    uint32_t reply_to = 0;
    uint32_t body_size = 0;
    uint16_t fragment_count = 0;
    size_t charged_bytes = 0;
    int64_t last_ms = 0;
    std::map<uint16_t, std::string> fragments;
  };

  void Drop(std::map<MessageRef, Partial>::iterator it);
  bool EvictOldestExcept(const MessageRef& keep);
  void Remember(const MessageRef& ref);

  const UdpReassemblyLimits limits_;
  UdpCastStats stats_;
  size_t pending_bytes_ = 0;
  std::map<MessageRef, Partial> partials_;
  std::set<MessageRef> remembered_;
  std::deque<MessageRef> remembered_order_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_REASSEMBLER_H_
