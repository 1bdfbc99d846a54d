// The bare subscriber that a recorder's intake is measured against (bench/peers.sh):
//   bus_count URL CHANNEL
// subscribes to CHANNEL with the receive buffer `kelo_bag record` asks for, only counts the
// messages until SIGINT or SIGTERM, then prints "<messages> <kernel drops>".

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>

#include "tools/kelo_bag/lcm_bus.h"

namespace {
volatile std::sig_atomic_t g_stop = 0;
void Stop(int) { g_stop = 1; }
}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: bus_count URL CHANNEL\n");
    return 2;
  }
  std::string error;
  std::unique_ptr<kelo::cli::LcmBus> bus = kelo::cli::LcmBus::Open(kelo::cli::BusUrl(argv[1]), &error);
  if (bus == nullptr) {
    std::fprintf(stderr, "bus_count: %s\n", error.c_str());
    return 1;
  }
  unsigned long long messages = 0;
  bus->Subscribe({argv[2]}, [&messages](const kelo::cli::LcmBus::Message&) { ++messages; });
  std::signal(SIGINT, Stop);
  std::signal(SIGTERM, Stop);
  while (!g_stop) {
    if (bus->Handle(100) < 0 && !g_stop) return 1;  // a failed bus, not the signal
  }
  std::printf("%llu %llu\n", messages, static_cast<unsigned long long>(bus->KernelDrops()));
  return 0;
}
