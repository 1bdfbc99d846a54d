// kelo_bag trigger: sends a trigger to every trigger-mode recorder and reports which
// recorder saved which file.

#include <cstdio>
#include <string>
#include <vector>

#include "platform/trigger/trigger_key.h"
#include "platform/trigger/trigger_notice.h"
#include "platform/trigger/trigger_sender.h"
#include "platform/udp/udp_cast_manager.h"
#include "tools/kelo_bag/command_options.h"
#include "tools/kelo_bag/commands.h"
#include "tools/kelo_bag/format_units.h"

namespace kelo {
namespace cli {

namespace {

// Without --wait, the sender waits as long as the recorders that answered say they need
// (their window, then a margin for saving); this only bounds a recorder that never answers
// again.
constexpr int kDefaultTimeoutMs = 3600 * 1000;

}  // namespace

int RunTrigger(int argc, const char* const* argv) {
  TriggerOpt opt;
  int exit_code;
  if (!ParseCommandLine(&opt, argc, argv, &exit_code)) return exit_code;
  std::string wrong = opt.Check();
  if (wrong.empty() && !TriggerNotice::IsValidLabel(opt.label)) {
    wrong = "--label takes up to " + std::to_string(TriggerNotice::kMaxLabelBytes) +
            " letters, digits, '_', '-' and '.'";
  }
  if (!wrong.empty()) {
    std::fprintf(stderr, "trigger: %s (usage: trigger [OPTIONS]; see --help)\n", wrong.c_str());
    return 2;
  }
  if (!opt.interface.empty() && !UdpCastManager::SetInterface(opt.interface)) {
    std::fprintf(stderr, "trigger: no network interface \"%s\" with an IPv4 address (see --help)\n",
                 opt.interface.c_str());
    return 2;
  }

  std::printf("sending trigger%s%s; waiting for the recorders to save...\n", opt.label.empty() ? "" : " ",
              opt.label.c_str());
  std::fflush(stdout);
  TriggerSender::Options options;
  options.key = TriggerKey(opt.key);
  TriggerSender sender(options);
  const std::vector<TriggerSender::NodeResult> results =
      sender.Send(opt.label, 0, opt.wait_s > 0 ? opt.wait_s * 1000 : kDefaultTimeoutMs);
  if (!sender.error().empty()) {
    std::fprintf(stderr, "trigger: %s\n", sender.error().c_str());
    return 1;
  }
  std::printf("trigger at %s (%ld ms)\n", FormatLocalTime(sender.time_ms()).c_str(), sender.time_ms());
  if (results.empty()) {
    std::printf("no trigger-mode recorder answered\n");
    std::fflush(stdout);
    return 1;
  }
  size_t saved = 0;
  for (const TriggerSender::NodeResult& r : results) {
    std::string what;
    if (r.saved) {
      what = "saved " + r.file;
      ++saved;
    } else if (!r.refused.empty()) {
      what = "refused the trigger: " + r.refused;
    } else if (r.answered) {
      what = "saved nothing (" + (r.why.empty() ? std::string("no message in the window") : r.why) + ")";
    } else {
      what = "did not say what it saved in time";
    }
    std::printf("%s (%s at %s): %s\n", r.node.c_str(), r.name.c_str(), r.peer.c_str(), what.c_str());
  }
  std::printf("%zu of %zu recorders saved a file\n", saved, results.size());
  std::fflush(stdout);
  return saved == results.size() ? kExitOk : kExitLost;
}

}  // namespace cli
}  // namespace kelo
