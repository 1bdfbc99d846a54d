// A second process for the monitor tests.
//   monitor_peer serve <node> <dir>   runs a recorder, prints "ready", exits at end of stdin
//   monitor_peer query <timeout_ms>   asks every recorder and prints one line per answer:
//                                     "<node> topics=<n> queue=<q> drop=<d> total=<bytes>"
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "record/bag_record.h"
#include "record/record_monitor_client.h"

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "serve" && argc == 4) {
    kelo::BagRecord record(argv[2], std::string(argv[3]) + "/", 0);
    record.Start();
    record.AppendMessage(1, "/peer", "demo.Peer", "hello");
    while (record.GetRecordMonitor()->queue_size() != 0) usleep(1000);
    std::printf("ready\n");
    std::fflush(stdout);
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    return 0;
  }
  if (mode == "query" && argc == 3) {
    kelo::RecordMonitorClient client;
    for (const auto& reply : client.Query(std::atoi(argv[2]))) {
      const auto& m = reply.monitor;
      std::printf("%s topics=%d queue=%d drop=%d total=%llu\n", m.node_name().c_str(), m.topic_info_size(),
                  m.queue_size(), m.drop_count(),
                  static_cast<unsigned long long>(m.message_info().total_bytes()));
    }
    if (!client.error().empty()) std::fprintf(stderr, "%s\n", client.error().c_str());
    return client.error().empty() ? 0 : 1;
  }
  std::fprintf(stderr, "usage: monitor_peer serve <node> <dir> | query <timeout_ms>\n");
  return 2;
}
