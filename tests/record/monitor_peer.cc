// A second process for the monitor tests: `monitor_peer <node> <dir>` runs a recorder with
// one message, prints "ready", and exits at the end of its input.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "record/bag_record.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: monitor_peer <node> <dir>\n");
    return 2;
  }
  kelo::BagRecord record(argv[1], std::string(argv[2]) + "/", 0);
  record.Start();
  record.AppendMessage(1, "/peer", "demo.Peer", "hello");
  while (record.GetRecordMonitor()->queue_size() != 0) usleep(1000);
  std::printf("ready\n");
  std::fflush(stdout);
  for (std::string line; std::getline(std::cin, line);) {
  }
  return 0;
}
