#include "tools/kelo_bag/command_options.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tools/kelo_bag/record_tool_options.h"
#include "tools/kelo_bag/topic_selection.h"

namespace kelo {
namespace cli {
namespace {

template <typename Opt>
ToolsOptions::ParseResult Parse(Opt* opt, std::vector<const char*> args) {
  args.insert(args.begin(), "kelo_bag");
  return opt->parse(static_cast<int>(args.size()), args.data());
}

TEST(RecordToolOptTest, ChecksWhatTheParserCannot) {
  for (const auto& [args, error] : std::vector<std::pair<std::vector<const char*>, std::string>>{
           {{}, "give the topics to record"}, {{"-a", "/imu"}, "not both"},
           {{"-a", "--compression", "gzip"}, "--compression must be zstd, lz4 or none"},
           {{"-a", "-s", "-1"}, "--split_time must not be negative"}}) {
    RecordToolOpt opt;
    ASSERT_EQ(ToolsOptions::ParseResult::kLoaded, Parse(&opt, args));
    EXPECT_NE(std::string::npos, opt.Check().find(error)) << opt.Check();
  }
  for (const auto& [args, compression] : std::vector<std::pair<std::vector<const char*>, BagCompression>>{
           {{"/imu"}, BagCompression::kZstd}, {{"/imu", "--compression", "lz4"}, BagCompression::kLz4},
           {{"/imu", "--compression", "none"}, BagCompression::kNone}}) {
    RecordToolOpt opt;
    ASSERT_EQ(ToolsOptions::ParseResult::kLoaded, Parse(&opt, args));
    EXPECT_EQ("", opt.Check());
    EXPECT_EQ(compression, opt.WriterOptions().compression) << args.size();
  }
  // -o x.kelobag: the one file written, or the base of the names of parts and trigger files.
  for (const auto& [args, begins] : std::vector<std::pair<std::vector<const char*>, std::string>>{
           {{}, "x.kelobag.active"}, {{"--trigger"}, "x.kelobag.active"}, {{"-s", "10"}, "x_"},
           {{"--max-size", "5"}, "x_"}}) {
    RecordToolOpt opt;
    std::vector<const char*> command = {"-a", "-o", "x.kelobag"};
    command.insert(command.end(), args.begin(), args.end());
    ASSERT_EQ(ToolsOptions::ParseResult::kLoaded, Parse(&opt, command));
    EXPECT_EQ(0u, opt.output.rfind(begins, 0)) << opt.output;
  }
}

// Catches partial matches taken for whole ones, exclusions that lose to names, and a
// selection subscribed literally while patterns must look at every channel.
TEST(TopicSelectionTest, NamesAndWholeNamePatternsTakeExclusionsLeaveOut) {
  TopicSelection selection;
  ASSERT_EQ("", selection.Set({"/imu", "/cam/raw"}, {"/cam/.*"}, {".*/raw"}));
  for (int round = 0; round < 2; ++round) {  // the second time from what it remembers
    for (const auto& [topic, selected] : {std::pair{"/imu", true}, {"/cam/front", true}, {"/cam/raw", false},
                                          {"/imu2", false}, {"x/cam/front", false}})
      EXPECT_EQ(selected, selection.Selects(topic)) << topic;
  }
  EXPECT_TRUE(selection.LiteralNames().empty());
  EXPECT_FALSE(selection.TakesEverything());

  ASSERT_EQ("", selection.Set({"/b", "/a"}, {}, {}));
  EXPECT_EQ(selection.LiteralNames(), (std::vector<std::string>{"/a", "/b"}));
  EXPECT_FALSE(selection.Selects("/c"));

  ASSERT_EQ("", selection.Set({}, {}, {"/x"}));
  EXPECT_TRUE(selection.Selects("/anything"));
  EXPECT_FALSE(selection.Selects("/x"));
  ASSERT_EQ("", selection.Set({}, {}, {}));
  EXPECT_TRUE(selection.TakesEverything());
  EXPECT_TRUE(selection.Selects("/x"));

  EXPECT_EQ("\"[\" is no regular expression", selection.Set({}, {}, {"["}));
  EXPECT_EQ("\"(\" is no regular expression", selection.Set({}, {"("}, {}));
}

}  // namespace
}  // namespace cli
}  // namespace kelo
