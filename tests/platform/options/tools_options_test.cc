#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/options/tools_options.h"

namespace kelo {
namespace {

using testing::HasSubstr;
using testing::Not;

// A tool with one option of every kind, recording what load_opts saw.
class DemoOptions : public ToolsOptions {
 public:
  DemoOptions() : ToolsOptions("demo", "demo tool", "file(s)", OptionInfo::kList) {}

  void register_opts() override {
    register_opt("name", "the name", "text", OptionInfo::kString);
    register_opt("count", "how many", "number", OptionInfo::kInt);
    register_opt("verbose", "talk more", "", OptionInfo::kFlag);
    register_opt("tag", "a tag word", "word", OptionInfo::kList);
    register_opt("limit_size", "a size", "mb", OptionInfo::kInt);
    register_opt("secret", "inner switch", "", OptionInfo::kFlag);
    set_alias("name", "n");
    set_alias("count", "c");
    set_alias("verbose", "V");
    set_alias("limit_size", "ls");
    set_inner("secret");
    set_inner("tag");
  }

  void load_opts() override {
    ++loads;
    name = get_string("name", "unset");
    count = get_int("count", -7);
    verbose = get_bool("verbose");
    secret = get_bool("secret");
    tags = get_list("tag");
    files = get_list("demo");
  }

  int loads = 0;
  std::string name;
  int count = 0;
  bool verbose = false, secret = false;
  std::set<std::string> tags, files;
};

ToolsOptions::ParseResult Parse(ToolsOptions* options, std::vector<const char*> args) {
  args.insert(args.begin(), "prog");
  return options->parse(static_cast<int>(args.size()), args.data());
}

TEST(ToolsOptionsTest, LongNamesAndAliasesFillTheSameValues) {
  for (auto args : std::vector<std::vector<const char*>>{
           {"--name", "x", "--count", "12", "--verbose", "--limit_size", "3"},
           {"-n", "x", "-c", "12", "-V", "--ls", "3"},
           {"--name=x", "--count=12", "-V", "--ls=3"},
       }) {
    DemoOptions opt;
    ASSERT_EQ(Parse(&opt, args), ToolsOptions::ParseResult::kLoaded) << opt.error();
    EXPECT_EQ(opt.name, "x");
    EXPECT_EQ(opt.count, 12);
    EXPECT_TRUE(opt.verbose);
    EXPECT_EQ(opt.get_int("limit_size", 0), 3);
    EXPECT_EQ(opt.loads, 1);
  }
}

TEST(ToolsOptionsTest, OptionsNotGivenYieldTheCallersDefaults) {
  DemoOptions opt;
  ASSERT_EQ(Parse(&opt, {}), ToolsOptions::ParseResult::kLoaded);
  EXPECT_EQ(opt.name, "unset");
  EXPECT_EQ(opt.count, -7);
  EXPECT_FALSE(opt.verbose);
  EXPECT_TRUE(opt.tags.empty());
  EXPECT_TRUE(opt.files.empty());
  EXPECT_FALSE(opt.get_bool("never_registered"));
  EXPECT_EQ(opt.get_int("never_registered", 42), 42);
  EXPECT_EQ(opt.get_string("never_registered", "d"), "d");
  EXPECT_TRUE(opt.get_list("never_registered").empty());
}

TEST(ToolsOptionsTest, ListsAndPositionalsCollectIntoOrderedSets) {
  DemoOptions opt;
  ASSERT_EQ(Parse(&opt, {"/b", "--tag", "2", "/a", "--tag", "1,3", "/b", "--", "-notanoption"}),
            ToolsOptions::ParseResult::kLoaded)
      << opt.error();
  EXPECT_EQ(opt.tags, (std::set<std::string>{"1", "2", "3"}));
  EXPECT_EQ(opt.files, (std::set<std::string>{"-notanoption", "/a", "/b"}));
}

TEST(ToolsOptionsTest, RepeatedSingleValueOptionKeepsTheLast) {
  DemoOptions opt;
  ASSERT_EQ(Parse(&opt, {"-n", "first", "--name", "second", "-c", "1", "-c", "2"}),
            ToolsOptions::ParseResult::kLoaded);
  EXPECT_EQ(opt.name, "second");
  EXPECT_EQ(opt.count, 2);
}

TEST(ToolsOptionsTest, IntegersCoverTheSigned32BitRange) {
  for (auto [text, value] : std::vector<std::pair<const char*, int>>{
           {"0", 0}, {"-1", -1}, {"+5", 5}, {"2147483647", 2147483647}, {"-2147483648", -2147483647 - 1}}) {
    DemoOptions opt;
    ASSERT_EQ(Parse(&opt, {"-c", text}), ToolsOptions::ParseResult::kLoaded) << text << ": " << opt.error();
    EXPECT_EQ(opt.count, value) << text;
  }
}

TEST(ToolsOptionsTest, MalformedIntegerFailsWithOneLineNamingTheOption) {
  for (const char* bad : {"abc", "1.5", "12x", "", " 1", "2147483648", "-2147483649", "99999999999999999999"}) {
    DemoOptions opt;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Parse(&opt, {"--count", bad}), ToolsOptions::ParseResult::kFailed) << "'" << bad << "'";
    std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed, opt.error() + "\n");
    EXPECT_THAT(opt.error(), HasSubstr("--count"));
    EXPECT_THAT(opt.error(), HasSubstr("usage: demo [OPTIONS] [file(s)...]"));
    EXPECT_EQ(opt.error().find('\n'), std::string::npos);
    EXPECT_EQ(opt.exit_code(), 2);
    EXPECT_EQ(opt.loads, 0) << "nothing may be loaded from a rejected command line";
  }
}

