#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "output/tools_module_output.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

// Catches console or sink text dropped, doubled, given a line end, or cut at the buffer.
TEST(ToolsModuleOutputTest, TextReachesConsoleAndSinkWhole) {
  const std::string nul("ab\0cd", 5), big(ToolsModuleOutput::kMessageBufferSize - 2, 'n');
  struct Case {
    std::function<void(Output*)> call;
    std::string console, sink;
  };
  for (const Case& c : std::vector<Case>{
           {[](Output* o) { o->print_message("abc", true, false); }, "", "abc"},
           {[](Output* o) { o->print_messagel("abc", true); }, "abc\n", "abc"},
           {[](Output* o) { o->print_message("abc", true); }, "abc", "abc"},
           {[](Output* o) { o->print_messagel("abc", false); }, "", "abc"},
           {[&](Output* o) { o->print_messagel(nul, true); }, "ab\n", nul},
           {[](Output* o) { o->print_format("%s: %d\n", "split", 3); }, "split: 3\n", "split: 3\n"},
           {[&](Output* o) { o->print_format("%s!\n", big.c_str() + 1); }, big.substr(1) + "!\n",
            big.substr(1) + "!\n"},
           {[&](Output* o) { o->print_format("%s!\n", big.c_str()); }, big + "!\n", big + "!\n"}}) {
    Output out;
    std::vector<std::string> sink;
    out.set_output_string_func([&](const std::string& text) { sink.push_back(text); });
    testing::internal::CaptureStdout();
    c.call(&out);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.console);
    EXPECT_EQ(sink, std::vector<std::string>{c.sink});
  }
}

// Catches a line left in the process's buffer: once printed with its line end it is out, even
// when the console is a file and the process ends at once after it (a recorder killed).
TEST(ToolsModuleOutputTest, ALinePrintedIsOutEvenIfTheProcessEndsAtOnce) {
  testing_support::TempDir dir;
  const int file = open(dir.file("console").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(file, 0);
  std::fflush(stdout);  // nothing of this process's own goes to the child's console
  const pid_t child = fork();
  if (child == 0) {
    dup2(file, STDOUT_FILENO);
    Output().print_messagel("kept", true);
    _exit(0);
  }
  close(file);
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  EXPECT_EQ("kept\n", testing_support::ReadFile(dir.file("console")));
}

// Catches a deadlock when the sink prints, and texts torn or lost across threads.
TEST(ToolsModuleOutputTest, ConcurrentAndReentrantPrintingKeepsEveryTextWhole) {
  Output out;
  out.set_output_string_func([&](const std::string& text) {
    if (text == "hi") out.print_format("echo %s", text.c_str());
  });
  testing::internal::CaptureStdout();
  out.print_format("%s", "hi");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "hiecho hi");
  std::mutex mu;
  std::multiset<std::string> sent, lines;
  auto keep = [&](const std::string& text) {
    std::lock_guard<std::mutex> hold(mu);
    sent.insert(text.size() && text.back() == '\n' ? text : text + "\n");
  };
  std::atomic<bool> stop{false};
  out.set_output_string_func(keep);
  testing::internal::CaptureStdout();
  std::thread swapper([&] { while (!stop) out.set_output_string_func(keep); });
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      for (int i = 1; i <= 300; ++i) {  // its length tells every text apart
        const std::string text(t * 1000 + i, static_cast<char>('a' + t));
        i % 2 ? out.print_messagel(text, true) : out.print_format("%s\n", text.c_str());
      }
    });
  for (auto& thread : threads) thread.join();
  stop = true;
  swapper.join();
  std::istringstream console(testing::internal::GetCapturedStdout());
  for (std::string line; std::getline(console, line);) lines.insert(line + "\n");
  EXPECT_EQ(lines.size(), 8 * 300u);
  EXPECT_TRUE(lines == sent);
}

}  // namespace
}  // namespace kelo
