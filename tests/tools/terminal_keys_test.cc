#include "tools/kelo_bag/terminal_keys.h"

#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kelo {
namespace cli {
namespace {

// Every playback key, both arrow modes, and what is ignored: up and down, a modified arrow, a
// function key (the key after it counts), other letters, Enter, and Escape before a letter and
// before q, which still counts. Sequences split across reads at any byte are joined.
TEST(KeyDecoderTest, DecodesThePlaybackKeysWhereverTheReadsSplitThem) {
  const std::string bytes = " slqSLQ\033[D\033[C\033OD\033OC\033[A\033[B\033[1;5C\033[15~s\033xab\n\033q";
  const std::vector<Key> want = {Key::kPause, Key::kStep, Key::kLoop, Key::kQuit,  Key::kStep,
                                 Key::kLoop,  Key::kQuit, Key::kLeft, Key::kRight, Key::kLeft,
                                 Key::kRight, Key::kStep, Key::kQuit};
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    KeyDecoder decoder;
    std::vector<Key> keys;
    decoder.Feed(bytes.data(), cut, &keys);
    decoder.Feed(bytes.data() + cut, bytes.size() - cut, &keys);
    EXPECT_EQ(want, keys) << "cut at " << cut;
  }
}

TEST(RawTerminalTest, DeliversKeysAtOnceWithoutEchoAndRestoresTheTerminal) {
  int master = -1, terminal = -1;
  ASSERT_EQ(0, openpty(&master, &terminal, nullptr, nullptr, nullptr));
  const auto lflag = [&] {  // the terminal's local modes, 0 when they cannot be read
    struct termios modes = {};
    return tcgetattr(terminal, &modes) == 0 ? modes.c_lflag : 0;
  };
  const tcflag_t before = lflag();
  ASSERT_TRUE(before & ICANON);

  for (int round = 0; round < 2; ++round) {
    RawTerminal raw(terminal);
    ASSERT_TRUE(raw.active());
    const tcflag_t during = lflag();
    EXPECT_FALSE(during & (ICANON | ECHO));
    EXPECT_TRUE(during & ISIG);  // Ctrl-C still interrupts
    // Without a line end, a key is readable at once.
    ASSERT_EQ(1, write(master, "q", 1));
    char c = 0;
    ASSERT_EQ(1, read(terminal, &c, 1));
    EXPECT_EQ('q', c);
    if (round == 1) {
      RawTerminal::RestoreNow();  // as a signal handler would, before the destructor
      EXPECT_EQ(before, lflag());
    }
  }
  EXPECT_EQ(before, lflag());
  close(terminal);
  close(master);
}

}  // namespace
}  // namespace cli
}  // namespace kelo
