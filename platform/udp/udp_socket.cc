#include "platform/udp/udp_socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "platform/udp/udp_frame.h"

namespace kelo {

namespace {

// Receive buffers hold a whole burst of the largest message, so a reader that falls
// behind for a moment loses nothing. Only root may exceed the system's limit; others get
// what the limit allows.
constexpr int kReceiveBufferBytes = 16 << 20;

// Large bodies go out in bursts with a pause after each: loopback delivers at once, and a
// reader whose buffer is full loses what comes next. A burst stays well below the receive
// buffer an unprivileged process gets by default (about 200 KB, each datagram counting for
// more than its bytes), and the pause gives the reader time to drain it.
constexpr size_t kBurstBytes = 64 << 10;
constexpr size_t kDatagramOverhead = 1024;
constexpr int kBurstPauseMicros = 1000;

std::string Reason(const std::string& what) { return what + ": " + std::strerror(errno); }

void EnlargeReceiveBuffer(int fd) {
  int size = kReceiveBufferBytes;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  }
}

bool SetInt(int fd, int level, int name, int value, const char* what, std::string* error) {
  if (setsockopt(fd, level, name, &value, sizeof(value)) == 0) return true;
  *error = Reason(what);
  return false;
}

}  // namespace

bool ParseIpv4(const std::string& text, uint32_t* address) {
  in_addr a;
  if (inet_pton(AF_INET, text.c_str(), &a) != 1) return false;
  *address = a.s_addr;
  return true;
}

std::string FormatIpv4(uint32_t address) {
  in_addr a;
  a.s_addr = address;
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &a, text, sizeof(text)) ? text : "";
}

bool IsMulticastIpv4(uint32_t address) { return IN_MULTICAST(ntohl(address)); }

bool ResolveUdpInterface(const std::string& name, UdpInterface* interface, std::string* error) {
  UdpInterface result;
  result.name = name;
  result.index = if_nametoindex(name.c_str());
  if (result.index == 0) {
    *error = "no network interface named \"" + name + "\"";
    return false;
  }
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    *error = Reason("cannot list network interfaces");
    return false;
  }
  bool found = false;
  for (ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
    if (a->ifa_addr == nullptr || a->ifa_addr->sa_family != AF_INET || name != a->ifa_name) continue;
    result.address = reinterpret_cast<const sockaddr_in*>(a->ifa_addr)->sin_addr.s_addr;
    result.loopback = (a->ifa_flags & IFF_LOOPBACK) != 0;
    found = true;
    break;
  }
  freeifaddrs(list);
  if (!found) {
    *error = "network interface \"" + name + "\" has no IPv4 address";
    return false;
  }

  int mtu = 1500;
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd >= 0) {
    ifreq request;
    std::memset(&request, 0, sizeof(request));
    std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFMTU, &request) == 0) mtu = request.ifr_mtu;
    close(fd);
  }
  // Room for the IPv4 and UDP headers.
  const long datagram = static_cast<long>(mtu) - 28;
  result.max_datagram = datagram < static_cast<long>(kUdpMinDatagramBytes)   ? kUdpMinDatagramBytes
                        : datagram > static_cast<long>(kUdpMaxDatagramBytes) ? kUdpMaxDatagramBytes
                                                                             : static_cast<size_t>(datagram);
  *interface = result;
  return true;
}

UdpSocket::UdpSocket() : fd_(-1) {}

UdpSocket::~UdpSocket() { Close(); }

void UdpSocket::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

uint16_t UdpSocket::local_port() const {
  sockaddr_in local;
  socklen_t length = sizeof(local);
  if (fd_ < 0 || getsockname(fd_, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
  return ntohs(local.sin_port);
}

bool UdpSocket::OpenEndpoint(const UdpInterface& interface, std::string* error) {
  Close();
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = Reason("cannot create a UDP socket");
    return false;
  }
  fd_ = fd;
  EnlargeReceiveBuffer(fd);
  if (interface.loopback) {
    // Best effort (it needs privileges on older kernels): the address checks below
    // already keep loopback traffic on the host.
    setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, interface.name.c_str(),
               static_cast<socklen_t>(interface.name.size()));
  }
  sockaddr_in local;
  std::memset(&local, 0, sizeof(local));
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = interface.address;
  local.sin_port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
    *error = Reason("cannot bind to " + FormatIpv4(interface.address));
    Close();
    return false;
  }
  ip_mreqn out;
  std::memset(&out, 0, sizeof(out));
  out.imr_address.s_addr = interface.address;
  out.imr_ifindex = static_cast<int>(interface.index);
  if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof(out)) != 0) {
    *error = Reason("cannot send multicast on " + interface.name);
    Close();
    return false;
  }
  if (!SetInt(fd, IPPROTO_IP, IP_MULTICAST_TTL, 1, "cannot limit the multicast TTL", error) ||
      !SetInt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, 1, "cannot loop multicast back", error)) {
    Close();
    return false;
  }
  return true;
}

