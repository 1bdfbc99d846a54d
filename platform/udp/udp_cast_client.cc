#include "platform/udp/udp_cast_client.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <random>

#include "platform/udp/udp_cast_manager.h"
#include "platform/udp/udp_message.h"
#include "platform/udp/udp_reassembler.h"
#include "platform/udp/udp_socket.h"

namespace kelo {

namespace {

constexpr size_t kReceiveBufferBytes = 65536;
constexpr int64_t kMaxPollMs = 60000;

UdpCastOptions ManagerOptions() {
  UdpCastOptions options;
  options.interface_name = UdpCastManager::GetInterface();
  return options;
}

}  // namespace

UdpCastClient::UdpCastClient() : UdpCastClient(ManagerOptions()) {}

UdpCastClient::UdpCastClient(const UdpCastOptions& options)
    : options_(options),
      sender_id_(static_cast<uint32_t>(std::random_device()())),
      next_id_(1),
      interface_(new UdpInterface()),
      socket_(new UdpSocket()),
      reassembler_(new UdpReassembler(options.reassembly)),
      buffer_(new char[kReceiveBufferBytes]) {}

UdpCastClient::~UdpCastClient() = default;

bool UdpCastClient::Open() {
  if (socket_->is_open()) return true;
  const std::string name = options_.interface_name.empty() ? "lo" : options_.interface_name;
  return ResolveUdpInterface(name, interface_.get(), &error_) && socket_->OpenEndpoint(*interface_, &error_);
}

std::vector<UdpCastClient::Reply> UdpCastClient::query(const std::string& group, int port,
                                                       const std::string& key, const std::string& body,
                                                       const std::string& reply_key, int timeout_ms,
                                                       size_t max_replies) {
  std::vector<Reply> replies;
  exchange(group, port, key, body, timeout_ms,
           [&](const Reply& reply, std::chrono::steady_clock::time_point*) {
             if (reply.key != reply_key) {
               ++unhandled_messages_;
               return true;
             }
             replies.push_back(reply);
             return max_replies == 0 || replies.size() < max_replies;
           });
  return replies;
}

bool UdpCastClient::exchange(const std::string& group, int port, const std::string& key,
                             const std::string& body, int timeout_ms, const ReplyHandler& on_reply) {
  using Clock = std::chrono::steady_clock;
  error_.clear();
  if (!Open()) return false;
  uint32_t address;
  if (!ParseIpv4(group, &address)) {
    error_ = "\"" + group + "\" is not an IPv4 address";
    return false;
  }
  if (port < 1 || port > 65535) {
    error_ = "port " + std::to_string(port) + " out of range";
    return false;
  }
  if (next_id_ == 0) ++next_id_;
  const uint32_t id = next_id_++;
  if (!socket_->SendMessage(*interface_, address, static_cast<uint16_t>(port), sender_id_, id, 0, key, body,
                            &error_)) {
    return false;
  }

  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (now >= deadline) break;
    // A handler may push the deadline far out; poll in slices that fit its int timeout.
    const auto left = std::min<int64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now).count(), kMaxPollMs);
    pollfd fd = {socket_->fd(), POLLIN, 0};
    // Rounded up, so the loop never spins on a sub-millisecond remainder.
    if (poll(&fd, 1, static_cast<int>(left) + 1) <= 0) continue;
    for (;;) {
      uint32_t from;
      uint16_t from_port;
      const ssize_t size = socket_->Receive(buffer_.get(), kReceiveBufferBytes, &from, &from_port);
      if (size < 0) break;
      const int64_t now_ms =
          std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
      UdpMessage message;
      if (!reassembler_->Add(from, from_port, buffer_.get(), static_cast<size_t>(size), now_ms, &message))
        continue;
      if (message.reply_to() != id) {
        ++unhandled_messages_;
        continue;
      }
      if (!on_reply(Reply{FormatIpv4(from), from_port, message.body(), message.key()}, &deadline))
        return true;
    }
  }
  return true;
}

uint64_t UdpCastClient::dropped_datagrams() const { return reassembler_->stats().dropped_datagrams; }

UdpCastStats UdpCastClient::stats() const {
  UdpCastStats s = reassembler_->stats();
  s.unhandled_messages = unhandled_messages_;
  return s;
}

}  // namespace kelo
