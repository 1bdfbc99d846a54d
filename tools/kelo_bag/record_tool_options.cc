#include "tools/kelo_bag/record_tool_options.h"

#include <sys/stat.h>

#include "platform/fileio/file_extension.h"
#include "tools/kelo_bag/topic_selection.h"

namespace kelo {
namespace cli {

void RecordToolOpt::register_opts() {
  // The recorder's own options, described with their units and defaults; the first
  // registration of a name is the one that holds.
  register_opt("node_name", "name under which monitors and triggers see this recorder (default: kelo_bag_record_N)",
               "name", OptionInfo::kString);
  register_opt("output",
               "where the bags go: a folder (files bag_<time>.kelobag in it), a name base (<base>_<time>.kelobag), "
               "or x.kelobag (default: bag_<time>.kelobag here)",
               "path", OptionInfo::kString);
  register_opt("split_time", "start a new part every this many seconds of message time (default 0: one file)",
               "seconds", OptionInfo::kInt);
  register_opt("max-size", "start a new part before its messages pass this many MB (default 0: no limit)", "MB",
               OptionInfo::kInt);
  register_opt("all", "record every channel (LCM's self-test left out)", "", OptionInfo::kFlag);
  register_opt("trigger", "trigger mode: keep messages in memory, save a file around each trigger", "",
               OptionInfo::kFlag);
  register_opt("reserve", "trigger mode: seconds before the trigger that a file keeps (default 60)", "seconds",
               OptionInfo::kInt);
  register_opt("duration", "trigger mode: seconds a file covers, from its start (default 65)", "seconds",
               OptionInfo::kInt);
  register_opt("cache", "trigger mode: memory that holds the recent messages, in MB (default 2048)", "MB",
               OptionInfo::kInt);
  register_opt("folder_size",
               "trigger mode: delete this recorder's oldest files to keep the folder under this many MB "
               "(default 0: no limit)",
               "MB", OptionInfo::kInt);
  register_opt("nospacelimit", "trigger mode: never delete files for space", "", OptionInfo::kFlag);
  BagRecordOpt::register_opts();
  register_opt("regex", "also record the channels that one of these regular expressions matches whole (repeatable; default: none)",
               "regex", OptionInfo::kList);
  register_opt("exclude", "leave out the channels that one of these regular expressions matches whole (default: none)",
               "regex", OptionInfo::kList);
  register_opt("max-files",
               "with --split_time or --max-size, keep only the last this many completed parts, deleting older ones "
               "(default 0: keep all)",
               "count", OptionInfo::kInt);
  register_opt("url", "LCM bus URL (default: LCM_DEFAULT_URL or LCM's own, with a 4 MB receive buffer)",
               "lcm_url", OptionInfo::kString);
  register_opt("interface", "network interface for monitor and trigger traffic (default: loopback only)",
               "name", OptionInfo::kString);
  register_opt("compression", "chunk compression: zstd (default), lz4 or none", "kind", OptionInfo::kString);
  register_opt("trigger-key",
               "trigger mode: take only triggers signed with this shared key (kelo_bag trigger --key); "
               "default: any trigger",
               "key", OptionInfo::kString);
}

void RecordToolOpt::load_opts() {
  BagRecordOpt::load_opts();
  max_size = get_int("max-size", 0);
  split_size = max_size > 0 ? static_cast<long>(max_size) << 20 : 0;
  // -o as users of other recorders mean it: an existing folder, slash or not, receives the
  // files; "x.kelobag" is the very file written when one file is all there will be, and the
  // base of the parts' names otherwise.
  const std::string given = get_string("output", "");
  std::string base = given;
  struct stat st;
  const std::string extension = ".kelobag";
  if (!base.empty() && base.back() != '/' && stat(base.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    base += "/";
  } else if (base.size() > extension.size() && common::util::CheckFileExtension(base, extension)) {
    if (trigger || split_time != 0 || split_size != 0) {
      base.resize(base.size() - extension.size());
    } else {
      base += ".active";
    }
  }
  if (base != given) {
    output = base;
    update_file_name();
  }
  max_files = get_int("max-files", 0);
  regex = get_list("regex");
  exclude = get_list("exclude");
  url = get_string("url", "");
  interface = get_string("interface", "");
  compression = get_string("compression", "zstd");
  trigger_key = get_string("trigger-key", "");
}

std::string RecordToolOpt::Check() const {
  if (all && (!topics.empty() || !regex.empty())) return "give topic names and --regex, or -a (every channel), not both";
  if (!all && topics.empty() && regex.empty()) return "give the topics to record, --regex, or -a for every channel";
  const std::string wrong = TopicSelection().Set({}, regex, exclude);
  if (!wrong.empty()) return wrong;
  if (compression != "zstd" && compression != "lz4" && compression != "none") {
    return "--compression must be zstd, lz4 or none, not \"" + compression + "\"";
  }
  if (split_time < 0) return "--split_time must not be negative";
  if (max_files < 0) return "--max-files must not be negative";
  if (max_size < 0) return "--max-size must not be negative";
  if (max_size > 0 && trigger) return "--max-size is for plain recording";
  if (max_files > 0 && (trigger || (split_time == 0 && max_size == 0))) {
    return "--max-files is for plain recording with --split_time or --max-size";
  }
  if (!trigger) {
    for (const char* option : {"reserve", "duration", "cache", "folder_size", "trigger-key"}) {
      if (!get_string(option, "").empty()) return std::string("--") + option + " is for --trigger mode";
    }
    if (nospacelimit) return "--nospacelimit is for --trigger mode";
    return "";
  }
  if (reserve_time < 0) return "--reserve must not be negative";
  if (duration_time < 0) return "--duration must not be negative";
  if (cache_size < 0) return "--cache must not be negative";
  if (folder_size < 0) return "--folder_size must not be negative";
  return "";
}

TopicSelection RecordToolOpt::Selection() const {
  TopicSelection selection;
  selection.Set(topics, regex, exclude);  // -a comes with neither names nor patterns
  return selection;
}

BagWriterOptions RecordToolOpt::WriterOptions() const {
  BagWriterOptions options = DefaultBagWriterOptions();
  options.compression = BagCompression::kZstd;
  if (compression == "lz4") options.compression = BagCompression::kLz4;
  if (compression == "none") options.compression = BagCompression::kNone;
  return options;
}

}  // namespace cli
}  // namespace kelo
