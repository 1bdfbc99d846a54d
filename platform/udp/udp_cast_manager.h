#ifndef KELO_PLATFORM_UDP_UDP_CAST_MANAGER_H_
#define KELO_PLATFORM_UDP_UDP_CAST_MANAGER_H_

#include <string>

#include "platform/udp/udp_cast_server.h"

namespace kelo {

// The process's cast servers, one per group and port, shared by everyone who asks, and
// the process-wide choice of network interface:
//
//   UdpCastManager::SetInterface("eth0");   // only when the user asks for it
//   UdpCastServer* server = UdpCastManager::GetCastServer("224.0.0.88", 2801);
//
// Until SetInterface() names another, the interface is loopback: nothing is sent off
// this host and nothing from outside is received. All members may be called from any
// thread.
class UdpCastManager {
 public:
  UdpCastManager() = delete;

  // The server for `group`:`port`, created (and its group joined) on first request with
  // the interface in force at that moment; later requests return the same server. Never
  // null. The server belongs to the library and must never be deleted; it lives until the
  // process ends. A bad group or port gives a server that never works (see
  // UdpCastServer::ok()).
  static UdpCastServer* GetCastServer(const std::string& group, int port);

  // Makes `name` the interface of servers and clients created from now on; "" means
  // loopback. Returns false, changing nothing, when no such interface with an IPv4 address
  // exists.
  static bool SetInterface(const std::string& name);
  // The interface in force: "lo" until SetInterface() names another.
  static std::string GetInterface();
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_CAST_MANAGER_H_
