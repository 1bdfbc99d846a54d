// Uses the installed headers and libraries: parses a record command line and reports
// through the output channel. Exits non-zero when anything does not behave.
#include <iostream>
#include <string>

#include "output/tools_module_output.h"
#include "record/bag_record.h"
#include "record/bag_record_options.h"

int main() {
  kelo::BagRecordOpt opt;
  const char* argv[] = {"kelo_bag", "-n", "consumer_node", "--cache", "1", "/topic_b", "/topic_a"};
  if (opt.parse(7, argv) != kelo::ToolsOptions::ParseResult::kLoaded) return 1;
  if (opt.node_name != "consumer_node" || opt.cache_size != 1048576 || opt.topics.size() != 2) return 2;

  std::string sink;
  kelo::Output output;
  output.set_output_string_func([&sink](const std::string& text) { sink += text; });
  output.print_format("topics: %zu\n", opt.topics.size());
  if (sink != "topics: 2\n") return 3;

  kelo::BagRecord::MessageInfoQueue queue;
  queue.append({10.0, 100});
  queue.append({10.5, 300});
  if (queue.freq() != 2.0 || queue.total_bytes() != 400) return 4;
  std::cout << "consumer ok" << std::endl;
  return 0;
}
