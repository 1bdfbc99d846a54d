// `monitor_peer <node> <dir>`: a recorder of another process holding one message; prints "ready", exits at end of input.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <string>

#include "record/bag_record.h"

int main(int argc, char** argv) {
  if (argc != 3) return std::fprintf(stderr, "usage: monitor_peer <node> <dir>\n"), 2;
  kelo::BagRecord record(argv[1], std::string(argv[2]) + "/", 0);
  record.Start();
  record.AppendMessage(1, "/peer", "demo.Peer", "hello");
  while (record.GetRecordMonitor()->queue_size() != 0) usleep(1000);
  std::printf("ready\n");
  std::fflush(stdout);
  for (std::string line; std::getline(std::cin, line);) {
  }
}
