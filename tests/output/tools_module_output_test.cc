#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/reader.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "output/tools_module_output.h"

namespace kelo {
namespace {

// Records every call of a sink, in order.
struct SinkLog {
  std::vector<std::string> calls;
  ToolsModuleOutput::OutputFunc func() {
    return [this](const std::string& text) { calls.push_back(text); };
  }
};

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(text);
  EXPECT_TRUE(Json::parseFromStream(builder, in, &value, &errors)) << errors;
  return value;
}

// What reaches the console and the sink: line ends only where asked, texts longer than the
// shared buffer whole, an embedded NUL cuts the console text only.
TEST(ToolsModuleOutputTest, PrintsReachConsoleAndSinkWhole) {
  const std::string nul("ab\0cd", 5), big(ToolsModuleOutput::kMessageBufferSize, 'n');
  struct Case {
    std::function<void(ToolsModuleOutput*)> call;
    std::string console;
    std::vector<std::string> sink;
  } cases[] = {
      {[](ToolsModuleOutput* out) { out->print_message("abc", true, false); }, "", {"abc"}},
      {[](ToolsModuleOutput* out) { out->print_messagel("abc", true); }, "abc\n", {"abc"}},
      {[](ToolsModuleOutput* out) { out->print_message("abc", true); }, "abc", {"abc"}},
      {[](ToolsModuleOutput* out) { out->print_messagel("abc", false); }, "", {"abc"}},
      {[](ToolsModuleOutput* out) { out->print_format("%s: %d\n", "split", 7); }, "split: 7\n", {"split: 7\n"}},
      {[&](ToolsModuleOutput* out) { out->print_format("f: %s!\n", big.c_str()); }, "f: " + big + "!\n",
       {"f: " + big + "!\n"}},
      {[&](ToolsModuleOutput* out) { out->print_format("%s", big.substr(1).c_str()); }, big.substr(1),
       {big.substr(1)}},
      {[&](ToolsModuleOutput* out) { out->print_messagel(nul, true); }, "ab\n", {nul}},
  };
  for (const Case& c : cases) {
    Output out;
    SinkLog sink;
    out.set_output_string_func(sink.func());
    testing::internal::CaptureStdout();
    c.call(&out);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.console);
    EXPECT_EQ(sink.calls, c.sink);
  }
  Output quiet;  // without sinks everything still works
  testing::internal::CaptureStdout();
  quiet.print_messagel("line", true);
  quiet.cache_messagel("c", false);
  quiet.fflush_message();
  quiet.send_json_message("0", "ok");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "line\n");
}

TEST(ToolsModuleOutputTest, CacheIsSentAsOneBlockAndEmptiedBeforeTheSinkRuns) {
  Output out;
  SinkLog sink;
  out.set_output_string_func(sink.func());
  testing::internal::CaptureStdout();
  out.cache_messagel("a", false);
  out.cache_message("b", false);
  out.cache_messagel("c", true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "c\n");
  EXPECT_TRUE(sink.calls.empty()) << "caching must not reach the sink";

  out.fflush_message();
  out.fflush_message();
  EXPECT_EQ(sink.calls, (std::vector<std::string>{"a\nbc\n", ""}));

  out.cache_message("lost", false);
  out.clear_message_cache();
  out.fflush_message();
  EXPECT_EQ(sink.calls.back(), "");

  // A sink that caches again while being flushed sees the old cache gone.
  std::vector<std::string> seen;
  out.set_output_string_func([&](const std::string& text) {
    seen.push_back(text);
    if (seen.size() == 1) out.cache_message("next", false);
  });
  out.cache_message("first", false);
  out.fflush_message();
  out.fflush_message();
  EXPECT_EQ(seen, (std::vector<std::string>{"first", "next"}));
}

TEST(ToolsModuleOutputTest, JsonDocumentsGoOnlyToTheJsonSink) {
  Output out;
  SinkLog strings, json;
  out.set_output_string_func(strings.func());
  out.set_output_json_func(json.func());
  out.send_json_message(Json::Value());  // a null value is never sent
  out.send_json_message("0", "ok");
  Json::Value data(Json::arrayValue);
  data.append("two");
  out.send_json_message("3", "bad bag", data);
  ASSERT_EQ(json.calls.size(), 2u);
  Json::Value first = ParseJson(json.calls[0]);
  EXPECT_EQ(first.getMemberNames(), (std::vector<std::string>{"error_code", "error_string"}));
  EXPECT_EQ(first["error_code"], Json::Value("0")) << "the error code is a string";
  EXPECT_EQ(first["error_string"], Json::Value("ok"));
  EXPECT_EQ(ParseJson(json.calls[1])["data"][0].asString(), "two");
  EXPECT_TRUE(strings.calls.empty());
}

TEST(ToolsModuleOutputTest, SinkMayReportThroughTheSameChannel) {
  Output out;
  std::vector<std::string> seen;
  out.set_output_string_func([&](const std::string& text) {
    seen.push_back(text);
    if (seen.size() == 1) out.print_format("echo %s", text.c_str());
  });
  testing::internal::CaptureStdout();
  out.print_format("%s", "hi");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "hiecho hi");
  EXPECT_EQ(seen, (std::vector<std::string>{"hi", "echo hi"}));
}

// Receive threads, the save thread and the tool print at once while the tool swaps its sink.
TEST(ToolsModuleOutputTest, ConcurrentPrintingKeepsEveryTextWhole) {
  Output out;
  std::mutex sink_mutex;
  std::map<std::string, int> received;
  auto sink = [&](const std::string& text) {
    std::lock_guard<std::mutex> hold(sink_mutex);
    ++received[text];
  };
  out.set_output_string_func(sink);

  constexpr int kThreads = 8, kPerThread = 300;
  std::atomic<bool> stop{false};
  testing::internal::CaptureStdout();
  std::thread swapper([&] {
    while (!stop) {
      out.set_output_string_func(sink);
      out.cache_message("cached", false);
      out.fflush_message();
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::string padding(t * 1000, 'a' + t);  // some texts exceed the shared buffer
      for (int i = 0; i < kPerThread; ++i) {
        if (i % 2 == 0) {
          out.print_format("thread %d message %d %s\n", t, i, padding.c_str());
        } else {
          out.print_messagel("thread " + std::to_string(t) + " message " + std::to_string(i) + " " + padding, true);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  stop = true;
  swapper.join();
  std::string console = testing::internal::GetCapturedStdout();

  const int lines = static_cast<int>(std::count(console.begin(), console.end(), '\n'));
  EXPECT_EQ(lines, kThreads * kPerThread);
  for (int t = 0; t < kThreads; ++t) {
    std::string padding(t * 1000, 'a' + t);
    for (int i = 0; i < kPerThread; ++i) {
      std::string text = "thread " + std::to_string(t) + " message " + std::to_string(i) + " " + padding;
      if (i % 2 == 0) text += "\n";
      EXPECT_EQ(received[text], 1) << text.substr(0, 40);
    }
  }
}

}  // namespace
}  // namespace kelo
