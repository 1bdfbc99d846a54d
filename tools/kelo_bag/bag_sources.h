#ifndef KELO_TOOLS_KELO_BAG_BAG_SOURCES_H_
#define KELO_TOOLS_KELO_BAG_BAG_SOURCES_H_

#include <set>
#include <string>
#include <vector>

#include "tools/kelo_bag/topic_selection.h"

namespace kelo {
namespace cli {

// The bags a command reads messages from (play, cat, filter, merge, recover): each file
// looked at once, those that cannot be used named on stderr after "COMMAND: ", and the
// earliest start time among the rest, from which ranges (--start, --duration) count. A file
// without messages is left out, so that its start time of 0 never becomes the beginning.
//
//   BagSources sources("cat", files);
//   if (sources.files().empty()) return sources.ExitCode();
//   std::set<std::string> chosen = sources.Select(&selection);
class BagSources {
 public:
  BagSources(const std::string& command, const std::vector<std::string>& files);

  const std::vector<std::string>& files() const { return files_; }  // with messages, as given
  long begin_ms() const { return begin_ms_; }
  const std::set<std::string>& topics() const { return topics_; }  // declared by those files

  // The topics of the files that `selection` takes.
  std::set<std::string> Select(TopicSelection* selection) const;

  // A file was no bag at all / one without messages had bytes that could not be read.
  bool unusable() const { return unusable_; }
  bool partial() const { return partial_; }
  // What the files left out call for: kExitUnusable, kExitPartial or kExitOk.
  int ExitCode() const;

 private:
  std::vector<std::string> files_;
  long begin_ms_ = 0;
  std::set<std::string> topics_;
  bool unusable_ = false;
  bool partial_ = false;
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_BAG_SOURCES_H_
