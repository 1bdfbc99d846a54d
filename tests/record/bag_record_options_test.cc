#include <sys/time.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record/bag_record_options.h"

namespace kelo {
namespace {

using testing::HasSubstr;
using testing::Not;
using Result = ToolsOptions::ParseResult;

Result Parse(BagRecordOpt* opt, std::vector<const char*> args) {
  args.insert(args.begin(), "kelo_bag");
  return opt->parse(static_cast<int>(args.size()), args.data());
}

// The clock the naming reads; time() may lag it by a coarse tick around a second boundary.
time_t NowSeconds() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return now.tv_sec;
}

// Every check of a stamp runs in a zone far from UTC, so a stamp made from UTC or from the
// machine's zone cannot pass by accident.
class FixedTimeZone : public testing::Test {
 protected:
  void SetUp() override {
    const char* old = std::getenv("TZ");
    had_tz_ = old != nullptr;
    if (had_tz_) old_tz_ = old;
    setenv("TZ", "KST-9", 1);
    tzset();
  }
  void TearDown() override {
    if (had_tz_) {
      setenv("TZ", old_tz_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

  // The stamp of `seconds` in UTC+9, computed without the local-time functions.
  static std::string StampAt(time_t seconds) {
    seconds += 9 * 3600;
    struct tm utc;
    gmtime_r(&seconds, &utc);
    char text[40];
    strftime(text, sizeof(text), "%Y%m%d%H%M%S", &utc);
    return text;
  }

  // Completes `output` and checks it against `expected_before + stamp + expected_after`,
  // allowing for the clock crossing a second during the call.
  static void ExpectStamped(const std::string& output, bool trigger, const std::string& expected_before,
                            const std::string& expected_after) {
    BagRecordOpt opt;
    opt.output = output;
    opt.trigger = trigger;
    time_t before = NowSeconds();
    opt.update_file_name();
    time_t after = NowSeconds();
    EXPECT_TRUE(opt.output == expected_before + StampAt(before) + expected_after ||
                opt.output == expected_before + StampAt(after) + expected_after)
        << "'" << output << "' became " << opt.output;
  }

 private:
  bool had_tz_ = false;
  std::string old_tz_;
};

TEST(BagRecordOptTest, ConstructionGivesEmptyNamesAndZeroSettings) {
  BagRecordOpt opt;
  EXPECT_EQ(opt.node_name, "");
  EXPECT_EQ(opt.output, "");
  EXPECT_FALSE(opt.trigger);
  EXPECT_FALSE(opt.nocatchlimit);
  EXPECT_FALSE(opt.nospacelimit);
  EXPECT_FALSE(opt.all);
  EXPECT_FALSE(opt.debug);
  EXPECT_FALSE(opt.discovery);
  EXPECT_EQ(opt.split_time, 0);
  EXPECT_EQ(opt.reserve_time, 0);
  EXPECT_EQ(opt.duration_time, 0);
  EXPECT_EQ(opt.cache_size, 0);
  EXPECT_EQ(opt.folder_size, 0);
  EXPECT_TRUE(opt.topics.empty());
}

TEST(BagRecordOptTest, EveryOptionParsesByLongNameAndByAlias) {
  const std::vector<std::vector<const char*>> spellings = {
      {"--node_name", "car7", "--output", "out/x.kelobag.active", "--split_time", "30", "--all", "--trigger",
       "--reserve", "5", "--duration", "9", "--cache", "3", "--folder_size", "4", "--debug", "2", "--discovery",
       "--nospacelimit", "/b", "/a"},
      {"-n", "car7", "-o", "out/x.kelobag.active", "-s", "30", "-a", "--trigger", "--reserve", "5", "--duration",
       "9", "--cache", "3", "--fs", "4", "--debug", "2", "-D", "--nospacelimit", "/b", "/a"},
  };
  for (const auto& args : spellings) {
    BagRecordOpt opt;
    ASSERT_EQ(Parse(&opt, args), Result::kLoaded) << opt.error();
    EXPECT_EQ(opt.node_name, "car7");
    EXPECT_EQ(opt.output, "out/x.kelobag.active");
    EXPECT_EQ(opt.split_time, 30);
    EXPECT_TRUE(opt.all);
    EXPECT_TRUE(opt.trigger);
    EXPECT_EQ(opt.reserve_time, 5);
    EXPECT_EQ(opt.duration_time, 9);
    EXPECT_EQ(opt.cache_size, 3L << 20);
    EXPECT_EQ(opt.folder_size, 4L << 20);
    EXPECT_TRUE(opt.debug);
    EXPECT_TRUE(opt.discovery);
    EXPECT_TRUE(opt.nospacelimit);
    EXPECT_EQ(opt.topics, (std::set<std::string>{"/a", "/b"}));
  }
}

TEST(BagRecordOptTest, AliasesAreCaseSensitiveAndOnlyFolderSizeHasALongOne) {
  BagRecordOpt upper;
  ASSERT_EQ(Parse(&upper, {"-D"}), Result::kLoaded);
  EXPECT_TRUE(upper.discovery);

  for (auto args : std::vector<std::vector<const char*>>{
           {"-d"}, {"-N", "x"}, {"-S", "1"}, {"--n", "x"}, {"-fs", "1"}, {"--nocatchlimit"}, {"--cs", "1"}}) {
    BagRecordOpt opt;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Parse(&opt, args), Result::kFailed) << args[0];
    EXPECT_EQ(testing::internal::GetCapturedStderr(), opt.error() + "\n");
    EXPECT_THAT(opt.error(), HasSubstr(args[0]));
  }
}

TEST(BagRecordOptTest, MalformedIntegerNamesItsOption) {
  for (auto [option, value] : std::vector<std::pair<const char*, const char*>>{
           {"-s", "ten"}, {"--reserve", "1.5"}, {"--duration", "9x"}, {"--cache", "4294967296"}, {"--fs", "big"}}) {
    BagRecordOpt opt;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Parse(&opt, {option, value}), Result::kFailed) << option;
    testing::internal::GetCapturedStderr();
    EXPECT_THAT(opt.error(), HasSubstr("record"));
    EXPECT_THAT(opt.error(), HasSubstr(value));
  }
}

TEST(BagRecordOptTest, HelpListsThePublicOptionsOnly) {
  BagRecordOpt opt;
  testing::internal::CaptureStdout();
  ASSERT_EQ(Parse(&opt, {"--help"}), Result::kHelp);
  std::string help = testing::internal::GetCapturedStdout();
  for (const char* shown : {"--node_name", "-n", "--output", "--split_time", "actual mode split time", "--all",
                            "--trigger", "--reserve", "--duration", "trigger mode cache size, unit MB", "--fs",
                            "--nospacelimit", "topic_name(s)", "bag_name"}) {
    EXPECT_THAT(help, HasSubstr(shown));
  }
  EXPECT_THAT(help, Not(HasSubstr("--debug")));
  EXPECT_THAT(help, Not(HasSubstr("discovery")));
}

TEST(BagRecordOptTest, TriggerDefaultsAndMegabyteConversions) {
  struct Case {
    std::vector<const char*> args;
    long reserve, duration, cache, folder;
  } cases[] = {
      {{}, 60, 65, 2147483648L, 0},
      {{"--cache", "1", "--fs", "10"}, 60, 65, 1048576, 10485760},
      {{"--cache", "-1", "--fs", "-5"}, 60, 65, -1048576, -5},
      {{"--cache", "0", "--fs", "0", "--reserve", "0", "--duration", "0"}, 60, 65, 2147483648L, 0},
      {{"--reserve", "-1", "--duration", "-2"}, -1, -2, 2147483648L, 0},
      {{"--reserve", "70", "--duration", "65"}, 70, 65, 2147483648L, 0},
      {{"--cache", "2147483647", "--fs", "2147483647"}, 60, 65, 2147483647L << 20, 2147483647L << 20},
      {{"--cache", "-2147483648"}, 60, 65, -(2147483648L << 20), 0},
  };
  for (const Case& c : cases) {
    BagRecordOpt opt;
    ASSERT_EQ(Parse(&opt, c.args), Result::kLoaded) << opt.error();
    EXPECT_EQ(opt.reserve_time, c.reserve);
    EXPECT_EQ(opt.duration_time, c.duration);
    EXPECT_EQ(opt.cache_size, c.cache);
    EXPECT_EQ(opt.folder_size, c.folder);
    EXPECT_EQ(opt.split_time, 0) << "split time has no default";
  }
}

TEST(BagRecordOptTest, LoadingAgainDoesNotCompoundConversions) {
  BagRecordOpt opt;
  ASSERT_EQ(Parse(&opt, {"--cache", "2", "--fs", "3", "-o", "drive1", "--trigger"}), Result::kLoaded);
  opt.load_opts();
  EXPECT_EQ(opt.cache_size, 2L << 20);
  EXPECT_EQ(opt.folder_size, 3L << 20);
  EXPECT_EQ(opt.output, "drive1.kelobag.active");
}

TEST(BagRecordOptTest, DebugIsSetOnlyByTheWordTwo) {
  struct Case {
    std::vector<const char*> args;
    bool debug;
  } cases[] = {
      {{}, false},
      {{"--debug", "1"}, false},
      {{"--debug", "debug", "--debug", "3"}, false},
      {{"--debug", "1", "--debug", "2"}, true},
      {{"--debug", "1,2,3"}, true},
      {{"--debug", "22"}, false},
  };
  for (const Case& c : cases) {
    BagRecordOpt opt;
    ASSERT_EQ(Parse(&opt, c.args), Result::kLoaded) << opt.error();
    EXPECT_EQ(opt.debug, c.debug);
  }
}

TEST(BagRecordOptTest, TopicsAreDeduplicatedAndOrderedAndNocatchlimitStaysOff) {
  BagRecordOpt opt;
  opt.topics = {"/stale"};
  ASSERT_EQ(Parse(&opt, {"/z", "/a", "/z", "-n", "x", "/m"}), Result::kLoaded);
  EXPECT_EQ(std::vector<std::string>(opt.topics.begin(), opt.topics.end()),
            (std::vector<std::string>{"/a", "/m", "/z"}));
  EXPECT_FALSE(opt.nocatchlimit);
}

TEST(BagRecordOptTest, EmptyNodeNameGetsANumberedDefaultAndAGivenOneIsKept) {
  std::regex pattern("kelo_bag_record_([0-9]+)");
  for (int i = 0; i < 20; ++i) {
    BagRecordOpt opt;
    opt.update_node_name();
    std::smatch match;
    ASSERT_TRUE(std::regex_match(opt.node_name, match, pattern)) << opt.node_name;
    int number = std::stoi(match[1]);
    EXPECT_GE(number, 1);
    EXPECT_LE(number, 10000);
  }
  BagRecordOpt given;
  given.node_name = "car7";
  given.update_node_name();
  EXPECT_EQ(given.node_name, "car7");
}

TEST(BagRecordOptTest, RecordersNamedInTheSameSecondShareTheirNumber) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    time_t before = time(nullptr);
    BagRecordOpt first, second;
    first.update_node_name();
    second.update_node_name();
    if (time(nullptr) != before) continue;  // the second changed in between: try again
    EXPECT_EQ(first.node_name, second.node_name);
    return;
  }
  FAIL() << "could not name two recorders within one second";
}

