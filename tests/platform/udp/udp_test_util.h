#ifndef KELO_TESTS_PLATFORM_UDP_UDP_TEST_UTIL_H_
#define KELO_TESTS_PLATFORM_UDP_UDP_TEST_UTIL_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "platform/udp/udp_cast_base.h"
#include "platform/udp/udp_message.h"

namespace kelo {
namespace testing_udp {

// Waits are generous: sanitizer builds on a busy machine are slow, and a wait that ends
// early on success costs nothing.
constexpr int kWaitMs = 20000;

struct Received {
  std::string peer;
  int port = 0;
  UdpMessage message;
};

// Keeps what a callback was given, for the test thread to wait on.
class Inbox {
 public:
  UdpCastBase::Callback Collect() {
    return [this](const std::string& peer, int port, UdpMessage& message) {
      std::lock_guard<std::mutex> hold(mu_);
      received_.push_back(Received{peer, port, message});
      changed_.notify_all();
    };
  }

  // Whether at least `count` messages arrived within `timeout_ms`.
  bool WaitFor(size_t count, int timeout_ms = kWaitMs) {
    std::unique_lock<std::mutex> hold(mu_);
    return changed_.wait_for(hold, std::chrono::milliseconds(timeout_ms),
                             [&] { return received_.size() >= count; });
  }

  std::vector<Received> received() {
    std::lock_guard<std::mutex> hold(mu_);
    return received_;
  }

  size_t size() {
    std::lock_guard<std::mutex> hold(mu_);
    return received_.size();
  }

 private:
  std::mutex mu_;
  std::condition_variable changed_;
  std::vector<Received> received_;
};

// Polls `condition` until it holds or `timeout_ms` passes; returns its last value.
inline bool Eventually(const std::function<bool()>& condition, int timeout_ms = kWaitMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return condition();
    usleep(2000);
  }
  return true;
}

// A bare UDP socket on loopback, for datagrams the library itself would never send.
class RawSender {
 public:
  RawSender() {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in local;
    std::memset(&local, 0, sizeof(local));
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof(local));
    in_addr out;
    out.s_addr = htonl(INADDR_LOOPBACK);
    setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof(out));
  }
  ~RawSender() { close(fd_); }
  RawSender(const RawSender&) = delete;
  RawSender& operator=(const RawSender&) = delete;

  bool Send(const std::string& datagram, const std::string& address, int port) {
    sockaddr_in to;
    std::memset(&to, 0, sizeof(to));
    to.sin_family = AF_INET;
    inet_pton(AF_INET, address.c_str(), &to.sin_addr);
    to.sin_port = htons(static_cast<uint16_t>(port));
    return sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) ==
           static_cast<ssize_t>(datagram.size());
  }

 private:
  int fd_;
};

}  // namespace testing_udp
}  // namespace kelo

#endif  // KELO_TESTS_PLATFORM_UDP_UDP_TEST_UTIL_H_
