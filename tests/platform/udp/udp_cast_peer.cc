// A member of a cast group in a process of its own, for tests of several processes
// serving one group and port. Usage: udp_cast_peer GROUP PORT NAME
// It answers "who" with "who_recv" carrying NAME (written with write_string), prints
// "ready" once it has joined, and exits when its standard input closes (or after a minute,
// so a crashed test leaves nothing behind).
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/udp/udp_cast_manager.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s GROUP PORT NAME\n", argv[0]);
    return 2;
  }
  const std::string name = argv[3];
  kelo::UdpCastServer* server = kelo::UdpCastManager::GetCastServer(argv[1], std::atoi(argv[2]));
  if (!server->ok()) {
    std::fprintf(stderr, "%s\n", server->error().c_str());
    return 1;
  }
  server->register_callback("who", [server, name](const std::string& peer, int port, kelo::UdpMessage& m) {
    kelo::UdpMessage reply = m.create_recv("who_recv");
    reply.write_string(name);
    server->send_data(peer, port, reply);
  });
  std::printf("ready\n");
  std::fflush(stdout);
  pollfd in = {STDIN_FILENO, POLLIN, 0};
  char byte;
  while (poll(&in, 1, 60000) > 0 && read(STDIN_FILENO, &byte, 1) > 0) {
  }
  server->unregister_callback("who");
  return 0;
}
