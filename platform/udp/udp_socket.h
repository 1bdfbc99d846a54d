#ifndef KELO_PLATFORM_UDP_UDP_SOCKET_H_
#define KELO_PLATFORM_UDP_UDP_SOCKET_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelo {

// The network interface cast traffic is confined to.
struct UdpInterface {
  std::string name;
  unsigned int index = 0;
  uint32_t address = 0;  // its IPv4 address, network byte order
  bool loopback = false;
  size_t max_datagram = 0;  // the largest datagram that fits its MTU unfragmented
};

// Looks up interface `name` (it must exist and have an IPv4 address). Returns false with
// a one-line reason in `*error` otherwise.
bool ResolveUdpInterface(const std::string& name, UdpInterface* interface, std::string* error);

// Dotted-quad IPv4 text <-> address in network byte order. Only numeric addresses parse.
bool ParseIpv4(const std::string& text, uint32_t* address);
std::string FormatIpv4(uint32_t address);
bool IsMulticastIpv4(uint32_t address);

// One UDP socket of the cast protocol, closed with its object. Sending and receiving may
// happen on different threads at once; opening and closing may not overlap any other use.
class UdpSocket {
 public:
  UdpSocket();
  ~UdpSocket();

  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;

  // A socket for a sender and for the answers it gets: bound to the interface's address on
  // a port of the system's choosing, so that answers reach this socket alone even when
  // other processes serve the same group and port. Multicast sent from it leaves through
  // the interface only, with a TTL of 1, and loops back to this host's members.
  bool OpenEndpoint(const UdpInterface& interface, std::string* error);

  // A socket that receives what is sent to multicast `group`:`port` on the interface,
  // beside any other sockets of this host that do the same.
  bool OpenGroup(const UdpInterface& interface, uint32_t group, uint16_t port, std::string* error);

  void Close();
  bool is_open() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  // The port the socket is bound to, host byte order; 0 when closed.
  uint16_t local_port() const;

  // Frames a message (see udp_frame.h) and sends its datagrams to `address`:`port`. On a
  // loopback interface, unicast destinations off this host are refused, so nothing ever
  // leaves the host before the user names another interface.
  bool SendMessage(const UdpInterface& interface, uint32_t address, uint16_t port, uint32_t sender_id,
                   uint32_t message_id, uint32_t reply_to, std::string_view key, std::string_view body,
                   std::string* error) const;

  // Reads one waiting datagram into `buffer` without blocking and returns its size (cut
  // to `capacity`), with its sender; returns -1 when nothing waits or on error.
  ssize_t Receive(char* buffer, size_t capacity, uint32_t* address, uint16_t* port) const;

 private:
  int fd_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_SOCKET_H_
