#include "tools/kelo_bag/command_options.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "platform/fileio/file_extension.h"
#include "tools/kelo_bag/commands.h"
#include "tools/kelo_bag/topic_selection.h"

namespace kelo {
namespace cli {

const char kExitCodesHelp[] =
    "\nexit codes:\n"
    "  0  all went well\n"
    "  1  something was lost or could not be done; the last line says how many and why\n"
    "  2  a bad command line, or input that cannot be used at all\n"
    "  3  damaged input was read as far as it could be; each damaged file is named with what\n"
    "     could not be read\n"
    "  (when several apply, the smallest)\n";

bool ParseCommandLine(ToolsOptions* opt, int argc, const char* const* argv, int* exit_code) {
  const ToolsOptions::ParseResult result = opt->parse(argc, argv);
  if (result == ToolsOptions::ParseResult::kLoaded) return true;
  if (result == ToolsOptions::ParseResult::kHelp) std::fputs(kExitCodesHelp, stdout);
  *exit_code = opt->exit_code();
  return false;
}

std::vector<std::string> PositionalsAsGiven(const ToolsOptions& opt, int argc, const char* const* argv) {
  const std::set<std::string> given = opt.get_list(opt.name());
  std::vector<std::string> ordered;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (given.count(arg) != 0 && std::find(ordered.begin(), ordered.end(), arg) == ordered.end()) {
      ordered.push_back(arg);
    }
  }
  // A value the parser took in another form ("--", say) still counts.
  for (const std::string& arg : given) {
    if (std::find(ordered.begin(), ordered.end(), arg) == ordered.end()) ordered.push_back(arg);
  }
  return ordered;
}

namespace {

// --start, --duration, --topics and --exclude, which play, cat and filter read alike.
void RegisterRangeOptions(ToolsOptions* opt) {
  opt->register_opt("start", "start this many seconds after the earliest bag's start (default 0)", "seconds",
                    OptionInfo::kInt);
  opt->register_opt("duration", "take this many seconds (default 0: to the end)", "seconds", OptionInfo::kInt);
  opt->register_opt("topics",
                    "only the topics that one of these regular expressions matches whole (repeat the option or "
                    "separate with commas; default: every topic)",
                    "regex", OptionInfo::kList);
  opt->register_opt("exclude",
                    "leave out the topics that one of these regular expressions matches whole (default: none)",
                    "regex", OptionInfo::kList);
}

}  // namespace

PlayOpt::PlayOpt()
    : ToolsOptions("play", "play bags back at wall-clock pace", "bag_file(s)", OptionInfo::kList) {}

void PlayOpt::register_opts() {
  RegisterRangeOptions(this);
  register_opt("rate", "play this many times as fast as recorded, from 0.1 to 100 (default 1)", "factor",
               OptionInfo::kString);
  register_opt("loop", "play the range again and again", "", OptionInfo::kFlag);
  register_opt("paused", "start paused; space in the terminal starts playback", "", OptionInfo::kFlag);
  register_opt("publish", "put every message back on the LCM bus under its topic", "", OptionInfo::kFlag);
  register_opt("remap", "with --publish, publish topic FROM under TO instead (repeatable; default: none)",
               "FROM:=TO", OptionInfo::kList);
  register_opt("url", "LCM bus URL for --publish (default: LCM_DEFAULT_URL or LCM's own)", "lcm_url",
               OptionInfo::kString);
}

void PlayOpt::load_opts() {
  files.clear();
  for (const std::string& file : get_list(name())) files.push_back(file);
  start = get_int("start", 0);
  duration = get_int("duration", 0);
  loop = get_bool("loop");
  topics = get_list("topics");
  exclude = get_list("exclude");
  const std::string rate_text = get_string("rate", "1");
  char* end = nullptr;
  rate = std::strtod(rate_text.c_str(), &end);
  if (rate_text.empty() || *end != '\0') rate = 0;
  paused = get_bool("paused");
  publish = get_bool("publish");
  remap.clear();
  for (const std::string& pair : get_list("remap")) {
    const size_t at = pair.find(":=");
    remap[pair.substr(0, at)] = at == std::string::npos ? "" : pair.substr(at + 2);
  }
  url = get_string("url", "");
}

std::string PlayOpt::Check() const {
  if (files.empty()) return "give at least one bag file";
  if (start < 0) return "--start must not be negative";
  if (duration < 0) return "--duration must not be negative";
  if (!(rate >= 0.1 && rate <= 100)) return "--rate takes a number from 0.1 to 100";
  const std::string wrong = TopicSelection().Set({}, topics, exclude);
  if (!wrong.empty()) return wrong;
  for (const auto& [from, to] : remap) {
    if (from.empty() || to.empty()) return "--remap takes FROM:=TO, two topic names";
  }
  if (!remap.empty() && !publish) return "--remap is for --publish";
  return "";
}

namespace {

const char* CopyName(CopyOpt::Kind kind) {
  switch (kind) {
    case CopyOpt::Kind::kCat:
      return "cat";
    case CopyOpt::Kind::kFilter:
      return "filter";
    case CopyOpt::Kind::kMerge:
      return "merge";
    case CopyOpt::Kind::kRecover:
      return "recover";
  }
  return "";
}

const char* CopyDescription(CopyOpt::Kind kind) {
  switch (kind) {
    case CopyOpt::Kind::kCat:
      return "print the messages of bags, a line each";
    case CopyOpt::Kind::kFilter:
      return "copy a time range and some topics of bags into a new bag";
    case CopyOpt::Kind::kMerge:
      return "merge bags into one, in time order";
    case CopyOpt::Kind::kRecover:
      return "rewrite a damaged or unfinished bag into a whole one";
  }
  return "";
}

}  // namespace

CopyOpt::CopyOpt(Kind kind)
    : ToolsOptions(CopyName(kind), CopyDescription(kind), "bag_file(s)", OptionInfo::kList), kind(kind) {}

void CopyOpt::register_opts() {
  if (kind != Kind::kCat) {
    register_opt("output", "the bag to write, ending in .kelobag (no default; never an existing file)", "file",
                 OptionInfo::kString);
    set_alias("output", "o");
  }
  if (kind == Kind::kCat || kind == Kind::kFilter) {
    RegisterRangeOptions(this);
  }
  if (kind == Kind::kCat) register_opt("json", "print a JSON object a line instead of text", "", OptionInfo::kFlag);
}

void CopyOpt::load_opts() {
  files.clear();
  for (const std::string& file : get_list(name())) files.push_back(file);
  output = get_string("output", "");
  start = get_int("start", 0);
  duration = get_int("duration", 0);
  topics = get_list("topics");
  exclude = get_list("exclude");
  json = get_bool("json");
}

std::string CopyOpt::Check() const {
  if (files.empty()) return "give at least one bag file";
  if (kind == Kind::kRecover && files.size() != 1) return "give one bag file to recover";
  if (kind != Kind::kCat) {
    const std::string extension = ".kelobag";
    if (output.size() <= extension.size() || !common::util::CheckFileExtension(output, extension)) {
      return "-o must name the bag to write, ending in .kelobag";
    }
  }
  if (start < 0) return "--start must not be negative";
  if (duration < 0) return "--duration must not be negative";
  return TopicSelection().Set({}, topics, exclude);
}

InfoOpt::InfoOpt() : ToolsOptions("info", "describe bag files", "bag_file(s)", OptionInfo::kList) {}

void InfoOpt::register_opts() {
  register_opt("json", "print one JSON document instead of text", "", OptionInfo::kFlag);
  register_opt("verify",
               "read every message and check every chunk (default: describe from the summary, trusting it)",
               "", OptionInfo::kFlag);
}

void InfoOpt::load_opts() {
  files.clear();
  for (const std::string& file : get_list(name())) files.push_back(file);
  json = get_bool("json");
  verify = get_bool("verify");
}

std::string InfoOpt::Check() const { return files.empty() ? "give at least one bag file" : ""; }

MonitorOpt::MonitorOpt()
    : ToolsOptions("monitor", "show the recorders that answer on the monitor group", "",
                   OptionInfo::kString) {}

void MonitorOpt::register_opts() {
  register_opt("once", "query once, print, and exit", "", OptionInfo::kFlag);
  register_opt("json", "print JSON (one document per refresh)", "", OptionInfo::kFlag);
  register_opt("wait", "milliseconds a query collects answers (default 1000)", "ms", OptionInfo::kInt);
  register_opt("interface", "network interface to ask on (default: loopback only)", "name",
               OptionInfo::kString);
}

void MonitorOpt::load_opts() {
  once = get_bool("once");
  json = get_bool("json");
  wait_ms = get_int("wait", 1000);
  interface = get_string("interface", "");
}

std::string MonitorOpt::Check() const {
  return wait_ms < 1 || wait_ms > 60000 ? "--wait must be 1 to 60000 ms" : "";
}

TriggerOpt::TriggerOpt()
    : ToolsOptions("trigger", "send a trigger to every trigger-mode recorder", "", OptionInfo::kString) {}

void TriggerOpt::register_opts() {
  register_opt("label", "label of the trigger, part of the saved file names (default: none)", "label", OptionInfo::kString);
  register_opt("wait", "seconds to wait for the recorders to save (default: as long as they say)", "seconds",
               OptionInfo::kInt);
  register_opt("interface", "network interface to send on (default: loopback only)", "name",
               OptionInfo::kString);
  register_opt("key", "sign the trigger with this shared key, for recorders started with --trigger-key (default: unsigned)",
               "key", OptionInfo::kString);
}

void TriggerOpt::load_opts() {
  label = get_string("label", "");
  wait_s = get_int("wait", 0);
  interface = get_string("interface", "");
  key = get_string("key", "");
}

std::string TriggerOpt::Check() const {
  if (wait_s < 0) return "--wait must not be negative";
  return "";
}

DemoOpt::DemoOpt()
    : ToolsOptions("demo", "record, inspect and play back a demo recording, with no network", "directory",
                   OptionInfo::kString) {}

void DemoOpt::load_opts() { directory = get_string(name(), ""); }

}  // namespace cli
}  // namespace kelo
