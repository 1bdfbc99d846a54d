// The trigger service seen from a process of its own, for tests of several processes.
//
//   trigger_peer nodes DURATION NAME...   one recording node per NAME; each notice is printed
//                                         as "notice NAME TEXT" and reported saved as the
//                                         file "/saved/NAME/TEXT" (blanks as '_'); prints
//                                         "ready" once joined, exits when stdin closes (or
//                                         after a minute, so a crashed test leaves nothing)
//   trigger_peer send LABEL TIMEOUT_MS ACK_WINDOW_MS
//                                         sends one trigger for now and prints one line
//                                         "result NODE ANSWERED FILE" per node, then "sent"
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/trigger/trigger_protocol.h"
#include "platform/trigger/trigger_record_node_api.h"
#include "platform/trigger/trigger_sender.h"
#include "platform/udp/udp_cast_manager.h"

namespace {

int RunNodes(unsigned int duration, const std::vector<std::string>& names) {
  std::mutex out;
  std::vector<std::unique_ptr<kelo::TriggerRecordNodeApi>> nodes;
  for (const std::string& name : names) {
    nodes.emplace_back(
        new kelo::TriggerRecordNodeApi("peer", name, kelo::fileio::DirectoryPath("/saved"), duration));
    kelo::TriggerRecordNodeApi* node = nodes.back().get();
    node->SetNotifyCallback([node, name, &out](const std::string& notice) {
      std::string file = "/saved/" + name + "/" + notice;
      std::replace(file.begin(), file.end(), ' ', '_');
      node->ReportSaved(notice, file);
      std::lock_guard<std::mutex> lock(out);
      std::printf("notice %s %s\n", name.c_str(), notice.c_str());
      std::fflush(stdout);
    });
  }
  kelo::UdpCastServer* server =
      kelo::UdpCastManager::GetCastServer(kelo::trigger_protocol::kGroup, kelo::trigger_protocol::kPort);
  if (!server->ok()) return std::fprintf(stderr, "%s\n", server->error().c_str()), 1;
  {
    std::lock_guard<std::mutex> lock(out);
    std::printf("ready\n");
    std::fflush(stdout);
  }
  pollfd in = {STDIN_FILENO, POLLIN, 0};
  char byte;
  while (poll(&in, 1, 60000) > 0 && read(STDIN_FILENO, &byte, 1) > 0) {
  }
  nodes.clear();
  return 0;
}

int Send(const std::string& label, int timeout_ms, int ack_window_ms) {
  kelo::TriggerSender::Options options;
  options.ack_window_ms = ack_window_ms;
  kelo::TriggerSender sender(options);
  for (const kelo::TriggerSender::NodeResult& r : sender.Send(label, 0, timeout_ms)) {
    std::printf("result %s %d %s\n", r.node.c_str(), r.answered ? 1 : 0, r.file.c_str());
  }
  if (!sender.error().empty()) return std::fprintf(stderr, "%s\n", sender.error().c_str()), 1;
  std::printf("sent\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "nodes" && argc >= 4) {
    return RunNodes(static_cast<unsigned int>(std::atoi(argv[2])),
                    std::vector<std::string>(argv + 3, argv + argc));
  }
  if (mode == "send" && argc == 5) return Send(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  std::fprintf(stderr, "usage: %s nodes DURATION NAME... | send LABEL TIMEOUT_MS ACK_WINDOW_MS\n", argv[0]);
  return 2;
}
