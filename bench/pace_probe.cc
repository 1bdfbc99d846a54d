// Measures how late a player puts messages on the bus, for comparing `kelo_bag play
// --publish` with `lcm-logplayer` on the same messages:
//   pace_probe URL CHANNEL COUNT FILE
// takes COUNT messages of CHANNEL (numbered by lcm_publish: the first 8 bytes, big-endian),
// stamping each on arrival, then reads when each number was due from FILE, a bag
// (.kelobag) or an LCM log, and prints how late the messages after the first came against
// the schedule that the earliest of them sets: median, p99 and max in microseconds, and
// the first message's own lateness.

#include <sys/time.h>

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
#include <lcm/lcm.h>

#include "platform/bag/bag_reader.h"

namespace {

int64_t NowUs() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

uint64_t Number(const void* data, size_t size) {
  uint64_t n = 0;
  for (size_t b = 0; b < 8 && b < size; ++b) n = n << 8 | static_cast<const unsigned char*>(data)[b];
  return n;
}

struct Probe {
  std::vector<std::pair<uint64_t, int64_t>> arrivals;  // number, µs
};

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
  lcm_t* lcm = lcm_create(argv[1]);
  if (lcm == nullptr) return 1;
  Probe probe;
  probe.arrivals.reserve(count);
  lcm_subscribe(
      lcm, argv[2],
      [](const lcm_recv_buf_t* rbuf, const char*, void* user) {
        static_cast<Probe*>(user)->arrivals.emplace_back(Number(rbuf->data, rbuf->data_size), NowUs());
      },
      &probe);
  std::fprintf(stderr, "pace_probe: listening\n");
  while (probe.arrivals.size() < count) {
    if (lcm_handle_timeout(lcm, 30000) <= 0) break;
  }
  lcm_destroy(lcm);
  const std::map<uint64_t, int64_t> due = DueTimes(argv[4]);
  if (probe.arrivals.size() < 3) {
    std::printf("received %zu messages: too few\n", probe.arrivals.size());
    return 1;
  }
  // A player never publishes before a message is due, so the message that arrived
  // earliest against its due time marks the schedule; the others are late by how much
  // later they came against theirs. The first message is reported on its own.
  std::vector<int64_t> offset;
  for (const auto& a : probe.arrivals) offset.push_back(a.second - due.at(a.first));
  const int64_t zero = *std::min_element(offset.begin(), offset.end());
  std::vector<int64_t> late;
  for (size_t i = 1; i < offset.size(); ++i) late.push_back(offset[i] - zero);
  const int64_t first_late = offset[0] - zero;
  std::sort(late.begin(), late.end());
  std::printf("received %zu median %lld p99 %lld max %lld first %lld us\n", probe.arrivals.size(),
              static_cast<long long>(late[late.size() / 2]), static_cast<long long>(late[late.size() * 99 / 100]),
              static_cast<long long>(late.back()), static_cast<long long>(first_late));
  return 0;
}
