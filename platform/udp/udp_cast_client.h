#ifndef KELO_PLATFORM_UDP_UDP_CAST_CLIENT_H_
#define KELO_PLATFORM_UDP_UDP_CAST_CLIENT_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/udp/udp_cast_options.h"
#include "platform/udp/udp_cast_stats.h"

namespace kelo {

struct UdpInterface;
class UdpReassembler;
class UdpSocket;

// A short-lived asker: asks a group a question and collects the answers of every
// member that replies in time, without joining the group or starting a thread:
//
//   UdpCastClient client;
//   for (const UdpCastClient::Reply& r : client.query("224.0.0.88", 2801, "record_monitor", "",
//                                                     "record_monitor_recv", 1000)) {
//     MemoryStream body(r.body);  std::string snapshot;  body.read_string(&snapshot);
//   }
//
// Only answers made for this very query (UdpMessage::create_recv() of it) under the
// reply key count. An exchange() takes answers under any key and lets the caller decide,
// answer by answer, how long to keep listening. One thread at a time per client; clients
// are independent.
class UdpCastClient {
 public:
  struct Reply {
    std::string peer;  // the answering server's address
    int port = 0;      // and the port it answered from
    std::string body;  // the answer's body, as its sender wrote it
    std::string key;   // the answer's key
  };

  // Called by exchange() for each answer as it arrives. `*deadline` is when the exchange
  // will stop listening; the handler may move it, earlier or later. Returning false ends the
  // exchange at once.
  using ReplyHandler =
      std::function<bool(const Reply& reply, std::chrono::steady_clock::time_point* deadline)>;

  // On the interface UdpCastManager has in force.
  UdpCastClient();
  explicit UdpCastClient(const UdpCastOptions& options);
  ~UdpCastClient();

  UdpCastClient(const UdpCastClient&) = delete;
  UdpCastClient& operator=(const UdpCastClient&) = delete;

  // Sends a message under `key` with `body` (raw bytes) to `group`:`port` (a multicast
  // group, or one host's address) and returns, after `timeout_ms`, every answer under
  // `reply_key` in the order they arrived, one per answering message; sooner once
  // `max_replies` answers are in, when it is not 0. The message goes out twice more, a
  // third and two thirds into the wait, so that one lost on the way still gets its
  // answers; of a member (address and port) that answers several copies, only its answers
  // to the first copy it answered count. Returns at once with no replies when the message
  // could not be sent; error() says why.
  std::vector<Reply> query(const std::string& group, int port, const std::string& key,
                           const std::string& body, const std::string& reply_key, int timeout_ms,
                           size_t max_replies = 0);

  // Sends a message under `key` with `body` to `group`:`port`, once, then hands
  // every answer to this very message, whatever its key, to `on_reply` on the calling
  // thread, in the order they arrive, until the deadline (`timeout_ms` after sending, unless
  // the handler moves it) or until the handler returns false. Returns false at once, calling
  // nothing, when the message could not be sent; error() says why.
  bool exchange(const std::string& group, int port, const std::string& key, const std::string& body,
                int timeout_ms, const ReplyHandler& on_reply);

  // Why the last query or exchange could not be sent; "" when it was.
  const std::string& error() const { return error_; }

  // Datagrams dropped on arrival; see stats(). Answers to other questions, or under
  // another key, count as unhandled messages.
  uint64_t dropped_datagrams() const;
  UdpCastStats stats() const;

 private:
  bool Open();
  // As exchange(), with the question sent `resends` times more over the wait; the handler
  // also learns which copy (its message id) each answer is for.
  using CopyHandler =
      std::function<bool(const Reply& reply, uint32_t copy, std::chrono::steady_clock::time_point* deadline)>;
  bool Exchange(const std::string& group, int port, const std::string& key, const std::string& body,
                int timeout_ms, int resends, const CopyHandler& on_reply);

  const UdpCastOptions options_;
  const uint32_t sender_id_;
  uint32_t next_id_;
  std::unique_ptr<UdpInterface> interface_;
  std::unique_ptr<UdpSocket> socket_;
  std::unique_ptr<UdpReassembler> reassembler_;
  std::unique_ptr<char[]> buffer_;
  uint64_t unhandled_messages_ = 0;
  std::string error_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_CAST_CLIENT_H_
