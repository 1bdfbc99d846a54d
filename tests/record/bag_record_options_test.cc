#include <chrono>
#include <cstdlib>
#include <sstream>
#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "record/bag_record_options.h"

namespace kelo {
namespace {

using Result = ToolsOptions::ParseResult;

// Parses a command line of words separated by spaces.
Result Parse(BagRecordOpt* opt, const std::string& line) {
  std::vector<std::string> words = {"kelo_bag"};
  std::istringstream in(line);
  for (std::string word; in >> word;) words.push_back(word);
  std::vector<const char*> args;
  for (const std::string& word : words) args.push_back(word.c_str());
  return opt->parse(static_cast<int>(args.size()), args.data());
}

// The numeric settings as "reserve duration cache folder split debug".
std::string Numbers(const BagRecordOpt& opt) {
  return std::to_string(opt.reserve_time) + " " + std::to_string(opt.duration_time) + " " +
         std::to_string(opt.cache_size) + " " + std::to_string(opt.folder_size) + " " +
         std::to_string(opt.split_time) + " " + std::to_string(opt.debug);
}

// Catches a default applied to a negative, a sign lost or a 32-bit overflow in the MB shift, and a reload compounding.
TEST(BagRecordOptTest, DefaultsAndMegabyteConversionsNeverCompound) {
  for (const auto& [line, numbers] : std::vector<std::pair<const char*, const char*>>{
           {"--cache 1 --fs 10 --debug 1", "60 65 1048576 10485760 0 0"},
           {"--cache -1 --fs -5 --debug debug --debug 3", "60 65 -1048576 -5 0 0"},
           {"--cache 0 --fs 0 --reserve 0 --duration 0 --debug 22", "60 65 2147483648 0 0 0"},
           {"--reserve -1 --duration -2 --debug 1 --debug 2", "-1 -2 2147483648 0 0 1"},
           {"--reserve 70 --duration 65 --debug 1,2,3", "70 65 2147483648 0 0 1"},
           {"--cache 2147483647 --fs 2147483647", "60 65 2251799812636672 2251799812636672 0 0"}}) {
    BagRecordOpt opt;
    ASSERT_EQ(Parse(&opt, line), Result::kLoaded) << opt.error();
    EXPECT_EQ(Numbers(opt), numbers) << line;
    opt.load_opts();  // loading again starts from the parsed values
    EXPECT_EQ(Numbers(opt), numbers) << line;
  }
}

// Catches a UTC stamp (checked in a zone far from UTC), a stamp in trigger mode, and a name completed twice.
TEST(BagRecordOptTest, FileNamesGetTheLocalStampAndTheActiveSuffixOnce) {
  const char* old = std::getenv("TZ");
  const std::string old_tz = old != nullptr ? old : "";
  setenv("TZ", "KST-9", 1);
  // The precise clock, as the stamp's: time() reads a coarse one that can lag a second's turn.
  const auto local_now = [] { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()) + 9 * 3600; };
  // The output given, trigger mode, and what comes before and after the stamp (no stamp without an after).
  for (auto [output, trigger, before, after] : std::vector<std::tuple<std::string, bool, std::string, std::string>>{
           {"", false, "bag_", ".kelobag.active"},
           {"/data/rec/", false, "/data/rec/bag_", ".kelobag.active"},
           {"drive1", false, "drive1_", ".kelobag.active"},
           {"x.kelobag", false, "x.kelobag_", ".kelobag.active"},
           {"/data/rec/", true, "/data/rec/bag.kelobag.active", ""},
           {"x.kelobag.active", false, "x.kelobag.active", ""}}) {
    BagRecordOpt opt;
    opt.output = output;
    opt.trigger = trigger;
    const time_t first = local_now();
    opt.update_file_name();
    std::vector<std::string> allowed;
    for (time_t t : {first, local_now()}) {
      struct tm utc;
      char stamp[40];
      strftime(stamp, sizeof(stamp), "%Y%m%d%H%M%S", gmtime_r(&t, &utc));
      allowed.push_back(after.empty() ? before : before + stamp + after);
    }
    EXPECT_THAT(allowed, testing::Contains(opt.output)) << "'" << output << "'";
    const std::string once = opt.output;
    opt.update_file_name();
    EXPECT_EQ(once, opt.output) << "completing a name twice changes nothing";
  }
  BagRecordOpt loaded;  // loading completes the node's name too
  ASSERT_EQ(Parse(&loaded, "-o /data/rec/"), Result::kLoaded);
  EXPECT_THAT(loaded.node_name, testing::MatchesRegex("kelo_bag_record_([1-9][0-9]{0,3}|10000)"));
  old != nullptr ? setenv("TZ", old_tz.c_str(), 1) : unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace kelo
