#ifndef KELO_PLATFORM_UDP_UDP_CAST_SERVER_H_
#define KELO_PLATFORM_UDP_UDP_CAST_SERVER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/udp/udp_cast_base.h"
#include "platform/udp/udp_cast_options.h"
#include "platform/udp/udp_cast_stats.h"
#include "platform/udp/udp_message.h"

namespace kelo {

struct UdpInterface;
class UdpReassembler;
class UdpSocket;

// A member of a multicast group: receives the messages sent to `group`:`port` on one
// interface, calls the callback registered under each message's key on its receive
// thread, and sends messages, answers in particular:
//
//   UdpCastServer* server = UdpCastManager::GetCastServer("224.0.0.88", 2801);
//   server->register_callback("status", [server](const std::string& peer, int port, UdpMessage& m) {
//     UdpMessage reply = m.create_recv("status_recv");
//     reply.write_string("fine");
//     server->send_data(peer, port, reply);
//   });
//
// Any number of servers, in one process or many, may serve one group and port: each gets
// every message. Messages go out from a socket of the server's own (not the shared group
// port), so answers come back to this server alone. Messages it sends to its own group
// reach its own callbacks too. Datagrams that are not valid frames are dropped and
// counted (stats()); they never reach a callback.
//
// Delivery is best effort, as with any datagram: a message arrives whole or not at all.
// Bodies larger than a datagram travel in fragments, paced by the sender; they arrive
// reliably when the receiver's socket buffer holds a burst. Receivers ask for 16 MiB
// buffers, which root is granted and other users get up to net.core.rmem_max.
//
// If the group cannot be joined yet (say the interface is down), the server keeps trying
// every second and says so once on stderr. All members may be called from any thread,
// callbacks included, except the destructor.
class UdpCastServer : public UdpCastBase {
 public:
  // `group` is a dotted IPv4 multicast address and `port` 1 to 65535; anything else
  // gives a server that never works (ok() false, error() says why).
  UdpCastServer(const std::string& group, int port);
  UdpCastServer(const std::string& group, int port, const UdpCastOptions& options);
  // Stops the receive thread, waiting for a callback in progress, and leaves the group.
  // Must not be called from one of this server's callbacks.
  ~UdpCastServer() override;

  // Sends `message` to `peer`:`port`: the group itself, or the sender of a received
  // message as its callback named it. `peer` is a dotted IPv4 address. Returns false when
  // nothing was sent: no group joined yet, a bad address, a message too large (a body of
  // more than 8 MiB), a destination off this host while the interface is loopback, or an
  // error of the system. Delivery is not acknowledged: true means sent, not received.
  bool send_data(const std::string& peer, int port, const UdpMessage& message);

  // Whether the group is joined and messages flow; error() tells why not ("" when ok).
  bool ok() const;
  std::string error() const;

  const std::string& group() const { return group_; }
  int port() const { return port_; }
  const std::string& interface_name() const { return options_.interface_name; }
  // The largest datagram the interface carries unfragmented; bodies beyond one datagram
  // travel in several. 0 until ok().
  size_t max_datagram_bytes() const;
  // The port this server's messages come from, the one its answers go to; 0 until ok().
  int endpoint_port() const;

  // Datagrams dropped on arrival (not frames, bad frames, repeats); see stats().
  uint64_t dropped_datagrams() const;
  UdpCastStats stats() const;

 private:
  bool Open();
  void Run();
  void Drain(const UdpSocket& socket);
  void WaitForWake(int timeout_ms);

  const std::string group_;
  const int port_;
  const UdpCastOptions options_;
  uint32_t group_address_ = 0;
  const uint32_t sender_id_;
  std::atomic<uint32_t> next_id_;

  // Written by Open() before open_ is set, read-only afterwards.
  std::unique_ptr<UdpInterface> interface_;
  std::unique_ptr<UdpSocket> group_socket_;
  std::unique_ptr<UdpSocket> endpoint_socket_;
  std::atomic<bool> open_{false};
  std::atomic<int> endpoint_port_{0};

  std::atomic<bool> stop_{false};
  int wake_fd_ = -1;
  std::unique_ptr<char[]> buffer_;  // receive thread only

  mutable std::mutex mu_;  // guards the members below
  std::string error_;
  bool reported_ = false;
  std::unique_ptr<UdpReassembler> reassembler_;
  uint64_t unhandled_messages_ = 0;
  uint64_t callback_exceptions_ = 0;

  std::thread thread_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_CAST_SERVER_H_
