// The trigger service in a process of its own, for tests of several processes:
//   trigger_peer nodes NAME...  a node per NAME, noticed at once; prints "ready", then "notice NAME TEXT" per
//       notice, reported saved as "/saved/NAME/TEXT" (blanks as '_'); exits when stdin closes or after a minute
//   trigger_peer send LABEL  sends one trigger for now (20 s timeout, 1 s acknowledgement window), prints
//       "result NODE ANSWERED FILE" per node, then "sent"
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/trigger/trigger_protocol.h"
#include "platform/trigger/trigger_record_node_api.h"
#include "platform/trigger/trigger_sender.h"
#include "platform/udp/udp_cast_manager.h"

namespace {

int RunNodes(const std::vector<std::string>& names) {
  std::mutex out;
  std::vector<std::unique_ptr<kelo::TriggerRecordNodeApi>> nodes;
  for (const std::string& name : names) {
    nodes.emplace_back(new kelo::TriggerRecordNodeApi("peer", name, kelo::fileio::DirectoryPath("/saved"), 0));
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
  std::unique_lock<std::mutex> lock(out);
  std::printf("ready\n");
  std::fflush(stdout);
  lock.unlock();
  pollfd in = {STDIN_FILENO, POLLIN, 0};
  char byte;
  while (poll(&in, 1, 60000) > 0 && read(STDIN_FILENO, &byte, 1) > 0) {
  }
  nodes.clear();
  return 0;
}

int Send(const std::string& label) {
  kelo::TriggerSender::Options options;
  options.ack_window_ms = 1000;
  kelo::TriggerSender sender(options);
  for (const kelo::TriggerSender::NodeResult& r : sender.Send(label, 0, 20000)) {
    std::printf("result %s %d %s\n", r.node.c_str(), r.answered ? 1 : 0, r.file.c_str());
  }
  if (!sender.error().empty()) return std::fprintf(stderr, "%s\n", sender.error().c_str()), 1;
  std::printf("sent\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "nodes" && argc >= 3) return RunNodes(std::vector<std::string>(argv + 2, argv + argc));
  if (mode == "send" && argc == 3) return Send(argv[2]);
  std::fprintf(stderr, "usage: %s nodes NAME... | send LABEL\n", argv[0]);
  return 2;
}
