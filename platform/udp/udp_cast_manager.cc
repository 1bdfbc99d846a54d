#include "platform/udp/udp_cast_manager.h"

#include <map>
#include <mutex>
#include <utility>

#include "platform/udp/udp_socket.h"

namespace kelo {

namespace {

constexpr char kLoopback[] = "lo";

// Never destroyed: servers must outlive every static destructor that might still use
// them, and their receive threads run until the process ends.
struct Registry {
  std::mutex mu;
  std::string interface_name = kLoopback;
  std::map<std::pair<std::string, int>, UdpCastServer*> servers;
};

Registry& GetRegistry() {
  static Registry* registry = new Registry();
  return *registry;
}

}  // namespace

UdpCastServer* UdpCastManager::GetCastServer(const std::string& group, int port) {
  Registry& registry = GetRegistry();
  std::lock_guard<std::mutex> hold(registry.mu);
  UdpCastServer*& server = registry.servers[{group, port}];
  if (server == nullptr) {
    UdpCastOptions options;
    options.interface_name = registry.interface_name;
    server = new UdpCastServer(group, port, options);
  }
  return server;
}

bool UdpCastManager::SetInterface(const std::string& name) {
  const std::string chosen = name.empty() ? kLoopback : name;
  UdpInterface interface;
  std::string error;
  if (!ResolveUdpInterface(chosen, &interface, &error)) return false;
  Registry& registry = GetRegistry();
  std::lock_guard<std::mutex> hold(registry.mu);
  registry.interface_name = chosen;
  return true;
}

std::string UdpCastManager::GetInterface() {
  Registry& registry = GetRegistry();
  std::lock_guard<std::mutex> hold(registry.mu);
  return registry.interface_name;
}

}  // namespace kelo
