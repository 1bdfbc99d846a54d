// kelo_bag monitor: shows every recorder that answers on the monitor group, refreshed
// every second, or once for scripts.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include <json/writer.h>

#include "platform/udp/udp_cast_manager.h"
#include "record/record_monitor_client.h"
#include "tools/kelo_bag/command_options.h"
#include "tools/kelo_bag/commands.h"
#include "tools/kelo_bag/format_units.h"
#include "tools/kelo_bag/monitor_view.h"

namespace kelo {
namespace cli {

namespace {

std::string CompactJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace

int RunMonitor(int argc, const char* const* argv) {
  MonitorOpt opt;
  int exit_code;
  if (!ParseCommandLine(&opt, argc, argv, &exit_code)) return exit_code;
  const std::string wrong = opt.Check();
  if (!wrong.empty()) {
    std::fprintf(stderr, "monitor: %s (usage: monitor [OPTIONS]; see --help)\n", wrong.c_str());
    return 2;
  }
  if (!opt.interface.empty() && !UdpCastManager::SetInterface(opt.interface)) {
    std::fprintf(stderr, "monitor: no network interface \"%s\" with an IPv4 address (see --help)\n",
                 opt.interface.c_str());
    return 2;
  }

  const bool terminal = isatty(STDOUT_FILENO) != 0;
  RecordMonitorClient client;
  for (;;) {
    const auto started = std::chrono::steady_clock::now();
    const std::vector<RecordMonitorClient::Reply> replies = client.Query(opt.wait_ms);
    if (!client.error().empty()) {
      std::fprintf(stderr, "monitor: cannot query the recorders: %s\n", client.error().c_str());
      return 1;
    }
    if (opt.json) {
      const Json::Value document = MonitorJson(replies);
      std::fputs((opt.once ? document.toStyledString() : CompactJson(document) + "\n").c_str(), stdout);
    } else {
      // On a terminal the table replaces the previous one; elsewhere tables follow each other.
      std::string screen = terminal && !opt.once ? "\033[H\033[2J" : "";
      screen += "recorders answering at " +
                FormatLocalTime(static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                      std::chrono::system_clock::now().time_since_epoch())
                                                      .count())) +
                "\n";
      screen += FormatMonitorTable(replies);
      std::fputs(screen.c_str(), stdout);
    }
    std::fflush(stdout);
    if (opt.once) return 0;
    std::this_thread::sleep_until(started + std::chrono::seconds(1));
  }
}

}  // namespace cli
}  // namespace kelo
