// Feeds arbitrary command lines to the record command's option parser: words separated by
// NUL bytes, after the program name. Whatever they say, parsing must neither crash nor hang.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "record/bag_record_options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> words = {"kelo_bag"};
  for (size_t start = 0; start <= input.size();) {
    const size_t end = std::min(input.find('\0', start), input.size());
    words.push_back(input.substr(start, end - start));
    start = end + 1;
  }
  std::vector<const char*> argv;
  for (const std::string& w : words) argv.push_back(w.c_str());
  kelo::BagRecordOpt opt;
  opt.parse(static_cast<int>(argv.size()), argv.data());
  return 0;
}
