#include "platform/udp/udp_cast_server.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>

#include "platform/udp/udp_reassembler.h"
#include "platform/udp/udp_socket.h"

namespace kelo {

namespace {

constexpr size_t kReceiveBufferBytes = 65536;
constexpr int kRetryIntervalMs = 1000;
// How often the receive thread looks at partial messages when no datagram comes.
constexpr int kIdleSweepMs = 100;
// Datagrams read from one socket before the other gets its turn.
constexpr int kDrainBatch = 256;

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

uint32_t RandomId() {
  std::random_device device;
  return static_cast<uint32_t>(device());
}

}  // namespace

UdpCastServer::UdpCastServer(const std::string& group, int port)
    : UdpCastServer(group, port, UdpCastOptions()) {}

UdpCastServer::UdpCastServer(const std::string& group, int port, const UdpCastOptions& options)
    : group_(group),
      port_(port),
      options_(options),
      sender_id_(RandomId()),
      next_id_(1),
      interface_(new UdpInterface()),
      group_socket_(new UdpSocket()),
      endpoint_socket_(new UdpSocket()),
      buffer_(new char[kReceiveBufferBytes]),
      reassembler_(new UdpReassembler(options.reassembly)) {
  const std::string where = "udp cast " + group_ + ":" + std::to_string(port_);
  if (!ParseIpv4(group_, &group_address_) || !IsMulticastIpv4(group_address_)) {
    error_ = where + ": \"" + group_ + "\" is not an IPv4 multicast address";
  } else if (port_ < 1 || port_ > 65535) {
    error_ = where + ": port out of range";
  }
  if (!error_.empty()) {
    // No retry can mend a bad address: no thread either.
    std::fprintf(stderr, "%s\n", error_.c_str());
    return;
  }
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  Open();
  thread_ = std::thread(&UdpCastServer::Run, this);
}

UdpCastServer::~UdpCastServer() {
  if (thread_.joinable()) {
    stop_.store(true);
    // Wakes the thread at once; should the write fail, it notices within one sweep.
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t woken = write(wake_fd_, &one, sizeof(one));
    thread_.join();
  }
  if (wake_fd_ >= 0) close(wake_fd_);
}

bool UdpCastServer::Open() {
  const std::string where = "udp cast " + group_ + ":" + std::to_string(port_);
  const std::string name = options_.interface_name.empty() ? "lo" : options_.interface_name;
  std::string reason;
  UdpInterface interface;
  bool opened = ResolveUdpInterface(name, &interface, &reason) &&
                group_socket_->OpenGroup(interface, group_address_, static_cast<uint16_t>(port_), &reason) &&
                endpoint_socket_->OpenEndpoint(interface, &reason);
  std::lock_guard<std::mutex> hold(mu_);
  if (!opened) {
    group_socket_->Close();
    endpoint_socket_->Close();
    error_ = where + ": " + reason;
    // Once per episode: a server retrying every second would otherwise flood stderr.
    if (!reported_) std::fprintf(stderr, "%s (retrying every second)\n", error_.c_str());
    reported_ = true;
    return false;
  }
  if (reported_) std::fprintf(stderr, "%s: joined on %s\n", where.c_str(), name.c_str());
  reported_ = false;
  error_.clear();
  *interface_ = interface;
  endpoint_port_.store(endpoint_socket_->local_port());
  open_.store(true, std::memory_order_release);
  return true;
}

void UdpCastServer::Run() {
  pthread_setname_np(pthread_self(), "udp_cast_recv");
  while (!stop_.load()) {
    if (!open_.load(std::memory_order_acquire)) {
      if (!Open()) WaitForWake(kRetryIntervalMs);
      continue;
    }
    pollfd fds[3] = {
        {group_socket_->fd(), POLLIN, 0}, {endpoint_socket_->fd(), POLLIN, 0}, {wake_fd_, POLLIN, 0}};
    // A timeout or an interrupted poll leaves every revents at 0.
    poll(fds, 3, kIdleSweepMs);
    if (fds[0].revents & POLLIN) Drain(*group_socket_);
    if (fds[1].revents & POLLIN) Drain(*endpoint_socket_);
    std::lock_guard<std::mutex> hold(mu_);
    reassembler_->Expire(NowMs());
  }
}

void UdpCastServer::Drain(const UdpSocket& socket) {
  for (int i = 0; i < kDrainBatch && !stop_.load(); ++i) {
    uint32_t address;
    uint16_t from_port;
    const ssize_t size = socket.Receive(buffer_.get(), kReceiveBufferBytes, &address, &from_port);
    if (size < 0) return;
    UdpMessage message;
    bool complete;
    {
      std::lock_guard<std::mutex> hold(mu_);
      complete =
          reassembler_->Add(address, from_port, buffer_.get(), static_cast<size_t>(size), NowMs(), &message);
    }
    if (!complete) continue;
    bool handled = true;
    try {
      handled = dispatch(FormatIpv4(address), from_port, message);
    } catch (...) {
      // A throwing callback must not take the receive thread, and every other key's
      // callback, down with it.
      std::lock_guard<std::mutex> hold(mu_);
      ++callback_exceptions_;
    }
    if (!handled) {
      std::lock_guard<std::mutex> hold(mu_);
      ++unhandled_messages_;
    }
  }
}

void UdpCastServer::WaitForWake(int timeout_ms) {
  pollfd fd = {wake_fd_, POLLIN, 0};
  poll(&fd, 1, timeout_ms);
}

bool UdpCastServer::send_data(const std::string& peer, int port, const UdpMessage& message) {
  if (!open_.load(std::memory_order_acquire) || port < 1 || port > 65535) return false;
  uint32_t address;
  if (!ParseIpv4(peer, &address)) return false;
  uint32_t id = next_id_.fetch_add(1);
  // 0 means "answers nothing" in a reply, so no message is numbered 0.
  if (id == 0) id = next_id_.fetch_add(1);
  std::string reason;
  return endpoint_socket_->SendMessage(*interface_, address, static_cast<uint16_t>(port), sender_id_, id,
                                       message.reply_to(), message.key(), message.body(), &reason);
}

bool UdpCastServer::ok() const { return open_.load(std::memory_order_acquire); }

std::string UdpCastServer::error() const {
  std::lock_guard<std::mutex> hold(mu_);
  return error_;
}

size_t UdpCastServer::max_datagram_bytes() const {
  return open_.load(std::memory_order_acquire) ? interface_->max_datagram : 0;
}

int UdpCastServer::endpoint_port() const { return endpoint_port_.load(); }

uint64_t UdpCastServer::dropped_datagrams() const { return stats().dropped_datagrams; }

UdpCastStats UdpCastServer::stats() const {
  std::lock_guard<std::mutex> hold(mu_);
  UdpCastStats s = reassembler_->stats();
  s.unhandled_messages = unhandled_messages_;
  s.callback_exceptions = callback_exceptions_;
  return s;
}

}  // namespace kelo
