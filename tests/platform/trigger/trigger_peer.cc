// The trigger service in a process of its own, for tests of several processes:
//   trigger_peer nodes NAME...  a node per NAME, noticed at once; prints "ready", then "notice NAME TEXT" per
//       notice, reported saved as "/saved/NAME/TEXT" (blanks as '_'); exits 0 on SIGTERM, or after a minute
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/trigger/trigger_protocol.h"
#include "platform/trigger/trigger_record_node_api.h"
#include "platform/udp/udp_cast_manager.h"

namespace {

int RunNodes(const std::vector<std::string>& names) {
  sigset_t stop;  // blocked before any thread starts, so that only sigtimedwait takes it
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
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
  const timespec minute = {60, 0};
  sigtimedwait(&stop, nullptr, &minute);
  nodes.clear();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "nodes" && argc >= 3) return RunNodes(std::vector<std::string>(argv + 2, argv + argc));
  std::fprintf(stderr, "usage: %s nodes NAME...\n", argv[0]);
  return 2;
}
