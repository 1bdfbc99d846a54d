#include <sys/time.h>

#include <cstdlib>
#include <sstream>
#include <ctime>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST(BagRecordOptTest, EveryOptionParsesByLongNameAndByAlias) {
  for (const char* line :
       {"--node_name car7 --output out/x.kelobag.active --split_time 30 --all --trigger --reserve 5 --duration 9 "
        "--cache 3 --folder_size 4 --debug 2 --discovery --nospacelimit /b /a /b",
        "-n car7 -o out/x.kelobag.active -s 30 -a --trigger --reserve 5 --duration 9 --cache 3 --fs 4 --debug 2 "
        "-D --nospacelimit /b /a"}) {
    BagRecordOpt opt;
    opt.topics = {"/stale"};
    ASSERT_EQ(Parse(&opt, line), Result::kLoaded) << opt.error();
    EXPECT_EQ(opt.node_name + " " + opt.output, "car7 out/x.kelobag.active");
    EXPECT_EQ(Numbers(opt), "5 9 3145728 4194304 30 1");
    EXPECT_TRUE(opt.all && opt.trigger && opt.discovery && opt.nospacelimit && !opt.nocatchlimit);
    EXPECT_EQ(opt.topics, (std::set<std::string>{"/a", "/b"})) << "the stale topic is replaced";
  }
}

// Catches a default applied to a negative, a sign lost or a 32-bit overflow in the MB shift, and a reload compounding.
TEST(BagRecordOptTest, DefaultsAndMegabyteConversionsNeverCompound) {
  const struct {
    const char *line, *numbers;
  } cases[] = {
      {"--cache 1 --fs 10 --debug 1", "60 65 1048576 10485760 0 0"},
      {"--cache -1 --fs -5 --debug debug --debug 3", "60 65 -1048576 -5 0 0"},
      {"--cache 0 --fs 0 --reserve 0 --duration 0 --debug 22", "60 65 2147483648 0 0 0"},
      {"--reserve -1 --duration -2 --debug 1 --debug 2", "-1 -2 2147483648 0 0 1"},
      {"--reserve 70 --duration 65 --debug 1,2,3", "70 65 2147483648 0 0 1"},
      {"--cache 2147483647 --fs 2147483647", "60 65 2251799812636672 2251799812636672 0 0"},
  };
  for (const auto& c : cases) {
    BagRecordOpt opt;
    ASSERT_EQ(Parse(&opt, c.line), Result::kLoaded) << opt.error();
    EXPECT_EQ(Numbers(opt), c.numbers) << c.line;
    opt.load_opts();  // loading again starts from the parsed values
    EXPECT_EQ(Numbers(opt), c.numbers) << c.line;
  }
}

TEST(BagRecordOptTest, NodeNamesAreNumberedByTheSecond) {
  const std::regex pattern("kelo_bag_record_([0-9]+)");
  for (int attempt = 0; attempt < 5; ++attempt) {
    const time_t before = time(nullptr);
    BagRecordOpt first, second;
    first.update_node_name();
    second.update_node_name();
    std::smatch match;
    ASSERT_TRUE(std::regex_match(first.node_name, match, pattern)) << first.node_name;
    EXPECT_GE(std::stoi(match[1]), 1);
    EXPECT_LE(std::stoi(match[1]), 10000);
    if (time(nullptr) != before) continue;  // the second changed in between: try again
    EXPECT_EQ(first.node_name, second.node_name) << "recorders named in one second share their number";
    return;
  }
  FAIL() << "could not name two recorders within one second";
}

// Catches a UTC stamp (checked in a zone far from UTC), a stamp in trigger mode, and a name completed twice.
TEST(BagRecordOptTest, FileNamesGetTheLocalStampAndTheActiveSuffixOnce) {
  const char* old = std::getenv("TZ");
  const std::string old_tz = old != nullptr ? old : "";
  setenv("TZ", "KST-9", 1);
  tzset();
  struct Case {
    std::string output;
    bool trigger;
    std::string before, after;  // around the stamp; no stamp when `after` is empty
  } cases[] = {
      {"", false, "bag_", ".kelobag.active"},
      {"/data/rec/", false, "/data/rec/bag_", ".kelobag.active"},
      {"drive1", false, "drive1_", ".kelobag.active"},
      {"x.kelobag", false, "x.kelobag_", ".kelobag.active"},
      {"/data/rec/", true, "/data/rec/bag.kelobag.active", ""},
      {"x.kelobag.active", false, "x.kelobag.active", ""},
  };
  for (const Case& c : cases) {
    BagRecordOpt opt;
    opt.output = c.output;
    opt.trigger = c.trigger;
    struct timeval now;
    gettimeofday(&now, nullptr);
    time_t first = now.tv_sec + 9 * 3600;
    opt.update_file_name();
    gettimeofday(&now, nullptr);
    time_t last = now.tv_sec + 9 * 3600;
    std::vector<std::string> allowed;
    for (time_t t : {first, last}) {
      struct tm utc;
      gmtime_r(&t, &utc);
      char stamp[40];
      strftime(stamp, sizeof(stamp), "%Y%m%d%H%M%S", &utc);
      allowed.push_back(c.after.empty() ? c.before : c.before + stamp + c.after);
    }
    EXPECT_THAT(allowed, testing::Contains(opt.output)) << "'" << c.output << "'";
    const std::string once = opt.output;
    opt.update_file_name();
    EXPECT_EQ(once, opt.output) << "completing a name twice changes nothing";
  }
  // Loading completes both names from the command line.
  BagRecordOpt loaded;
  ASSERT_EQ(Parse(&loaded, "-o /data/rec/"), Result::kLoaded);
  EXPECT_THAT(loaded.output, testing::MatchesRegex("/data/rec/bag_[0-9]{14}\\.kelobag\\.active"));
  EXPECT_THAT(loaded.node_name, testing::StartsWith("kelo_bag_record_"));
  if (old != nullptr) {
    setenv("TZ", old_tz.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

}  // namespace
}  // namespace kelo
