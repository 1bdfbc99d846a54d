// Counts the events of an LCM log file, for comparing our recorder with LCM's own logger:
//   lcmlog_count FILE [CHANNEL]
// prints the number of events (on CHANNEL only, when given) and their payload bytes.

#include <cstdio>
#include <cstring>

#include <lcm/eventlog.h>

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: lcmlog_count FILE [CHANNEL]\n");
    return 2;
  }
  lcm_eventlog_t* log = lcm_eventlog_create(argv[1], "r");
  if (log == nullptr) {
    std::fprintf(stderr, "lcmlog_count: cannot read %s\n", argv[1]);
    return 1;
  }
  unsigned long long events = 0, bytes = 0;
  while (lcm_eventlog_event_t* event = lcm_eventlog_read_next_event(log)) {
    if (argc < 3 || std::strcmp(event->channel, argv[2]) == 0) {
      ++events;
      bytes += static_cast<unsigned long long>(event->datalen);
    }
    lcm_eventlog_free_event(event);
  }
  lcm_eventlog_destroy(log);
  std::printf("%llu %llu\n", events, bytes);
  return 0;
}
