// kelo_bag: the command people run to record, play back and inspect bags.

#include <cstdio>
#include <cstring>
#include <string>

#include "tools/kelo_bag/commands.h"

namespace {

struct Command {
  const char* name;
  const char* summary;
  int (*run)(int argc, const char* const* argv);
};

const Command kCommands[] = {
    {"record", "record LCM channels into bag files (continuous, or --trigger mode)", kelo::cli::RunRecord},
    {"play", "play bags back at wall-clock pace, onto LCM with --publish", kelo::cli::RunPlay},
    {"info", "describe bags: times, messages, topics, compression, chunks", kelo::cli::RunInfo},
    {"monitor", "show every recorder answering on the monitor group", kelo::cli::RunMonitor},
    {"trigger", "send a trigger and report which recorders saved which file", kelo::cli::RunTrigger},
    {"cat", "print the messages of bags, a line each (time, topic, size, a preview)", kelo::cli::RunCat},
    {"filter", "copy a time range and some topics of bags into a new bag", kelo::cli::RunFilter},
    {"merge", "merge bags into one, in time order", kelo::cli::RunMerge},
    {"recover", "rewrite a damaged or unfinished bag into a whole one, saying what was lost", kelo::cli::RunRecover},
    {"demo", "record, inspect and play back a 10 s demo recording (no network)", kelo::cli::RunDemo},
};

void PrintHelp() {
  std::printf(
      "kelo_bag: record messages of an LCM bus into bag files, play them back, inspect them\n\n"
      "usage: kelo_bag COMMAND [options] [arguments]\n"
      "       kelo_bag COMMAND --help     options of one command\n"
      "       kelo_bag --version          the tool's version\n\n"
      "commands:\n");
  for (const Command& command : kCommands) std::printf("  %-8s %s\n", command.name, command.summary);
  std::fputs(kelo::cli::kExitCodesHelp, stdout);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "kelo_bag: no command given (usage: kelo_bag COMMAND [options]; see --help)\n");
    return 2;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    PrintHelp();
    return 0;
  }
  if (name == "--version") {
    std::printf("kelo_bag %s\n", KELO_BAG_VERSION);
    return 0;
  }
  for (const Command& command : kCommands) {
    if (name == command.name) return command.run(argc - 1, argv + 1);
  }
  std::fprintf(stderr,
               "kelo_bag: unknown command \"%s\" (commands: record, play, info, monitor, trigger, cat, filter, "
               "merge, recover, demo; see --help)\n",
               name.c_str());
  return 2;
}
