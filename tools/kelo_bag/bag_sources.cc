#include "tools/kelo_bag/bag_sources.h"

#include <cstdio>
#include <memory>

#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_topic.h"
#include "tools/kelo_bag/commands.h"

namespace kelo {
namespace cli {

BagSources::BagSources(const std::string& command, const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    BagReader reader(file);
    const std::string error = reader.get_error();
    if (!error.empty() && !reader.file_info().recovered) {
      std::fprintf(stderr, "%s: %s\n", command.c_str(), error.c_str());
      unusable_ = true;
      continue;
    }
    if (reader.count() == 0) {
      // A part closed before its first chunk loses nothing; one cut inside it does.
      const BagFileInfo& info = reader.file_info();
      if (info.damaged || info.unread_bytes > 0) {
        std::fprintf(stderr, "%s: %s: no messages to read; %llu bytes could not be read\n", command.c_str(),
                     file.c_str(), static_cast<unsigned long long>(info.unread_bytes));
        partial_ = true;
      } else {
        std::fprintf(stderr, "%s: %s: no messages to read\n", command.c_str(), file.c_str());
      }
      continue;
    }
    files_.push_back(file);
    for (const std::shared_ptr<BagTopic>& topic : reader.topics()) topics_.insert(topic->name);
    if (begin_ms_ == 0 || reader.start_time() < begin_ms_) begin_ms_ = reader.start_time();
  }
}

std::set<std::string> BagSources::Select(TopicSelection* selection) const {
  std::set<std::string> chosen;
  for (const std::string& topic : topics_) {
    if (selection->Selects(topic)) chosen.insert(topic);
  }
  return chosen;
}

int BagSources::ExitCode() const { return unusable_ ? kExitUnusable : partial_ ? kExitPartial : kExitOk; }

}  // namespace cli
}  // namespace kelo