TEST(ToolsOptionsTest, UnknownOptionFailsWithOneLineNamingIt) {
  for (auto args : std::vector<std::vector<const char*>>{{"-v"}, {"--bogus", "1"}, {"--NAME", "x"}, {"-ls"}}) {
    DemoOptions opt;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Parse(&opt, args), ToolsOptions::ParseResult::kFailed) << args[0];
    testing::internal::GetCapturedStderr();
    EXPECT_THAT(opt.error(), HasSubstr(args[0]));
    EXPECT_EQ(opt.error().find('\n'), std::string::npos);
  }
}

TEST(ToolsOptionsTest, MissingValueFails) {
  DemoOptions opt;
  testing::internal::CaptureStderr();
  EXPECT_EQ(Parse(&opt, {"--name"}), ToolsOptions::ParseResult::kFailed);
  testing::internal::GetCapturedStderr();
  EXPECT_THAT(opt.error(), HasSubstr("--name"));
}

TEST(ToolsOptionsTest, InnerOptionsParseButStayOutOfHelp) {
  DemoOptions opt;
  ASSERT_EQ(Parse(&opt, {"--secret", "--tag", "x"}), ToolsOptions::ParseResult::kLoaded);
  EXPECT_TRUE(opt.secret);
  EXPECT_EQ(opt.tags, std::set<std::string>{"x"});

  std::string help = opt.help();
  EXPECT_THAT(help, HasSubstr("--name"));
  EXPECT_THAT(help, HasSubstr("--ls"));
  EXPECT_THAT(help, HasSubstr("how many"));
  EXPECT_THAT(help, HasSubstr("file(s)"));
  EXPECT_THAT(help, Not(HasSubstr("secret")));
  EXPECT_THAT(help, Not(HasSubstr("--tag")));
}

TEST(ToolsOptionsTest, HelpIsPrintedAndNothingLoaded) {
  DemoOptions opt;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Parse(&opt, {"--help"}), ToolsOptions::ParseResult::kHelp);
  std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_THAT(printed, HasSubstr("--count"));
  EXPECT_EQ(opt.loads, 0);
  EXPECT_EQ(opt.exit_code(), 0);
}

TEST(ToolsOptionsTest, ParsingAgainForgetsEarlierValues) {
  DemoOptions opt;
  ASSERT_EQ(Parse(&opt, {"-n", "x", "-V", "/a"}), ToolsOptions::ParseResult::kLoaded);
  ASSERT_EQ(Parse(&opt, {"/b"}), ToolsOptions::ParseResult::kLoaded);
  EXPECT_EQ(opt.name, "unset");
  EXPECT_FALSE(opt.verbose);
  EXPECT_EQ(opt.files, std::set<std::string>{"/b"});
  EXPECT_EQ(opt.options().size(), 6u) << "registration must not pile up over parses";
}

// An alias that collides with another name is the tool author's mistake; it must still
// come back as a failed parse, never as an exception or an abort.
class CollidingOptions : public ToolsOptions {
 public:
  CollidingOptions() : ToolsOptions("clash", "clash", "", OptionInfo::kString) {}
  void register_opts() override {
    register_opt("alpha", "a", "", OptionInfo::kFlag);
    register_opt("beta", "b", "", OptionInfo::kFlag);
    set_alias("alpha", "x");
    set_alias("beta", "x");
  }
};

TEST(ToolsOptionsTest, ConflictingRegistrationFailsCleanly) {
  CollidingOptions opt;
  testing::internal::CaptureStderr();
  EXPECT_EQ(Parse(&opt, {"--alpha"}), ToolsOptions::ParseResult::kFailed);
  testing::internal::GetCapturedStderr();
  EXPECT_THAT(opt.error(), HasSubstr("clash: "));
}

}  // namespace
}  // namespace kelo
