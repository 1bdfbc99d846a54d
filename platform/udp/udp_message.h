#ifndef KELO_PLATFORM_UDP_UDP_MESSAGE_H_
#define KELO_PLATFORM_UDP_UDP_MESSAGE_H_

#include <cstdint>
#include <string>
#include <utility>

#include "platform/udp/memory_stream.h"

namespace kelo {

// A message of the cast protocol: a key, which picks the receiver's callback, and a body,
// which is the MemoryStream the message is. A received message also remembers which
// message of its sender it was, so that the reply made by create_recv() is recognised by
// the asker as the answer to that very question:
//
//   void OnQuery(const std::string& peer, int port, UdpMessage& query) {
//     UdpMessage reply = query.create_recv("status_recv");
//     reply.write_string(status);
//     server->send_data(peer, port, reply);
//   }
//
// A value type; one thread at a time per message.
class UdpMessage : public MemoryStream {
 public:
  UdpMessage();
  explicit UdpMessage(std::string key);
  UdpMessage(std::string key, std::string body);
  // A message as it came off the wire: `id` is the number its sender gave it and
  // `reply_to` the number of the message it answers (0 when it answers none).
  UdpMessage(std::string key, std::string body, uint32_t id, uint32_t reply_to);
  ~UdpMessage() override;

  UdpMessage(const UdpMessage&) = default;
  UdpMessage& operator=(const UdpMessage&) = default;
  UdpMessage(UdpMessage&&) = default;
  UdpMessage& operator=(UdpMessage&&) = default;

  const std::string& key() const { return key_; }
  void set_key(std::string key) { key_ = std::move(key); }
  // The body: every byte written, whatever has been read.
  const std::string& body() const { return data(); }

  // A new, empty message under `key` that answers this one. Sending it (to the peer and
  // port the callback was given) reaches the asker, which takes it as its answer.
  UdpMessage create_recv(const std::string& key) const;

  // The sender's number for a received message; 0 for one built locally.
  uint32_t id() const { return id_; }
  // The number of the message this one answers; 0 when it answers none.
  uint32_t reply_to() const { return reply_to_; }

 private:
  std::string key_;
  uint32_t id_;
  uint32_t reply_to_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_UDP_MESSAGE_H_
