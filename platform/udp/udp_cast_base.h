#ifndef KELO_PLATFORM_UDP_UDP_CAST_BASE_H_
#define KELO_PLATFORM_UDP_UDP_CAST_BASE_H_

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/udp/udp_message.h"

namespace kelo {

// The callbacks of a cast receiver, one per message key. A receiver calls the callback
// registered under a message's key on its own receive thread:
//
//   server->register_callback("status", [&](const std::string& peer, int port, UdpMessage& m) {...});
//   ...
//   server->unregister_callback("status");   // the callback is no longer running, nor will it
//
// Callbacks run outside every lock of the library but the one that lets
// unregister_callback() wait for them, so a callback may send, register and unregister.
// All members may be called from any thread, callbacks included.
class UdpCastBase {
 public:
  // `peer` and `port` name the sender's socket: answers sent there reach the asker.
  using Callback = std::function<void(const std::string& peer, int port, UdpMessage& message)>;

  UdpCastBase();
  virtual ~UdpCastBase();

  UdpCastBase(const UdpCastBase&) = delete;
  UdpCastBase& operator=(const UdpCastBase&) = delete;

  // Makes `func` the callback for `key`, replacing any earlier one from the next message
  // on (a call of the earlier one already running finishes undisturbed). An empty `func`
  // removes the key, as unregister_callback() does.
  void register_callback(const std::string& key, Callback func);

  // Removes the callback for `key`. On return no callback for `key` is running on another
  // thread, and none will be called again until a new registration; so what the callback
  // uses may be destroyed. Called from inside the callback itself, it returns at once
  // (the running call continues to its end).
  void unregister_callback(const std::string& key);

  // Whether a callback is registered under `key`.
  bool has_callback(const std::string& key) const;

 protected:
  // Calls the callback registered under message.key() on the calling thread and returns
  // true, or returns false when there is none. What the callback throws passes through.
  bool dispatch(const std::string& peer, int port, UdpMessage& message);

 private:
  struct Running {
    std::string key;
    std::thread::id thread;
  };

  mutable std::mutex mu_;
  std::condition_variable finished_;
  std::map<std::string, std::shared_ptr<const Callback>> callbacks_;
  std::vector<Running> running_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_CAST_BASE_H_
