// The keys of `kelo_bag play` in a real terminal: the player runs inside tmux, keys are
// typed with send-keys, and the screen is read back with capture-pane.

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/subprocess.h"

namespace kelo {
namespace {

using testing_support::ReadWholeFile;
using testing_support::RunToEnd;
using testing_support::TempDir;
using testing_support::WaitFor;

const std::string kKeloBag = KELO_BAG;
constexpr long kBegin = 1700000000000;

// A terminal of its own: a tmux server on a private socket, with one window.
class Terminal {
 public:
  Terminal(const TempDir& dir, const std::string& command) : dir_(dir), socket_(dir.file("tmux.sock")) {
    setenv("TERM", "xterm", 1);
    EXPECT_EQ(0, Tmux({"new-session", "-d", "-s", "play", "-x", "150", "-y", "40", command}));
  }
  ~Terminal() { Tmux({"kill-server"}); }

  int Tmux(std::vector<std::string> args) {
    args.insert(args.begin(), {"/usr/bin/tmux", "-S", socket_});
    std::string out;
    const int code = RunToEnd(args, dir_.file("tmux"), &out, nullptr, 10000);
    last_output_ = out;
    return code;
  }
  void Keys(const std::string& key) { Tmux({"send-keys", "-t", "play", key}); }
  std::string Screen() {
    Tmux({"capture-pane", "-p", "-t", "play"});
    return last_output_;
  }

  // The bag time on the last timeline line on screen; -1 when none is.
  long BagTime() {
    const std::string screen = Screen();
    const size_t at = screen.rfind("Bag Time: ");
    if (at == std::string::npos) return -1;
    return std::strtol(screen.c_str() + at + 10, nullptr, 10);
  }
  bool Shows(const std::string& text) { return Screen().find(text) != std::string::npos; }

 private:
  const TempDir& dir_;
  const std::string socket_;
  std::string last_output_;
};

// /tick every 200 ms for 12 s, then nothing for 30 s, then one last message.
std::string TickBag(const TempDir& dir) {
  BagWriter writer(fileio::FilePath(dir.file("ticks.kelobag.active")));
  writer.open("");
  for (long t = 0; t <= 12000; t += 200) writer.append_message(kBegin + t, 0, "/tick", "tick", "t");
  writer.append_message(kBegin + 42000, 0, "/tick", "late", "t");
  return writer.close();
}

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

TEST(KeloBagKeysTest, KeysPauseStepSeekLoopAndQuitDuringALongWait) {
  TempDir dir;
  const std::string bag = TickBag(dir);
  const std::string exit_file = dir.file("exit"), stty_file = dir.file("stty");
  Terminal terminal(dir, kKeloBag + " play " + bag + "; echo $? > " + exit_file + "; stty -a > " + stty_file +
                             "; sleep 60");
  ASSERT_TRUE(WaitFor([&] { return terminal.Shows("[RUNNING]"); }, 20000)) << terminal.Screen();
  ASSERT_TRUE(terminal.Shows("keys: space pause/resume")) << terminal.Screen();

  // Space pauses: the time stands still.
  terminal.Keys("Space");
  ASSERT_TRUE(WaitFor([&] { return terminal.Shows("[PAUSED ]"); }, 10000)) << terminal.Screen();
  const long paused_at = terminal.BagTime();
  ASSERT_GE(paused_at, kBegin);
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  EXPECT_EQ(paused_at, terminal.BagTime());

  // s plays the next batch, 200 ms later, and stays paused.
  terminal.Keys("s");
  ASSERT_TRUE(WaitFor([&] { return terminal.BagTime() == paused_at + 200; }, 10000)) << terminal.Screen();
  EXPECT_TRUE(terminal.Shows("[PAUSED ]"));

  // The arrows seek 5 s forward and back, within whole seconds, and keep the pause.
  terminal.Keys("Right");
  ASSERT_TRUE(WaitFor([&] { return terminal.BagTime() >= paused_at + 200 + 4000; }, 10000))
      << terminal.Screen();
  const long forward = terminal.BagTime();
  EXPECT_LE(forward, paused_at + 200 + 5000);
  EXPECT_TRUE(terminal.Shows("[PAUSED ]"));
  terminal.Keys("Left");
  ASSERT_TRUE(WaitFor([&] { return terminal.BagTime() > 0 && terminal.BagTime() <= forward - 4000; }, 10000))
      << terminal.Screen();

  // l shows the loop; space runs on to the 30 s gap.
  terminal.Keys("l");
  ASSERT_TRUE(WaitFor([&] { return terminal.Shows("[LOOP]"); }, 10000)) << terminal.Screen();
  terminal.Keys("Space");
  ASSERT_TRUE(WaitFor([&] { return terminal.BagTime() == kBegin + 12000; }, 30000)) << terminal.Screen();
  EXPECT_TRUE(terminal.Shows("[RUNNING]"));

  // q ends playback at once, long before the next message is due, and gives the terminal
  // back as it was.
  terminal.Keys("q");
  ASSERT_TRUE(WaitFor([&] { return Exists(stty_file); }, 20000)) << terminal.Screen();
  EXPECT_EQ("0\n", ReadWholeFile(exit_file));
  const std::string stty = ReadWholeFile(stty_file);
  EXPECT_EQ(std::string::npos, stty.find("-icanon")) << stty;
  EXPECT_EQ(std::string::npos, stty.find("-echo ")) << stty;
}

}  // namespace
}  // namespace kelo
