#ifndef KELO_TOOLS_KELO_BAG_TOPIC_SELECTION_H_
#define KELO_TOOLS_KELO_BAG_TOPIC_SELECTION_H_

#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

namespace kelo {
namespace cli {

// Which topics a command takes: names given literally, regular expressions that must match
// a whole name, and expressions whose matches are left out whatever else takes them. With
// neither names nor expressions to take, every topic is taken (the exclusions aside).
//
//   TopicSelection selection;
//   std::string wrong = selection.Set({"/imu"}, {"/cam.*"}, {".*/raw"});
//   if (selection.Selects("/cam/front")) ...
//
// Not thread-safe: Selects() remembers its answers.
class TopicSelection {
 public:
  // Returns "" or a line saying which pattern is no regular expression.
  std::string Set(const std::set<std::string>& names, const std::set<std::string>& patterns,
                  const std::set<std::string>& excluded);

  bool Selects(const std::string& topic);

  // True when nothing narrows the selection: every topic is taken.
  bool TakesEverything() const { return names_.empty() && patterns_.empty() && excluded_.empty(); }

  // The names to subscribe to literally, when names are all there is to the selection;
  // empty when every topic must be looked at (then Selects() decides).
  std::vector<std::string> LiteralNames() const;

 private:
  std::set<std::string> names_;
  std::vector<std::regex> patterns_;
  std::vector<std::regex> excluded_;
  std::map<std::string, bool> decided_;
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_TOPIC_SELECTION_H_
