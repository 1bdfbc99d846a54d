#ifndef KELO_PLATFORM_OPTIONS_OPTION_INFO_H_
#define KELO_PLATFORM_OPTIONS_OPTION_INFO_H_

#include <string>

namespace kelo {

// One option of a tool's command line, as registered with ToolsOptions.
struct OptionInfo {
  // The kind of value an option takes. The numbers are part of the tools' interface; 3 and 4
  // are reserved.
  enum Type {
    kFlag = 1,    // no value; read with get_bool
    kInt = 2,     // a signed 32-bit integer; read with get_int
    kString = 5,  // one string; read with get_string
    kList = 6,    // strings, one per occurrence or comma-separated; read with get_list
  };

  std::string name;         // long name, given as --name
  std::string description;  // text of --help
  std::string value_name;   // placeholder shown in --help; empty for flags
  Type type = kFlag;
  std::string alias;        // "n" is given as -n, a longer alias such as "fs" as --fs
  bool inner = false;       // accepted but left out of --help
};

}  // namespace kelo

#endif  // KELO_PLATFORM_OPTIONS_OPTION_INFO_H_
