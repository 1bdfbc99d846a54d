#include "platform/trigger/trigger_node_registry.h"

#include <algorithm>
#include <map>

namespace kelo {

TriggerNodeRegistry* TriggerNodeRegistry::ForServer(UdpCastServer* server) {
  static std::mutex mu;
  // Never freed: the servers they serve are never freed either, and a callback of a server
  // may still be running at process exit.
  static auto* registries = new std::map<UdpCastServer*, TriggerNodeRegistry*>();
  std::lock_guard<std::mutex> lock(mu);
  TriggerNodeRegistry*& registry = (*registries)[server];
  if (registry == nullptr) registry = new TriggerNodeRegistry(server);
  return registry;
}

TriggerNodeRegistry::TriggerNodeRegistry(UdpCastServer* server) {
  server->register_callback(
      trigger_protocol::kTriggerEventKey,
      [this](const std::string& peer, int port, UdpMessage& event) { Dispatch(peer, port, event); });
}

void TriggerNodeRegistry::Add(Listener* listener) {
  std::lock_guard<std::mutex> lock(mu_);
  listeners_.push_back(listener);
}

void TriggerNodeRegistry::Remove(Listener* listener) {
  std::lock_guard<std::mutex> lock(mu_);
  listeners_.erase(std::remove(listeners_.begin(), listeners_.end(), listener), listeners_.end());
}

void TriggerNodeRegistry::Dispatch(const std::string& peer, int port, UdpMessage& event) {
  trigger_protocol::TriggerEvent trigger;
  if (!trigger_protocol::Decode(event.body(), &trigger)) {
    ++malformed_;
    return;
  }
  std::lock_guard<std::mutex> lock(mu_);
  for (Listener* listener : listeners_) listener->OnTrigger(peer, port, event, trigger);
}

}  // namespace kelo
