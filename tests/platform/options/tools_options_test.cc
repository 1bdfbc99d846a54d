#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "platform/options/tools_options.h"

namespace kelo {
namespace {

using testing::HasSubstr;
using Result = ToolsOptions::ParseResult;

// A tool with one option of every kind, counting its loads.
class DemoOptions : public ToolsOptions {
 public:
  explicit DemoOptions(OptionInfo::Type positional = OptionInfo::kList)
      : ToolsOptions("demo", "demo tool", "file(s)", positional) {}
  void register_opts() override {
    register_opt("name", "the name", "text", OptionInfo::kString);
    register_opt("count", "how many", "number", OptionInfo::kInt);
    register_opt("verbose", "talk more", "", OptionInfo::kFlag);
    register_opt("tag", "a tag word", "word", OptionInfo::kList);
    register_opt("secret", "inner switch", "", OptionInfo::kFlag);
    register_opt("limit_size", "a size", "mb", OptionInfo::kInt);
    set_alias("limit_size", "ls");
    set_alias("name", "n");
    set_alias("count", "c");
    set_alias("verbose", "V");
    set_inner("secret");
    set_inner("tag");
  }
  void load_opts() override { ++loads; }
  int loads = 0;
};

Result Parse(ToolsOptions* options, std::vector<const char*> args) {
  args.insert(args.begin(), "prog");
  testing::internal::CaptureStderr();
  Result result = options->parse(static_cast<int>(args.size()), args.data());
  testing::internal::GetCapturedStderr();
  return result;
}

// Catches aliases, --name=value, the last repeat, lists, positionals, "--" or the 32-bit ends read wrongly.
TEST(ToolsOptionsTest, NamesAliasesListsAndPositionalsFillTheValues) {
  for (auto args : std::vector<std::vector<const char*>>{
           {"--name", "y", "--name", "x", "--count", "12", "--verbose", "--ls", "3"},
           {"-n", "x", "-c", "1", "-c", "12", "-V", "--ls=3"},
           {"--name=x", "--count=12", "-V", "--limit_size", "3"}}) {
    DemoOptions opt;
    ASSERT_EQ(Parse(&opt, args), Result::kLoaded) << opt.error();
    EXPECT_EQ(opt.get_string("name", ""), "x");
    EXPECT_EQ(opt.get_int("count", 0), 12);
    EXPECT_TRUE(opt.get_bool("verbose"));
    EXPECT_EQ(opt.get_int("limit_size", 0), 3);
    EXPECT_EQ(opt.loads, 1);
  }
  // Integers at the ends of the signed 32-bit range, read as themselves.
  for (auto [text, value] : std::vector<std::pair<const char*, int>>{
           {"-1", -1}, {"+5", 5}, {"2147483647", 2147483647}, {"-2147483648", -2147483647 - 1}}) {
    DemoOptions opt;
    ASSERT_EQ(Parse(&opt, {"-c", text}), Result::kLoaded) << text << ": " << opt.error();
    EXPECT_EQ(opt.get_int("count", 0), value) << text;
  }
  DemoOptions opt;
  ASSERT_EQ(Parse(&opt, {"/b", "--tag", "2", "/a", "--tag", "1,3", "--secret", "--", "-notanoption"}),
            Result::kLoaded);
  EXPECT_EQ(opt.get_list("tag"), (std::set<std::string>{"1", "2", "3"}));
  EXPECT_EQ(opt.get_list("demo"), (std::set<std::string>{"-notanoption", "/a", "/b"}));
  EXPECT_TRUE(opt.get_bool("secret"));
  // Parsing again forgets the earlier values and yields the caller's defaults.
  ASSERT_EQ(Parse(&opt, {}), Result::kLoaded);
  EXPECT_EQ(opt.get_string("name", "unset"), "unset");
  EXPECT_EQ(opt.get_int("count", -7), -7);
  EXPECT_FALSE(opt.get_bool("verbose"));
  EXPECT_TRUE(opt.get_list("demo").empty());
  DemoOptions numbered(OptionInfo::kInt);  // a positional argument that is a number, and nothing else
  EXPECT_EQ(Parse(&numbered, {"12x"}), Result::kFailed);
  EXPECT_TRUE(Parse(&numbered, {"12"}) == Result::kLoaded && numbered.get_int("demo", 0) == 12);
}

// Catches bad options or integers accepted, values loaded anyway, and multi-line errors.
TEST(ToolsOptionsTest, BadCommandLinesFailWithOneLineNamingTheOption) {
  std::vector<std::vector<const char*>> lines = {
      {"-v"}, {"--bogus", "1"}, {"--NAME", "x"}, {"-ls"}, {"--name"}};
  for (const char* bad : {"abc", "1.5", "12x", "", " 1", "2147483648", "-2147483649"})
    lines.push_back({"--count", bad});
  for (auto args : lines) {
    DemoOptions opt;
    args.insert(args.begin(), "prog");
    testing::internal::CaptureStderr();
    EXPECT_EQ(opt.parse(static_cast<int>(args.size()), args.data()), Result::kFailed);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), opt.error() + "\n");
    EXPECT_THAT(opt.error(), HasSubstr(args[1]));
    EXPECT_THAT(opt.error(), HasSubstr("usage: demo [OPTIONS] [file(s)...]"));
    EXPECT_EQ(opt.error().find('\n'), std::string::npos);
    EXPECT_EQ(std::make_pair(opt.exit_code(), opt.loads), std::make_pair(2, 0));
  }
}

}  // namespace
}  // namespace kelo
