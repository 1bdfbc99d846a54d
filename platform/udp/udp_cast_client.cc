#include "platform/udp/udp_cast_client.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <map>
#include <set>
#include <utility>

#include "platform/udp/udp_cast_manager.h"
#include "platform/udp/udp_message.h"
#include "platform/udp/udp_reassembler.h"
#include "platform/udp/udp_socket.h"

namespace kelo {

namespace {

constexpr size_t kReceiveBufferBytes = 65536;
constexpr int64_t kMaxPollMs = 60000;
// Copies of a query sent after the first, spread over its wait.
constexpr int kQueryResends = 2;

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
  // The copy of the question each member (address and port) answered first: a member
  // that got several copies answers each, and only its answers to one of them count.
  std::map<std::pair<std::string, int>, uint32_t> answered;
  Exchange(group, port, key, body, timeout_ms, kQueryResends,
           [&](const Reply& reply, uint32_t copy, std::chrono::steady_clock::time_point*) {
             if (reply.key != reply_key) {
               ++unhandled_messages_;
               return true;
             }
             if (answered.emplace(std::make_pair(reply.peer, reply.port), copy).first->second != copy) return true;
             replies.push_back(reply);
             return max_replies == 0 || replies.size() < max_replies;
           });
  return replies;
}

bool UdpCastClient::exchange(const std::string& group, int port, const std::string& key,
                             const std::string& body, int timeout_ms, const ReplyHandler& on_reply) {
  return Exchange(group, port, key, body, timeout_ms, 0,
                  [&](const Reply& reply, uint32_t, std::chrono::steady_clock::time_point* deadline) {
                    return on_reply(reply, deadline);
                  });
}

bool UdpCastClient::Exchange(const std::string& group, int port, const std::string& key,
                             const std::string& body, int timeout_ms, int resends, const CopyHandler& on_reply) {
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
  // Every copy of the question goes out under an id of its own: receivers drop a message
  // id they have already seen.
  std::set<uint32_t> ids;
  auto send = [&] {
    if (next_id_ == 0) ++next_id_;
    const uint32_t id = next_id_++;
    ids.insert(id);
    return socket_->SendMessage(*interface_, address, static_cast<uint16_t>(port), sender_id_, id, 0, key, body,
                                &error_);
  };
  if (!send()) return false;

  const Clock::time_point start = Clock::now();
  const auto resend_every = std::chrono::milliseconds(timeout_ms / (resends + 1));
  Clock::time_point deadline = start + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (now >= deadline) break;
    // A question lost on the way (a receiver's buffer overflowing under a burst) is asked
    // again, a few times spread over the wait.
    const int sent = static_cast<int>(ids.size());
    Clock::time_point next_send = deadline;
    if (sent <= resends && resend_every.count() > 0) {
      next_send = start + resend_every * sent;
      if (now >= next_send) {
        send();
        continue;
      }
    }
    // A handler may push the deadline far out; poll in slices that fit its int timeout.
    const auto left = std::min<int64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::min(deadline, next_send) - now).count(),
        kMaxPollMs);
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
      if (ids.count(message.reply_to()) == 0) {
        ++unhandled_messages_;
        continue;
      }
      if (!on_reply(Reply{FormatIpv4(from), from_port, message.body(), message.key()}, message.reply_to(),
                    &deadline))
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