TEST_F(FixedTimeZone, FileNamesGetLocalStampAndActiveSuffix) {
  ExpectStamped("", false, "bag_", ".kelobag.active");
  ExpectStamped("/data/rec/", false, "/data/rec/bag_", ".kelobag.active");
  ExpectStamped("drive1", false, "drive1_", ".kelobag.active");
  ExpectStamped("/data/rec", false, "/data/rec_", ".kelobag.active");
  ExpectStamped("/", false, "/bag_", ".kelobag.active");
  ExpectStamped("x.kelobag", false, "x.kelobag_", ".kelobag.active");
}

TEST_F(FixedTimeZone, TriggerNamesAndActiveNamesCarryNoStamp) {
  struct Case {
    std::string output;
    bool trigger;
    std::string expected;
  } cases[] = {
      {"drive1", true, "drive1.kelobag.active"},
      {"", true, "bag.kelobag.active"},
      {"/data/rec/", true, "/data/rec/bag.kelobag.active"},
      {"x.kelobag.active", false, "x.kelobag.active"},
      {"x.kelobag.active", true, "x.kelobag.active"},
  };
  for (const Case& c : cases) {
    BagRecordOpt opt;
    opt.output = c.output;
    opt.trigger = c.trigger;
    opt.update_file_name();
    EXPECT_EQ(opt.output, c.expected);
    opt.update_file_name();
    EXPECT_EQ(opt.output, c.expected) << "completing a name twice must change nothing";
  }
}

TEST_F(FixedTimeZone, LoadingCompletesNamesFromTheCommandLine) {
  BagRecordOpt opt;
  time_t before = NowSeconds();
  ASSERT_EQ(Parse(&opt, {"-o", "/data/rec/"}), Result::kLoaded);
  time_t after = NowSeconds();
  EXPECT_TRUE(opt.output == "/data/rec/bag_" + StampAt(before) + ".kelobag.active" ||
              opt.output == "/data/rec/bag_" + StampAt(after) + ".kelobag.active")
      << opt.output;
  EXPECT_THAT(opt.node_name, testing::StartsWith("kelo_bag_record_"));
}

}  // namespace
}  // namespace kelo
