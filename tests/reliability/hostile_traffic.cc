// Hostile traffic for the reliability runs, sent to the group that monitor and trigger
// services share: `hostile_traffic COUNT SEED` sends COUNT datagrams of random bytes, of
// well-framed messages with random bodies under the services' own keys (truncated, cut
// into fragments that never complete, or whole), then from one sender a flood of
// triggers dated far in the future, far in the past, and now.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "platform/trigger/trigger_protocol.h"
#include "platform/trigger/trigger_sender.h"
#include "platform/udp/udp_frame.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: hostile_traffic COUNT SEED\n");
    return 2;
  }
  const long count = std::atol(argv[1]);
  std::mt19937_64 random(std::strtoull(argv[2], nullptr, 10));
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(kelo::trigger_protocol::kPort);
  inet_pton(AF_INET, kelo::trigger_protocol::kGroup, &to.sin_addr);
  const char* keys[] = {kelo::trigger_protocol::kTriggerEventKey, kelo::trigger_protocol::kTriggerAckKey,
                        "record_monitor", "", "x"};
  long sent = 0;
  auto send = [&](const std::string& datagram) {
    sent += sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) >= 0;
  };
  auto noise = [&](size_t n) {
    std::string s(n, '\0');
    for (char& c : s) c = static_cast<char>(random());
    return s;
  };
  for (long i = 0; i < count; ++i) {
    const int kind = static_cast<int>(random() % 4);
    if (kind == 0) {
      send(noise(random() % 2000));
      continue;
    }
    std::vector<std::string> frames;
    kelo::EncodeUdpFrames(static_cast<uint32_t>(random()), static_cast<uint32_t>(random()), 0,
                          keys[random() % 5], noise(random() % 3000), 1400, &frames);
    if (frames.empty()) continue;
    if (kind == 1) {
      std::string& f = frames[random() % frames.size()];
      send(f.substr(0, random() % (f.size() + 1)));  // truncated
    } else if (kind == 2 && frames.size() > 1) {
      send(frames[random() % (frames.size() - 1)]);  // a fragment of a message never completed
    } else {
      for (const std::string& f : frames) send(f);
    }
  }
  // Triggers from one sender: far future, far past, and a flood dated now.
  kelo::TriggerSender::Options quick;
  quick.ack_window_ms = 1;
  kelo::TriggerSender sender(quick);
  long refused_here = 0;
  const long now = static_cast<long>(time(nullptr)) * 1000;
  for (int i = 0; i < 300; ++i) {
    const long when = i % 3 == 0 ? now + 3600L * 1000 * 24 * 365 : i % 3 == 1 ? now - 3600L * 1000 * 24 : 0;
    refused_here += sender.Send("flood" + std::to_string(i), when, 1).empty() && !sender.error().empty();
  }
  close(fd);
  std::printf("sent %ld datagrams, 300 triggers (%ld refused before sending)\n", sent, refused_here);
  return 0;
}
