#include "tools/kelo_bag/topic_selection.h"

namespace kelo {
namespace cli {

namespace {

constexpr size_t kRemembered = 4096;

bool Compile(const std::set<std::string>& patterns, std::vector<std::regex>* compiled, std::string* wrong) {
  compiled->clear();
  for (const std::string& pattern : patterns) {
    try {
      compiled->emplace_back(pattern);
    } catch (const std::regex_error&) {
      *wrong = "\"" + pattern + "\" is no regular expression";
      return false;
    }
  }
  return true;
}

bool AnyMatches(const std::vector<std::regex>& patterns, const std::string& topic) {
  for (const std::regex& pattern : patterns) {
    if (std::regex_match(topic, pattern)) return true;
  }
  return false;
}

}  // namespace

std::string TopicSelection::Set(const std::set<std::string>& names, const std::set<std::string>& patterns,
                                const std::set<std::string>& excluded) {
  std::string wrong;
  names_ = names;
  decided_.clear();
  if (!Compile(patterns, &patterns_, &wrong)) return wrong;
  Compile(excluded, &excluded_, &wrong);
  return wrong;
}

bool TopicSelection::Selects(const std::string& topic) {
  const auto known = decided_.find(topic);
  if (known != decided_.end()) return known->second;
  const bool taken = (names_.empty() && patterns_.empty()) || names_.count(topic) != 0 ||
                     AnyMatches(patterns_, topic);
  const bool selected = taken && !AnyMatches(excluded_, topic);
  // A bus may carry any number of channel names: only so many answers are kept.
  if (decided_.size() < kRemembered) decided_[topic] = selected;
  return selected;
}

std::vector<std::string> TopicSelection::LiteralNames() const {
  if (!patterns_.empty() || !excluded_.empty()) return {};
  return std::vector<std::string>(names_.begin(), names_.end());
}

}  // namespace cli
}  // namespace kelo
