// kelo_bag info: describes bags, each and all together, as text or JSON.

#include <cstdio>
#include <string>
#include <vector>

#include <json/value.h>

#include "tools/kelo_bag/bag_info.h"
#include "tools/kelo_bag/command_options.h"
#include "tools/kelo_bag/commands.h"

namespace kelo {
namespace cli {

int RunInfo(int argc, const char* const* argv) {
  InfoOpt opt;
  int exit_code;
  if (!ParseCommandLine(&opt, argc, argv, &exit_code)) return exit_code;
  opt.files = PositionalsAsGiven(opt, argc, argv);
  const std::string wrong = opt.Check();
  if (!wrong.empty()) {
    std::fprintf(stderr, "info: %s (usage: info [OPTIONS] bag_file(s)...; see --help)\n", wrong.c_str());
    return 2;
  }

  std::vector<BagSummary> summaries;
  bool unusable = false;
  bool partial = false;
  for (const std::string& file : opt.files) {
    BagSummary summary;
    std::string error;
    if (!SummarizeBag(file, opt.verify, &summary, &error)) {
      std::fprintf(stderr, "info: %s\n", error.c_str());
      unusable = true;
      continue;
    }
    if (summary.partial) {
      std::fprintf(stderr, "info: %s: %s\n", file.c_str(), UnreadableText(summary).c_str());
      partial = true;
    }
    if (!opt.json) {
      std::fputs(((summaries.empty() ? "" : "\n") + FormatSummary(summary)).c_str(), stdout);
      std::fflush(stdout);
    }
    summaries.push_back(std::move(summary));
  }
  const bool merge = summaries.size() > 1;
  if (opt.json) {
    Json::Value root(Json::objectValue);
    Json::Value& files = root["files"] = Json::Value(Json::arrayValue);
    for (const BagSummary& summary : summaries) files.append(SummaryJson(summary));
    root["merged"] = SummaryJson(MergeSummaries(summaries));
    std::fputs(root.toStyledString().c_str(), stdout);
  } else if (merge) {
    std::fputs(("\n" + FormatSummary(MergeSummaries(summaries))).c_str(), stdout);
  }
  std::fflush(stdout);
  if (unusable) return kExitUnusable;
  return partial ? kExitPartial : kExitOk;
}

}  // namespace cli
}  // namespace kelo
