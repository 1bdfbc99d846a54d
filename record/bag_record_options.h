#ifndef KELO_RECORD_BAG_RECORD_OPTIONS_H_
#define KELO_RECORD_BAG_RECORD_OPTIONS_H_

#include <set>
#include <string>

#include "platform/options/tools_options.h"

namespace kelo {

// The record tool's command line and the settings the recorder and its writers read.
//
//   BagRecordOpt opt;
//   if (opt.parse(argc, argv) != ToolsOptions::ParseResult::kLoaded) return opt.exit_code();
//   BagRecord record(opt.node_name, opt.output, opt.split_time);
//
// A default-constructed object is usable as it is; BagRecord fills node_name, output and
// split_time itself and completes the names with update_node_name()/update_file_name().
// Settings are plain public members, final once load_opts() has run.
class BagRecordOpt : public ToolsOptions {
 public:
  BagRecordOpt();
  ~BagRecordOpt() override;

  // Declares the record tool's twelve options, their aliases and the inner ones.
  void register_opts() override;
  // Reads every setting from the parsed command line, completes the names, then applies the
  // defaults (reserve 60 s, duration 65 s, cache 2048 MB) and converts MB to bytes. Calling
  // it again re-reads everything, so conversions never compound.
  void load_opts() override;

  // Gives an empty node_name the form kelo_bag_record_<1..10000>, drawn from a generator
  // seeded with the current second (two recorders started in one second get one name). A
  // given name is kept as it is.
  void update_node_name();
  // Completes `output` to the name of the bag file being written: "bag" for an empty name or
  // inside a directory given with a trailing '/', then (unless trigger mode) "_" and the local
  // time as %Y%m%d%H%M%S, then ".kelobag.active". A name that already ends in
  // ".kelobag.active" is kept, so a second call changes nothing.
  void update_file_name();

  std::string node_name;
  std::string output;
  bool all = false;
  bool trigger = false;
  long split_time = 0;     // seconds per part file; below 1 means one file
  long split_size = 0;     // bytes of messages per part file; below 1 means no limit
  long reserve_time = 0;   // trigger mode: seconds kept before the trigger
  long duration_time = 0;  // trigger mode: seconds of the saved window
  long cache_size = 0;     // trigger mode: bytes of the message cache
  long folder_size = 0;    // trigger mode: byte budget of the output folder; 0 = none
  bool debug = false;
  bool discovery = false;
  bool nocatchlimit = false;
  bool nospacelimit = false;
  std::set<std::string> topics;
};

}  // namespace kelo

#endif  // KELO_RECORD_BAG_RECORD_OPTIONS_H_