bool UdpSocket::OpenGroup(const UdpInterface& interface, uint32_t group, uint16_t port, std::string* error) {
  Close();
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = Reason("cannot create a UDP socket");
    return false;
  }
  fd_ = fd;
  // Every process of the host that serves this group and port gets its own copy. Not
  // SO_REUSEPORT: with it, Linux hands a datagram that comes from another host to one socket
  // of the port, picked by the sender's address, which may be one that joined the group on
  // another interface and drops it.
  if (!SetInt(fd, SOL_SOCKET, SO_REUSEADDR, 1, "cannot share the port", error)) {
    Close();
    return false;
  }
  EnlargeReceiveBuffer(fd);
  // Binding to the group, not to any address, keeps unicast and other groups of the
  // same port out of this socket.
  sockaddr_in local;
  std::memset(&local, 0, sizeof(local));
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = group;
  local.sin_port = htons(port);
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
    *error = Reason("cannot bind to " + FormatIpv4(group) + ":" + std::to_string(port));
    Close();
    return false;
  }
  ip_mreqn join;
  std::memset(&join, 0, sizeof(join));
  join.imr_multiaddr.s_addr = group;
  join.imr_address.s_addr = interface.address;
  join.imr_ifindex = static_cast<int>(interface.index);
  if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof(join)) != 0) {
    *error = Reason("cannot join " + FormatIpv4(group) + " on " + interface.name);
    Close();
    return false;
  }
  // Without this, Linux hands the socket the group's traffic from every interface that
  // any socket of the host joined, not only from ours.
  if (!SetInt(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0, "cannot restrict the group to its interface", error)) {
    Close();
    return false;
  }
  return true;
}

bool UdpSocket::SendMessage(const UdpInterface& interface, uint32_t address, uint16_t port,
                            uint32_t sender_id, uint32_t message_id, uint32_t reply_to, std::string_view key,
                            std::string_view body, std::string* error) const {
  if (fd_ < 0) {
    *error = "not connected";
    return false;
  }
  const bool multicast = IsMulticastIpv4(address);
  if (interface.loopback && !multicast && (ntohl(address) >> 24) != 127) {
    *error = FormatIpv4(address) + " is off this host and the interface is " + interface.name;
    return false;
  }
  if (port == 0) {
    *error = "port 0";
    return false;
  }
  std::vector<std::string> datagrams;
  if (!EncodeUdpFrames(sender_id, message_id, reply_to, key, body, interface.max_datagram, &datagrams)) {
    *error = "message too large (key " + std::to_string(key.size()) + " bytes, body " +
             std::to_string(body.size()) + " bytes)";
    return false;
  }
  sockaddr_in to;
  std::memset(&to, 0, sizeof(to));
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = address;
  to.sin_port = htons(port);
  size_t burst = 0;
  for (const std::string& d : datagrams) {
    if (burst >= kBurstBytes) {
      std::this_thread::sleep_for(std::chrono::microseconds(kBurstPauseMicros));
      burst = 0;
    }
    burst += d.size() + kDatagramOverhead;
    // A full device queue is a moment's congestion: wait for it rather than lose the
    // message, but not forever.
    int attempts = 0;
    while (sendto(fd_, d.data(), d.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) < 0) {
      if ((errno != ENOBUFS && errno != EAGAIN && errno != EINTR) || ++attempts > 1000) {
        *error = Reason("cannot send to " + FormatIpv4(address) + ":" + std::to_string(port));
        return false;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }
  return true;
}

ssize_t UdpSocket::Receive(char* buffer, size_t capacity, uint32_t* address, uint16_t* port) const {
  sockaddr_in from;
  socklen_t length = sizeof(from);
  std::memset(&from, 0, sizeof(from));
  const ssize_t n =
      recvfrom(fd_, buffer, capacity, MSG_DONTWAIT | MSG_TRUNC, reinterpret_cast<sockaddr*>(&from), &length);
  if (n < 0) return -1;
  *address = from.sin_addr.s_addr;
  *port = ntohs(from.sin_port);
  return static_cast<size_t>(n) > capacity ? static_cast<ssize_t>(capacity) : n;
}

}  // namespace kelo
