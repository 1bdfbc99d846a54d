#include <atomic>
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

TEST(ToolsModuleOutputTest, ImmediateMessagesReachConsoleAndSinkWithoutAddedLineEnds) {
  struct Case {
    void (*call)(ToolsModuleOutput*);
    std::string console;
  } cases[] = {
      {[](ToolsModuleOutput* out) { out->print_message("abc", true, false); }, ""},
      {[](ToolsModuleOutput* out) { out->print_messagel("abc", true); }, "abc\n"},
      {[](ToolsModuleOutput* out) { out->print_message("abc", true); }, "abc"},
      {[](ToolsModuleOutput* out) { out->print_messagel("abc", false); }, ""},
  };
  for (const Case& c : cases) {
    Output out;
    SinkLog sink;
    out.set_output_string_func(sink.func());
    testing::internal::CaptureStdout();
    c.call(&out);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.console);
    EXPECT_EQ(sink.calls, std::vector<std::string>{"abc"});
  }
}

TEST(ToolsModuleOutputTest, FormattedTextKeepsItsOwnLineEnd) {
  Output out;
  SinkLog sink;
  out.set_output_string_func(sink.func());
  testing::internal::CaptureStdout();
  out.print_format("save to file: %s\n", "x");
  out.print_format("%s: %s\n", "split bag", "bag_0.kelobag");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "save to file: x\nsplit bag: bag_0.kelobag\n");
  EXPECT_EQ(sink.calls, (std::vector<std::string>{"save to file: x\n", "split bag: bag_0.kelobag\n"}));
}

TEST(ToolsModuleOutputTest, TextsLongerThanTheBufferStayWhole) {
  for (size_t size : {ToolsModuleOutput::kMessageBufferSize - 1, ToolsModuleOutput::kMessageBufferSize,
                      ToolsModuleOutput::kMessageBufferSize + 1, size_t{100000}}) {
    Output out;
    SinkLog sink;
    out.set_output_string_func(sink.func());
    std::string name(size, 'n');
    testing::internal::CaptureStdout();
    out.print_format("file: %s!\n", name.c_str());
    std::string expected = "file: " + name + "!\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    ASSERT_EQ(sink.calls.size(), 1u);
    EXPECT_EQ(sink.calls[0], expected);
  }
}

TEST(ToolsModuleOutputTest, EmbeddedNulCutsOnlyTheConsoleText) {
  Output out;
  SinkLog sink;
  out.set_output_string_func(sink.func());
  std::string text("ab\0cd", 5);
  testing::internal::CaptureStdout();
  out.print_messagel(text, true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "ab\n");
  EXPECT_EQ(sink.calls, std::vector<std::string>{text});
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

  out.send_json_message(Json::Value());
  EXPECT_TRUE(json.calls.empty()) << "a null value is never sent";

  out.send_json_message("0", "ok");
  Json::Value data(Json::arrayValue);
  data.append(1);
  data.append("two");
  out.send_json_message("3", "bad bag", data);
  out.send_json_message("4", "no data", Json::Value());
  ASSERT_EQ(json.calls.size(), 3u);

  Json::Value first = ParseJson(json.calls[0]);
  EXPECT_EQ(first.getMemberNames(), (std::vector<std::string>{"error_code", "error_string"}));
  EXPECT_EQ(first["error_code"], Json::Value("0")) << "the error code is a string";
  EXPECT_EQ(first["error_string"], Json::Value("ok"));

  Json::Value second = ParseJson(json.calls[1]);
  EXPECT_EQ(second["error_code"].asString(), "3");
  EXPECT_EQ(second["data"][1].asString(), "two");

  Json::Value third = ParseJson(json.calls[2]);
  EXPECT_TRUE(third.isMember("data"));
  EXPECT_TRUE(third["data"].isNull());
  EXPECT_TRUE(strings.calls.empty());
}

TEST(ToolsModuleOutputTest, WithoutSinksEverythingStillWorks) {
  Output out;
  testing::internal::CaptureStdout();
  out.print_messagel("line", true);
  out.print_format("%d\n", 7);
  out.cache_messagel("c", false);
  out.fflush_message();
  out.send_json_message("0", "ok");
  out.set_output_string_func(nullptr);
  out.print_message("x", true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "line\n7\nx");
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

  std::istringstream lines(console);
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    int t = -1, i = -1;
    ASSERT_EQ(sscanf(line.c_str(), "thread %d message %d", &t, &i), 2) << line.substr(0, 80);
    EXPECT_EQ(line, "thread " + std::to_string(t) + " message " + std::to_string(i) + " " +
                        std::string(t * 1000, 'a' + t));
    ++count;
  }
  EXPECT_EQ(count, kThreads * kPerThread);
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
