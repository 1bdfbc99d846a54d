#include "platform/options/tools_options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <deque>
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

namespace kelo {

namespace {

bool ParseInt(const std::string& text, int* value) {
  if (text.empty() || text[0] == ' ' || text[0] == '\t') return false;
  errno = 0;
  char* end = nullptr;
  long parsed = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || end != text.c_str() + text.size()) return false;
  if (parsed < INT_MIN || parsed > INT_MAX) return false;
  *value = static_cast<int>(parsed);
  return true;
}

std::string CliName(const std::string& name) {
  return (name.size() == 1 ? "-" : "--") + name;
}

}  // namespace

// Builds a CLI11 application from the registered options for one parse. CLI11 stays an
// implementation detail: nothing of it appears in the header.
class ToolsOptions::Parser {
 public:
  explicit Parser(const ToolsOptions& owner) : app_(owner.description_, owner.name_) {
    app_.set_help_flag("-h,--help", "print this help and exit");
    for (const OptionInfo& info : owner.options_) Add(info);
    if (!owner.positional_name_.empty()) {
      positional_ = app_.add_option(owner.positional_name_, "positional arguments");
      if (owner.positional_type_ == OptionInfo::kList) {
        positional_->expected(0, CLI::detail::expected_max_vector_size);
        positional_->allow_extra_args(true);
        positional_->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
      } else {
        positional_->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
      }
      if (owner.positional_type_ == OptionInfo::kInt) positional_->check(IntValidator());
    }
  }

  CLI::App& app() { return app_; }

  // Copies what was given into `values`.
  void Collect(const ToolsOptions& owner, std::map<std::string, std::vector<std::string>>* values) {
    for (auto& [name, option] : options_) {
      if (option->count() == 0) continue;
      if (flags_.count(name)) {
        if (flags_[name]) (*values)[name] = {"1"};
      } else {
        (*values)[name] = option->results();
      }
    }
    if (positional_ != nullptr && positional_->count() > 0) (*values)[owner.name_] = positional_->results();
  }

 private:
  static CLI::Validator IntValidator() {
    return CLI::Validator(
        [](std::string& text) {
          int ignored;
          return ParseInt(text, &ignored) ? std::string() : "'" + text + "' is not a 32-bit integer";
        },
        "", "int32");
  }

  void Add(const OptionInfo& info) {
    std::string names = "--" + info.name;
    if (!info.alias.empty()) names += "," + CliName(info.alias);
    CLI::Option* option;
    if (info.type == OptionInfo::kFlag) {
      option = app_.add_flag(names, flags_[info.name], info.description);
    } else {
      option = app_.add_option(names, info.description);
      option->type_name(info.value_name);
      if (info.type == OptionInfo::kList) {
        option->delimiter(',');
        option->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
      } else {
        option->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
      }
      if (info.type == OptionInfo::kInt) option->check(IntValidator());
    }
    if (info.inner) option->group("");
    options_.emplace(info.name, option);
  }

  CLI::App app_;
  std::map<std::string, CLI::Option*> options_;
  std::map<std::string, bool> flags_;  // map nodes stay put, so CLI11 may hold references
  CLI::Option* positional_ = nullptr;
};

ToolsOptions::ToolsOptions(const std::string& name, const std::string& description,
                           const std::string& positional_name, OptionInfo::Type positional_type)
    : name_(name), description_(description), positional_name_(positional_name),
      positional_type_(positional_type) {}

ToolsOptions::~ToolsOptions() = default;

void ToolsOptions::register_opts() {}

void ToolsOptions::load_opts() {}

void ToolsOptions::register_opt(const std::string& name, const std::string& description,
                                const std::string& value_name, OptionInfo::Type type) {
  if (find_option(name) != nullptr) return;
  OptionInfo info;
  info.name = name;
  info.description = description;
  info.value_name = value_name;
  info.type = type;
  options_.push_back(info);
}

void ToolsOptions::set_alias(const std::string& name, const std::string& alias) {
  if (OptionInfo* info = find_option(name)) info->alias = alias;
}

void ToolsOptions::set_inner(const std::string& name) {
  if (OptionInfo* info = find_option(name)) info->inner = true;
}

OptionInfo* ToolsOptions::find_option(const std::string& name) {
  for (OptionInfo& info : options_) {
    if (info.name == name) return &info;
  }
  return nullptr;
}

ToolsOptions::ParseResult ToolsOptions::parse(int argc, const char* const* argv) {
  options_.clear();
  values_.clear();
  error_.clear();
  register_opts();
  try {
    Parser parser(*this);
    try {
      parser.app().parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
      std::cout << help() << std::flush;
      return last_result_ = ParseResult::kHelp;
    }
    parser.Collect(*this, &values_);
  } catch (const std::exception& e) {
    values_.clear();
    std::string usage = name_ + " [OPTIONS]";
    if (!positional_name_.empty()) usage += " [" + positional_name_ + "...]";
    error_ = name_ + ": " + e.what() + " (usage: " + usage + "; see --help)";
    std::cerr << error_ << std::endl;
    return last_result_ = ParseResult::kFailed;
  }
  load_opts();
  return last_result_ = ParseResult::kLoaded;
}

std::string ToolsOptions::get_string(const std::string& key, const std::string& default_value) const {
  auto it = values_.find(key);
  return it == values_.end() || it->second.empty() ? default_value : it->second.back();
}

int ToolsOptions::get_int(const std::string& key, int default_value) const {
  auto it = values_.find(key);
  int value;
  if (it == values_.end() || it->second.empty() || !ParseInt(it->second.back(), &value)) {
    return default_value;
  }
  return value;
}

bool ToolsOptions::get_bool(const std::string& key) const { return values_.count(key) != 0; }

std::set<std::string> ToolsOptions::get_list(const std::string& key) const {
  auto it = values_.find(key);
  if (it == values_.end()) return {};
  return std::set<std::string>(it->second.begin(), it->second.end());
}

std::string ToolsOptions::help() const {
  try {
    Parser parser(*this);
    return parser.app().help();
  } catch (const std::exception& e) {
    return name_ + ": " + e.what() + "\n";
  }
}

int ToolsOptions::exit_code() const { return last_result_ == ParseResult::kFailed ? 2 : 0; }

}  // namespace kelo
