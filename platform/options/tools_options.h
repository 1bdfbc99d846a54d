#ifndef KELO_PLATFORM_OPTIONS_TOOLS_OPTIONS_H_
#define KELO_PLATFORM_OPTIONS_TOOLS_OPTIONS_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/options/option_info.h"

namespace kelo {

// The command line of one tool. A subclass declares its options in register_opts() and
// copies the parsed values into its settings in load_opts(); parse() runs both around the
// parsing itself:
//
//   class MyOpt : public ToolsOptions { ...register_opts()/load_opts()... };
//   MyOpt opt;
//   if (opt.parse(argc, argv) != ToolsOptions::ParseResult::kLoaded) return opt.exit_code();
//
// Positional arguments are read back under the tool's name. A bad command line never
// aborts or throws: parse() prints one line naming the offending option and the usage on
// standard error and returns kFailed. Not thread-safe; parse from one thread, then read.
class ToolsOptions {
 public:
  enum class ParseResult {
    kLoaded,  // parsed and loaded into the settings
    kHelp,    // --help was given; the help text went to standard output
    kFailed,  // a bad command line; error() holds the line printed on standard error
  };

  ToolsOptions(const std::string& name, const std::string& description,
               const std::string& positional_name, OptionInfo::Type positional_type);
  virtual ~ToolsOptions();

  ToolsOptions(const ToolsOptions&) = delete;
  ToolsOptions& operator=(const ToolsOptions&) = delete;

  // Declares the options (register_opt, set_alias, set_inner). Called by parse().
  virtual void register_opts();
  // Reads the parsed values (get_*). Called by parse() after a successful parse.
  virtual void load_opts();

  // Declares an option. A name registered twice keeps its first declaration.
  void register_opt(const std::string& name, const std::string& description,
                    const std::string& value_name, OptionInfo::Type type);
  // Gives a registered option a second name; ignored for an unknown option.
  void set_alias(const std::string& name, const std::string& alias);
  // Hides a registered option from --help; it still parses.
  void set_inner(const std::string& name);

  // Parses argv (argv[0] is the program) against the registered options. Registration runs
  // anew on every call, and values of an earlier parse are forgotten.
  ParseResult parse(int argc, const char* const* argv);

  // The value given for `key`, or `default_value` when the option was not given or is not
  // registered. An option given several times yields its last value.
  std::string get_string(const std::string& key, const std::string& default_value) const;
  int get_int(const std::string& key, int default_value) const;
  // Whether a flag was given; false for an unregistered key.
  bool get_bool(const std::string& key) const;
  // Every value given for a list (or the positional arguments, under the tool's name), in
  // byte order without duplicates; empty when none was given.
  std::set<std::string> get_list(const std::string& key) const;

  // The --help text: the registered options that are not inner, with the positional name.
  std::string help() const;
  // The line printed for the last failed parse(), without its line end; empty otherwise.
  const std::string& error() const { return error_; }
  // What a tool's main returns after parse(): 0 for kLoaded and kHelp, 2 for kFailed.
  int exit_code() const;

  const std::string& name() const { return name_; }
  const std::vector<OptionInfo>& options() const { return options_; }

 private:
  class Parser;

  OptionInfo* find_option(const std::string& name);

  const std::string name_;
  const std::string description_;
  const std::string positional_name_;
  const OptionInfo::Type positional_type_;
  std::vector<OptionInfo> options_;
  // Values of the last parse, by long name (positionals by the tool's name); a flag that
  // was given holds one entry.
  std::map<std::string, std::vector<std::string>> values_;
  std::string error_;
  ParseResult last_result_ = ParseResult::kLoaded;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_OPTIONS_TOOLS_OPTIONS_H_
