#ifndef KELO_TOOLS_KELO_BAG_RECORD_TOOL_OPTIONS_H_
#define KELO_TOOLS_KELO_BAG_RECORD_TOOL_OPTIONS_H_

#include <set>
#include <string>

#include "platform/bag/bag_writer_options.h"
#include "record/bag_record_options.h"
#include "tools/kelo_bag/topic_selection.h"

namespace kelo {
namespace cli {

// The command line of `kelo_bag record`: the recorder's own options (BagRecordOpt) and
// what only the tool needs: the LCM bus URL, the cast interface on which the recorder
// answers monitors and triggers, and the chunk compression.
//
//   RecordToolOpt opt;
//   if (opt.parse(argc, argv) != ToolsOptions::ParseResult::kLoaded) return opt.exit_code();
//   if (!opt.Check().empty()) ...   // one line for the user, exit code 2
class RecordToolOpt : public BagRecordOpt {
 public:
  void register_opts() override;
  void load_opts() override;

  // "" when the settings make sense together; otherwise one line saying what is wrong:
  // no topic and no -a, both, an unknown compression, a negative period, size or time, or
  // a trigger-mode option without --trigger.
  std::string Check() const;

  // The writer options that `compression` asks for (zstd unless it names another).
  BagWriterOptions WriterOptions() const;

  // The channels recorded: what Selection() takes.
  TopicSelection Selection() const;

  int max_files = 0;              // completed parts kept; 0: all
  int max_size = 0;               // MB of messages per part; 0: no limit (split_size in bytes)
  std::set<std::string> regex;    // whole-name patterns recorded besides the topics named
  std::set<std::string> exclude;  // whole-name patterns never recorded
  std::string url;          // "" for LCM's default
  std::string interface;    // "" for loopback
  std::string compression;  // "zstd", "lz4" or "none"
  std::string trigger_key;  // trigger mode: take only triggers signed with it ("": any)
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_RECORD_TOOL_OPTIONS_H_
