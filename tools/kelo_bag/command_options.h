#ifndef KELO_TOOLS_KELO_BAG_COMMAND_OPTIONS_H_
#define KELO_TOOLS_KELO_BAG_COMMAND_OPTIONS_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/options/tools_options.h"

namespace kelo {
namespace cli {

// The command lines of the kelo_bag commands other than record (see RecordToolOpt). Each
// is parsed as ToolsOptions parses: a bad command line prints one line and parse()
// returns kFailed; Check() adds what the parser cannot know, as one line, "" when fine.

// Parses a command's command line. True when its settings are loaded; otherwise false with
// `exit_code` set: 0 after --help (followed by what the exit codes mean), 2 after a bad
// command line.
bool ParseCommandLine(ToolsOptions* opt, int argc, const char* const* argv, int* exit_code);

// The positional arguments of the last parse of `opt`, in the order of `argv` (the parser
// keeps them as a set), each once.
std::vector<std::string> PositionalsAsGiven(const ToolsOptions& opt, int argc, const char* const* argv);

// kelo_bag play FILE... [--start S] [--duration D] [--rate R] [--loop] [--topics T,...] [--publish]
class PlayOpt : public ToolsOptions {
 public:
  PlayOpt();
  void register_opts() override;
  void load_opts() override;
  std::string Check() const;

  std::vector<std::string> files;  // in the order given, each once
  int start = 0;                   // seconds after the earliest bag's start
  int duration = 0;                // seconds; 0: to the end
  bool loop = false;
  std::set<std::string> topics;   // regular expressions; empty: every topic
  std::set<std::string> exclude;  // regular expressions
  double rate = 1.0;              // times as fast as recorded; 0 when not a number
  bool paused = false;
  bool publish = false;
  std::map<std::string, std::string> remap;  // topic -> topic published under
  std::string url;
};

// The commands that read messages out of bags and write them elsewhere, sharing one
// command line: cat FILE... [range] [--json]; filter -o OUT FILE... [range]; merge -o OUT
// FILE...; recover -o OUT FILE. A range is --start, --duration, --topics, --exclude as
// for play.
class CopyOpt : public ToolsOptions {
 public:
  enum class Kind { kCat, kFilter, kMerge, kRecover };
  explicit CopyOpt(Kind kind);
  void register_opts() override;
  void load_opts() override;
  std::string Check() const;

  const Kind kind;
  std::vector<std::string> files;  // in the order given, each once
  std::string output;              // the bag written; "" for cat
  int start = 0;                   // seconds after the earliest bag's start
  int duration = 0;                // seconds; 0: to the end
  std::set<std::string> topics;    // regular expressions; empty: every topic
  std::set<std::string> exclude;   // regular expressions
  bool json = false;               // cat: a JSON object a line
};

// kelo_bag info FILE... [--json] [--verify]
class InfoOpt : public ToolsOptions {
 public:
  InfoOpt();
  void register_opts() override;
  void load_opts() override;
  std::string Check() const;

  std::vector<std::string> files;
  bool json = false;
  bool verify = false;  // read every message, not only the summary
};

// kelo_bag monitor [--once] [--json] [--wait MS] [--interface NAME]
class MonitorOpt : public ToolsOptions {
 public:
  MonitorOpt();
  void register_opts() override;
  void load_opts() override;
  std::string Check() const;

  bool once = false;
  bool json = false;
  int wait_ms = 1000;  // how long a query collects answers
  std::string interface;
};

// kelo_bag trigger [--label X] [--wait S] [--interface NAME] [--key KEY]
class TriggerOpt : public ToolsOptions {
 public:
  TriggerOpt();
  void register_opts() override;
  void load_opts() override;
  std::string Check() const;

  std::string label;
  int wait_s = 0;  // 0: as long as the nodes that answered say they need
  std::string interface;
  std::string key;  // signs the trigger for recorders started with --trigger-key
};

// kelo_bag demo [DIR]
class DemoOpt : public ToolsOptions {
 public:
  DemoOpt();
  void load_opts() override;

  std::string directory;  // "" for a fresh temporary folder
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_COMMAND_OPTIONS_H_
