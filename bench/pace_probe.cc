// Measures how late a player puts messages on the bus, for comparing `kelo_bag play
// --publish` with `lcm-logplayer` on the same messages:
//   pace_probe URL CHANNEL COUNT FILE
// takes COUNT messages of CHANNEL (numbered by lcm_publish: the first 8 bytes, big-endian)
// from the bus's multicast group, each stamped by the kernel as it arrived (on loopback,
// inside the player's send), so that the probe's own wake-ups add nothing; then reads when
// each number was due from FILE, a bag (.kelobag) or an LCM log, and prints how late the
// messages after the first came against the schedule that the earliest of them sets:
// median, p99 and max in microseconds, and the first message's own lateness.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <lcm/eventlog.h>

#include "platform/bag/bag_reader.h"

namespace {

uint64_t Number(const void* data, size_t size) {
  uint64_t n = 0;
  for (size_t b = 0; b < 8 && b < size; ++b) n = n << 8 | static_cast<const unsigned char*>(data)[b];
  return n;
}

// A socket in the group and port of an LCM URL "udpm://GROUP:PORT?...", beside any other
// subscriber on this machine, stamping each datagram on arrival; -1 on failure.
int JoinBus(const std::string& url) {
  const size_t host = url.find("://") == std::string::npos ? 0 : url.find("://") + 3;
  const size_t colon = url.find(':', host);
  if (colon == std::string::npos) return -1;
  const std::string group = url.substr(host, colon - host);
  const int port = std::atoi(url.c_str() + colon + 1);
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  const int on = 1, buffer = 4 << 20;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  ip_mreq join{};
  join.imr_interface.s_addr = htonl(INADDR_ANY);
  const timeval patience{30, 0};
  if (fd < 0 || ::inet_pton(AF_INET, group.c_str(), &join.imr_multiaddr) != 1 ||
      ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer) != 0 ||
      ::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0 ||
      ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0 ||
      ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
      ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join) != 0) {
    std::perror("pace_probe");
    return -1;
  }
  return fd;
}

// The next whole message of `channel` (LCM's single-datagram form: "LC02", a sequence
// number, the channel and a NUL, the payload): its number and when the kernel took it in
// µs; false after 30 s without one.
bool Receive(int fd, const std::string& channel, uint64_t* number, int64_t* arrived_us) {
  char datagram[65536];
  alignas(cmsghdr) char control[256];
  for (;;) {
    iovec io{datagram, sizeof datagram};
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(fd, &msg, 0);
    if (n < 0) return false;
    const size_t head = 8 + channel.size() + 1;
    if (static_cast<size_t>(n) < head || std::memcmp(datagram, "LC02", 4) != 0 ||
        std::memcmp(datagram + 8, channel.c_str(), channel.size() + 1) != 0) {
      continue;
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
        timespec at;
        std::memcpy(&at, CMSG_DATA(c), sizeof at);
        *arrived_us = static_cast<int64_t>(at.tv_sec) * 1000000 + at.tv_nsec / 1000;
        *number = Number(datagram + head, static_cast<size_t>(n) - head);
        return true;
      }
    }
  }
}

// When each number was due, in µs of the file's own clock.
std::map<uint64_t, int64_t> DueTimes(const std::string& file) {
  std::map<uint64_t, int64_t> due;
  if (file.size() > 8 && file.compare(file.size() - 8, 8, ".kelobag") == 0) {
    kelo::BagReader reader(file);
    for (; !reader.eof(); reader.next()) {
      const std::shared_ptr<kelo::BagMessage> m = reader.read();
      due.emplace(Number(m->data.data(), m->data.size()), static_cast<int64_t>(m->time) * 1000);
    }
    return due;
  }
  lcm_eventlog_t* log = lcm_eventlog_create(file.c_str(), "r");
  if (log == nullptr) return due;
  while (lcm_eventlog_event_t* e = lcm_eventlog_read_next_event(log)) {
    due.emplace(Number(e->data, static_cast<size_t>(e->datalen)), e->timestamp);
    lcm_eventlog_free_event(e);
  }
  lcm_eventlog_destroy(log);
  return due;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: pace_probe URL CHANNEL COUNT FILE\n");
    return 2;
  }
  const size_t count = static_cast<size_t>(std::atol(argv[3]));
  const int fd = JoinBus(argv[1]);
  if (fd < 0) return 1;
  std::vector<std::pair<uint64_t, int64_t>> arrivals;  // number, µs
  arrivals.reserve(count);
  std::fprintf(stderr, "pace_probe: listening\n");
  uint64_t number;
  int64_t arrived;
  while (arrivals.size() < count && Receive(fd, argv[2], &number, &arrived)) arrivals.emplace_back(number, arrived);
  ::close(fd);
  const std::map<uint64_t, int64_t> due = DueTimes(argv[4]);
  if (arrivals.size() < 3) {
    std::printf("received %zu messages: too few\n", arrivals.size());
    return 1;
  }
  // A player never publishes before a message is due, so the message that arrived
  // earliest against its due time marks the schedule; the others are late by how much
  // later they came against theirs. The first message is reported on its own.
  std::vector<int64_t> offset;
  for (const auto& a : arrivals) offset.push_back(a.second - due.at(a.first));
  const int64_t zero = *std::min_element(offset.begin(), offset.end());
  std::vector<int64_t> late;
  for (size_t i = 1; i < offset.size(); ++i) late.push_back(offset[i] - zero);
  const int64_t first_late = offset[0] - zero;
  std::sort(late.begin(), late.end());
  std::printf("received %zu median %lld p99 %lld max %lld first %lld us\n", arrivals.size(),
              static_cast<long long>(late[late.size() / 2]), static_cast<long long>(late[late.size() * 99 / 100]),
              static_cast<long long>(late.back()), static_cast<long long>(first_late));
  return 0;
}
