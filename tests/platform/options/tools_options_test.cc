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

TEST(ToolsOptionsTest, AcceptedCommandLinesFillTheValues) {
  using Set = std::set<std::string>;
  const struct {
    std::vector<const char*> args;
    std::string name;
    int count;
    bool verbose;
    Set tags, files;
  } cases[] = {
      {{}, "unset", -7, false, {}, {}},
      {{"--name", "x", "--count", "12", "--verbose"}, "x", 12, true, {}, {}},
      {{"-n", "x", "-c", "12", "-V"}, "x", 12, true, {}, {}},
      {{"--name=x", "--count=12"}, "x", 12, false, {}, {}},
      {{"-n", "first", "--name", "second", "-c", "1", "-c", "2"}, "second", 2, false, {}, {}},
      {{"-c", "+5"}, "unset", 5, false, {}, {}},
      {{"-c", "2147483647"}, "unset", 2147483647, false, {}, {}},
      {{"-c", "-2147483648"}, "unset", -2147483647 - 1, false, {}, {}},
      {{"/b", "--tag", "2", "/a", "--tag", "1,3", "/b", "--", "-notanoption"}, "unset", -7, false,
       {"1", "2", "3"}, {"-notanoption", "/a", "/b"}},
  };
  for (const auto& c : cases) {
    DemoOptions opt;
    ASSERT_EQ(Parse(&opt, c.args), ToolsOptions::ParseResult::kLoaded) << opt.error();
    EXPECT_EQ(opt.name, c.name);
    EXPECT_EQ(opt.count, c.count);
    EXPECT_EQ(opt.verbose, c.verbose);
    EXPECT_EQ(opt.tags, c.tags);
    EXPECT_EQ(opt.files, c.files);
    EXPECT_EQ(opt.loads, 1);
  }
  DemoOptions opt;  // aliases of an option the tool reads itself; unknown names give defaults
  ASSERT_EQ(Parse(&opt, {"--ls", "3", "--secret"}), ToolsOptions::ParseResult::kLoaded);
  EXPECT_EQ(opt.get_int("limit_size", 0), 3);
  EXPECT_TRUE(opt.secret);
  EXPECT_FALSE(opt.get_bool("never_registered"));
  EXPECT_EQ(opt.get_int("never_registered", 42), 42);
  EXPECT_EQ(opt.get_string("never_registered", "d"), "d");
  ASSERT_EQ(Parse(&opt, {"/b"}), ToolsOptions::ParseResult::kLoaded);  // parsing again forgets
  EXPECT_FALSE(opt.secret);
  EXPECT_EQ(opt.files, Set{"/b"});
  EXPECT_EQ(opt.options().size(), 6u) << "registration must not pile up over parses";
}

TEST(ToolsOptionsTest, RejectedCommandLinesFailWithOneLineNamingTheOption) {
  const struct {
    std::vector<const char*> args;
    const char* named;
  } cases[] = {{{"--count", "abc"}, "--count"}, {{"--count", "1.5"}, "--count"},  {{"--count", "12x"}, "--count"},
               {{"--count", ""}, "--count"},    {{"--count", " 1"}, "--count"},   {{"-c", "2147483648"}, "-c"},
               {{"-c", "-2147483649"}, "-c"},   {{"-v"}, "-v"},                    {{"--bogus", "1"}, "--bogus"},
               {{"--NAME", "x"}, "--NAME"},     {{"-ls"}, "-ls"},                  {{"--name"}, "--name"}};
  for (const auto& c : cases) {
    DemoOptions opt;
    testing::internal::CaptureStderr();
    EXPECT_EQ(Parse(&opt, c.args), ToolsOptions::ParseResult::kFailed) << c.named;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), opt.error() + "\n");
    EXPECT_THAT(opt.error(), HasSubstr(c.named));
    EXPECT_THAT(opt.error(), HasSubstr("usage: demo [OPTIONS] [file(s)...]"));
    EXPECT_EQ(opt.error().find('\n'), std::string::npos);
    EXPECT_EQ(opt.exit_code(), 2);
    EXPECT_EQ(opt.loads, 0) << "nothing may be loaded from a rejected command line";
  }
}

TEST(ToolsOptionsTest, HelpListsThePublicOptionsAndLoadsNothing) {
  DemoOptions opt;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Parse(&opt, {"--help"}), ToolsOptions::ParseResult::kHelp);
  const std::string help = testing::internal::GetCapturedStdout();
  EXPECT_EQ(help, opt.help());
  for (const char* shown : {"--name", "--ls", "how many", "file(s)"}) EXPECT_THAT(help, HasSubstr(shown));
  EXPECT_THAT(help, Not(HasSubstr("secret")));
  EXPECT_THAT(help, Not(HasSubstr("--tag")));
  EXPECT_EQ(opt.loads, 0);
  EXPECT_EQ(opt.exit_code(), 0);
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
