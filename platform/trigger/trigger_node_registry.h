#ifndef KELO_PLATFORM_TRIGGER_TRIGGER_NODE_REGISTRY_H_
#define KELO_PLATFORM_TRIGGER_TRIGGER_NODE_REGISTRY_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/trigger/trigger_protocol.h"
#include "platform/udp/udp_cast_server.h"
#include "platform/udp/udp_message.h"

namespace kelo {

// The live trigger nodes of one cast server. A server keeps one callback per key, so the
// registry owns the server's trigger callback and hands each event to every node added
// to it, on the server's receive thread:
//
//   TriggerNodeRegistry* registry = TriggerNodeRegistry::ForServer(server);
//   registry->Add(&listener);      // listener.OnTrigger(...) for every event from now on
//   registry->Remove(&listener);   // not running and never called again
//
// Events whose body does not decode are dropped and counted. Internal to platform/trigger.
class TriggerNodeRegistry {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // Runs on the server's receive thread while the registry's lock is held: it must not
    // block, nor call Add() or Remove().
    virtual void OnTrigger(const std::string& peer, int port, const UdpMessage& event,
                           const trigger_protocol::TriggerEvent& trigger) = 0;
  };

  // The registry of `server`, created (and its callback registered) on first request. It
  // belongs to the library and lives as long as the process, as the server does. May be
  // called from any thread.
  static TriggerNodeRegistry* ForServer(UdpCastServer* server);

  TriggerNodeRegistry(const TriggerNodeRegistry&) = delete;
  TriggerNodeRegistry& operator=(const TriggerNodeRegistry&) = delete;

  // May be called from any thread but the server's receive thread while it dispatches.
  void Add(Listener* listener);
  // On return, `listener` is not being called and never will be again.
  void Remove(Listener* listener);

  // Events dropped because their body did not decode.
  uint64_t malformed_events() const { return malformed_.load(); }

 private:
  explicit TriggerNodeRegistry(UdpCastServer* server);
  void Dispatch(const std::string& peer, int port, UdpMessage& event);

  std::mutex mu_;  // held while dispatching, so Remove() waits for a call in progress
  std::vector<Listener*> listeners_;
  std::atomic<uint64_t> malformed_{0};
};

}  // namespace kelo

#endif  // KELO_PLATFORM_TRIGGER_TRIGGER_NODE_REGISTRY_H_
