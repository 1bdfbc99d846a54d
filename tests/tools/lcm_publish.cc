// A live publisher for the tool's tests and the reliability runs:
//   lcm_publish URL CHANNEL COUNT BYTES RATE_HZ [FIRST]
// publishes COUNT messages of BYTES bytes on CHANNEL, RATE_HZ per second (0: as fast as it
// can), numbered from FIRST (0). Each payload begins with the number, 8 bytes big-endian,
// when it has room for it; the rest is noise drawn from the number, which no codec
// shrinks, so that the bytes reach the disk as they are. Exit code 0 once every
// message was published.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "tools/kelo_bag/lcm_bus.h"

int main(int argc, char** argv) {
  if (argc < 6) {
    std::fprintf(stderr, "usage: lcm_publish URL CHANNEL COUNT BYTES RATE_HZ [FIRST]\n");
    return 2;
  }
  const std::string channel = argv[2];
  const long count = std::atol(argv[3]);
  const size_t bytes = static_cast<size_t>(std::atol(argv[4]));
  const double rate = std::atof(argv[5]);
  const long first = argc > 6 ? std::atol(argv[6]) : 0;
  std::string error;
  std::unique_ptr<kelo::cli::LcmBus> bus = kelo::cli::LcmBus::Open(argv[1], &error);
  if (bus == nullptr) {
    std::fprintf(stderr, "lcm_publish: %s\n", error.c_str());
    return 1;
  }
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < count; ++i) {
    const unsigned long long n = static_cast<unsigned long long>(first + i);
    std::string payload(bytes, '\0');
    unsigned long long x = n * 0x9E3779B97F4A7C15ULL + 1;
    for (size_t b = 8; b < bytes; b += 8) {  // 8 bytes a step: a core keeps up with 1 GB/s
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      std::memcpy(&payload[b], &x, std::min<size_t>(8, bytes - b));
    }
    for (size_t b = 0; b < 8 && b < bytes; ++b) payload[b] = static_cast<char>(n >> (56 - 8 * b));
    if (rate > 0) std::this_thread::sleep_until(start + std::chrono::duration<double>(i / rate));
    if (!bus->Publish(channel, payload)) {
      std::fprintf(stderr, "lcm_publish: message %llu refused\n", n);
      return 1;
    }
  }
  return 0;
}
